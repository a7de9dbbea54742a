#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <iterator>
#include <span>
#include <vector>

#include "Block.h"
#include "NSObject.h"
#include "NSString.h"

namespace vantorq {

/// An order of objects, for sorting: a strict weak one.
using NSComparator = Block<NSComparisonResult(const NSObject& a, const NSObject& b)>;

/// An immutable row of objects, none of them nil. `NSNull` stands for a place without one.
///
/// The elements stand side by side in one block, for an immutable array in that of the array
/// itself.
///
///     const auto names = NSArray::array({"a"_ns, "b"_ns});
///     for (const id& name : *names) { ... }
///
/// Threads: an immutable array may be used from any thread; a mutable one from one at a time.
/// Traps: a nil element, an index outside the array, and walking on in an array that was changed
/// since the walk began.
class VNTQ_EXPORT NSArray : public NSObject {
    VNTQ_OBJECT(NSArray, NSObject)
public:
    class Iterator;

    /// The empty array.
    NSArray() noexcept = default;

    // Making arrays. O(n), and one allocation.

    [[nodiscard]] static Ref<NSArray> array();
    [[nodiscard]] static Ref<NSArray> array(std::initializer_list<id> elements);
    [[nodiscard]] static Ref<NSArray> array(std::span<const id> elements);
    [[nodiscard]] static Ref<NSArray> array(std::vector<id>&& elements);
    [[nodiscard]] static Ref<NSArray> arrayWithObject(id object);
    [[nodiscard]] static Ref<NSArray> arrayWithArray(const NSArray& other);

    // Reading.

    [[nodiscard]] NSUInteger count() const noexcept { return count_; }
    [[nodiscard]] id objectAtIndex(NSUInteger index) const { return (*this)[index]; }
    /// The element without a count of its own: valid until the array changes or goes.
    [[nodiscard]] const id& operator[](NSUInteger index) const {
        if (index >= count_) [[unlikely]] {
            VNTQ_TRAP("NSArray: index out of bounds");
        }
        return elements_[index];
    }
    /// Nil when the array is empty.
    [[nodiscard]] id firstObject() const { return count_ > 0 ? elements_[0] : nullptr; }
    [[nodiscard]] id lastObject() const { return count_ > 0 ? elements_[count_ - 1] : nullptr; }
    /// All elements; valid until the array changes or goes.
    [[nodiscard]] std::span<const id> elements() const noexcept { return {elements_, count_}; }
    [[nodiscard]] Iterator begin() const noexcept;
    [[nodiscard]] Iterator end() const noexcept;
    /// Calls `visit(element, index)` for each element in turn.
    void enumerateObjects(const Block<void(NSObject& element, NSUInteger index)>& visit) const;

    // Searching, by `isEqual`. O(n).

    [[nodiscard]] bool containsObject(const NSObject& object) const;
    /// The first place; NSNotFound when there is none.
    [[nodiscard]] NSUInteger indexOfObject(const NSObject& object) const;
    /// The same by identity.
    [[nodiscard]] NSUInteger indexOfObjectIdenticalTo(const NSObject& object) const noexcept;

    // Deriving.

    [[nodiscard]] Ref<NSArray> arrayByAddingObject(id object) const;
    [[nodiscard]] Ref<NSArray> arrayByAddingObjectsFromArray(const NSArray& other) const;
    [[nodiscard]] Ref<NSArray> subarrayWithRange(NSRange range) const;
    [[nodiscard]] Ref<NSArray> reversedArray() const;
    /// Stable; O(n log n) comparisons. A comparator that is no strict weak order gives some order.
    [[nodiscard]] Ref<NSArray> sortedArrayUsingComparator(const NSComparator& comparator) const;
    /// By a message such as "compare:", which each element answers with an NSComparisonResult.
    [[nodiscard]] Ref<NSArray> sortedArrayUsingSelector(Selector selector) const;
    /// The descriptions of the elements, joined.
    [[nodiscard]] Ref<NSString> componentsJoinedByString(const NSString& separator) const;

