#pragma once

#include "Block.h"
#include "Export.h"
#include "NSObject.h"
#include "NSString.h"

namespace vantorq {

enum class NSPredicateOperatorType : NSUInteger {
    lessThan = 0,
    lessThanOrEqualTo = 1,
    greaterThan = 2,
    greaterThanOrEqualTo = 3,
    equalTo = 4,
    notEqualTo = 5,
    beginsWith = 8,
    endsWith = 9,
    in = 10,        ///< the constant, an array, a set or text, contains the value
    contains = 99,  ///< the value, an array, a set or text, contains the constant
};

/// A condition on an object: a function, or the comparison of a value at a key path with a
/// constant.
///
/// Numbers compare by value, text by UTF-16 units, dates by time, and anything else only for
/// equality. Two things that cannot be ordered (nil and a number, text and a date) fail every
/// ordering. A nil value equals a nil constant.
///
/// Threads: any; the function must be as thread-safe as its use.
class VNTQ_EXPORT NSPredicate : public NSObject {
    VNTQ_OBJECT(NSPredicate, NSObject)
public:
    /// Holds when the block says so. An empty block traps.
    [[nodiscard]] static Ref<NSPredicate> predicateWithBlock(Block<bool(NSObject*)> block);
    /// Holds when `object.keyPath <type> value` does. The path is read with `valueForKeyPath`; the
    /// empty path is the object itself.
    [[nodiscard]] static Ref<NSPredicate> predicateWithKeyPath(const NSString& keyPath,
                                                               NSPredicateOperatorType type,
                                                               const id& value);

    [[nodiscard]] bool evaluateWithObject(NSObject* object) const { return block_(object); }

    explicit NSPredicate(Block<bool(NSObject*)> block) : block_(std::move(block)) {}
    /// The predicate itself.
    [[nodiscard]] id copyWithZone(void* zone) const override;

private:
    ~NSPredicate() override = default;

    const Block<bool(NSObject*)> block_;
};

}  // namespace vantorq
