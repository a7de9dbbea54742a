#pragma once

#include "Platform/Export.h"
#include "Platform/NSObject.h"
#include "Platform/NSString.h"

namespace vantorq {

enum class VNTQResultType : NSUInteger {
    none = 0,
    success = 1,
    failure = 2,
};
inline constexpr VNTQResultType VNTQResultTypeNone = VNTQResultType::none;
inline constexpr VNTQResultType VNTQResultTypeSuccess = VNTQResultType::success;
inline constexpr VNTQResultType VNTQResultTypeFailure = VNTQResultType::failure;

/// The outcome of work: a success that carries any object, or a failure that carries an error.
///
/// The kind says which of the two payloads counts; the other is nil. A result is a mutable record
/// by its properties, but is meant to be built once and then only read, and the library never
/// changes one. A result of kind `none`, which only a plain `make<VNTQResult>()` gives, counts as
/// neither success nor failure.
///
/// Threads: a result has no lock; reading it from any thread is safe while nobody writes. The
/// shared results may be used from any thread and must not be written.
class VNTQ_EXPORT VNTQResult : public NSObject {
    VNTQ_OBJECT(VNTQResult, NSObject)
public:
    VNTQResult() noexcept = default;

    /// A new success. The value may be nil, and then stays nil.
    [[nodiscard]] static Ref<VNTQResult> resultWithSuccess(const id& value);
    /// A new failure. The error may be any object, but normally is an `NSError`.
    [[nodiscard]] static Ref<VNTQResult> resultWithFailure(const id& error);
    /// One shared success, for those who have no value to report. Its value is the null object.
    [[nodiscard]] static Ref<VNTQResult> success();
    /// One shared failure, for those who have no error of their own: code 0 of
    /// `VNTQFoundationErrorDomain`, "Operation could not be completed."
    [[nodiscard]] static Ref<VNTQResult> failure();

    /// Turns a new object into a success, and returns it.
    Ref<VNTQResult> initWithSuccess(const id& value);
    /// Turns a new object into a failure, and returns it.
    Ref<VNTQResult> initWithFailure(const id& error);

    [[nodiscard]] VNTQResultType type() const noexcept { return type_; }
    void setType(VNTQResultType type) noexcept { type_ = type; }
    [[nodiscard]] const id& error() const noexcept { return error_; }
    void setError(const id& error) { error_ = error; }
    [[nodiscard]] const id& value() const noexcept { return value_; }
    void setValue(const id& value) { value_ = value; }

    /// A `VNTQResult`, whatever the receiver's class, that shares the payload. Nil for kind `none`.
    [[nodiscard]] id copyWithZone(void* zone) const override;
    /// "<VNTQResult: 0x…> : Success { value }", or "… : Failure { error }".
    [[nodiscard]] Ref<NSString> description() const override;

protected:
    ~VNTQResult() override = default;

private:
    VNTQResultType type_ = VNTQResultType::none;
    id error_;
    id value_;
};

}  // namespace vantorq
