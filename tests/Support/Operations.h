#pragma once

#include <atomic>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Support/Threads.h"
#include "VantorqFoundation/VantorqFoundation.h"

/// What the tests of operations share.
namespace vantorq::test {

/// Writes down every change notification that it gets, as "will key" or "did key", and, of an
/// operation, what the flags and the result are at that moment: "-FR".
class ChangeLog : public NSObject {
    VNTQ_OBJECT(ChangeLog, NSObject)
public:
    void observe(NSObject& object, std::initializer_list<id> keys,
                 KeyValueObservingOptions options = KeyValueObservingOptions::none) {
        object.addObserver(*this, *NSArray::array(keys), options, nullptr);
    }
    void observeValueForKeyPath(const NSString& key, NSObject& object, const KeyValueChange& change,
                                void*) override {
        entries.push_back((change.isPrior ? "will " : "did ") + key.utf8());
        if (const auto* operation = objectCast<VNTQOperation>(&object)) {
            states.push_back(std::string(operation->isExecuting() ? "E" : "-") +
                             (operation->isFinished() ? "F" : "-") +
                             (operation->result() != nullptr ? "R" : "-"));
        }
    }

    std::vector<std::string> entries;
    std::vector<std::string> states;
};

/// An operation whose work is given as a function, and which counts what is called.
class ProbeOperation : public VNTQOperation {
    VNTQ_OBJECT(ProbeOperation, VNTQOperation)
public:
    ProbeOperation() { ++liveCount; }
    explicit ProbeOperation(Block<void(ProbeOperation*)> body) : work(std::move(body)) {
        ++liveCount;
    }

    /// Probe operations that have not been destroyed.
    static std::atomic<int> liveCount;

    void main() override {
        ++mainCalls;
        if (work) {
            work(this);
        }
    }
    void scheduleTimer(double seconds) override {
        scheduledSeconds.push_back(seconds);
        if (armsTimer) {
            VNTQOperation::scheduleTimer(seconds);
        }
    }

    Block<void(ProbeOperation*)> work;
    int mainCalls = 0;
    std::vector<double> scheduledSeconds;
    bool armsTimer = true;

protected:
    ~ProbeOperation() override { --liveCount; }
};

/// The error that an operation has ended with, if that is what it has.
const NSError* errorOf(const VNTQOperation& operation);

/// Whether an operation has failed with the time-out error.
bool isTimeout(const VNTQOperation& operation);

/// The seconds that a time-out error's text names, or nothing when the text is not as it should be.
std::optional<double> secondsInTimeoutText(const VNTQOperation& operation);

/// An operation that delivers in place, so that a test sees everything at once.
template <class... Args>
Ref<ProbeOperation> inlineOperation(Args&&... args) {
    auto operation = make<ProbeOperation>(std::forward<Args>(args)...);
    operation->setExplicitResultDispatch(true);
    return operation;
}

/// What may be done to an operation, for what holds in whichever order it is done.
using Step = void (*)(VNTQOperation&);
namespace steps {
inline constexpr Step kNothing = [](VNTQOperation&) {};
inline constexpr Step kStart = [](VNTQOperation& operation) { operation.start(); };
inline constexpr Step kComplete = [](VNTQOperation& operation) { operation.completeWithSuccess(); };
inline constexpr Step kFail = [](VNTQOperation& operation) { operation.completeWithFailure(); };
inline constexpr Step kCancel = [](VNTQOperation& operation) { operation.cancel(); };
inline constexpr Step kTimeOut = [](VNTQOperation& operation) { operation.completeWithTimeout(); };
}  // namespace steps

/// Does something to an operation, once, when it is told that a key changes.
class Meddler : public NSObject {
public:
    enum class When { ahead, after };

    Meddler(When when, std::function<void(VNTQOperation&)> act)
        : when_(when), act_(std::move(act)) {}
    void observeValueForKeyPath(const NSString&, NSObject& object, const KeyValueChange& change,
                                void*) override {
        if (change.isPrior == (when_ == When::ahead) && act_ != nullptr) {
            std::exchange(act_, nullptr)(static_cast<VNTQOperation&>(object));
        }
    }

private:
    const When when_;
    std::function<void(VNTQOperation&)> act_;
};

/// Has `act` done when the operation announces the key, as long as the result lives.
[[nodiscard]] inline Ref<Meddler> meddle(VNTQOperation& operation, Meddler::When when,
                                         const NSString& key,
                                         std::function<void(VNTQOperation&)> act) {
    auto meddler = make<Meddler>(when, std::move(act));
    operation.addObserver(*meddler, key, KeyValueObservingOptions::prior);
    return meddler;
}

/// Runs what is queued on a serial queue so far.
inline void drain(const Ref<DispatchQueue>& queue) {
    queue->sync([] {});
}

inline double secondsUntil(const Ref<NSDate>& date) {
    return date->timeIntervalSinceNow();
}

}  // namespace vantorq::test
