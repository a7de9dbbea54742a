#pragma once

#include <atomic>
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

/// The seconds that a time-out error's text names, or nothing when the text is not as it should be.
std::optional<double> secondsInTimeoutText(const VNTQOperation& operation);

/// An operation that delivers in place, so that a test sees everything at once.
template <class... Args>
Ref<ProbeOperation> inlineOperation(Args&&... args) {
    auto operation = make<ProbeOperation>(std::forward<Args>(args)...);
    operation->setExplicitResultDispatch(true);
    return operation;
}

inline double secondsUntil(const Ref<NSDate>& date) {
    return date->timeIntervalSinceNow();
}

}  // namespace vantorq::test