    /// The array of each element's value; the null object stands for nil.
    [[nodiscard]] id valueForKey(const NSString& key) const override;
    /// Sets each element's value.
    void setValueForKey(const id& value, const NSString& key) override;

    /// The same elements, by `isEqual`, in the same order.
    [[nodiscard]] bool isEqual(const NSObject* other) const override;
    [[nodiscard]] bool isEqualToArray(const NSArray* other) const;
    [[nodiscard]] NSUInteger hash() const override;
    /// One element a line, in parentheses.
    [[nodiscard]] Ref<NSString> description() const override;
    /// The receiver itself when it is immutable.
    [[nodiscard]] id copyWithZone(void* zone) const override;
    [[nodiscard]] id mutableCopyWithZone(void* zone) const override;

    /// Frees elements and object at once: the elements of an immutable array stand behind it.
    static void operator delete(void* memory) noexcept { ::operator delete(memory); }

protected:
    ~NSArray() override;

private:
    friend class NSMutableArray;

    static Ref<NSArray> allocate(NSUInteger capacity);
    void append(id element);

    id* elements_ = nullptr;
    NSUInteger count_ = 0;
    std::uint32_t mutations_ = 0;
};

/// A place in an array. Moving on in an array that has changed traps.
class NSArray::Iterator {
public:
    using value_type = id;
    using difference_type = std::ptrdiff_t;

    Iterator() noexcept = default;
    const id& operator*() const noexcept { return *at_; }
    const id* operator->() const noexcept { return at_; }
    Iterator& operator++() {
        if (array_->mutations_ != mutations_) [[unlikely]] {
            VNTQ_TRAP("NSArray: the array was changed while it was enumerated");
        }
        ++at_;
        return *this;
    }
    Iterator operator++(int) {
        Iterator before = *this;
        ++*this;
        return before;
    }
    friend bool operator==(const Iterator& a, const Iterator& b) noexcept { return a.at_ == b.at_; }

private:
    friend class NSArray;
    Iterator(const NSArray& array, const id* at) noexcept
        : array_(&array), at_(at), mutations_(array.mutations_) {}

    const NSArray* array_ = nullptr;
    const id* at_ = nullptr;
    std::uint32_t mutations_ = 0;
};

inline NSArray::Iterator NSArray::begin() const noexcept {
    return {*this, elements_};
}
inline NSArray::Iterator NSArray::end() const noexcept {
    return {*this, elements_ + count_};
}

/// A row of objects that can be changed in place. One thread at a time.
///
/// Appending is O(1), amortised; inserting and removing elsewhere O(n).
class VNTQ_EXPORT NSMutableArray final : public NSArray {
    VNTQ_OBJECT(NSMutableArray, NSArray)
public:
    NSMutableArray() noexcept = default;

    [[nodiscard]] static Ref<NSMutableArray> array();
    [[nodiscard]] static Ref<NSMutableArray> array(std::initializer_list<id> elements);
    [[nodiscard]] static Ref<NSMutableArray> array(std::span<const id> elements);
    /// Empty, with room for `capacity` elements.
    [[nodiscard]] static Ref<NSMutableArray> arrayWithCapacity(NSUInteger capacity);

    void addObject(id object);
    void addObjectsFromArray(const NSArray& other);
    void insertObjectAtIndex(id object, NSUInteger index);
    void removeObjectAtIndex(NSUInteger index);
    void removeObjectsInRange(NSRange range);
    /// Nothing happens in an empty array.
    void removeLastObject();
    void removeAllObjects();
    /// Removes every element that is equal to `object`.
    void removeObject(const NSObject& object);
    void replaceObjectAtIndex(NSUInteger index, id object);
    void exchangeObjects(NSUInteger first, NSUInteger second);
    void setArray(const NSArray& other);
    /// Stable; see `sortedArrayUsingComparator`.
    void sortUsingComparator(const NSComparator& comparator);

    /// An immutable array.
    [[nodiscard]] id copyWithZone(void* zone) const override;

private:
    ~NSMutableArray() override;
    void update() noexcept;
    void checkIndex(NSUInteger index) const;

    std::vector<id> buffer_;
};

}  // namespace vantorq
