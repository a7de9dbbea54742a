#pragma once

#include <atomic>
#include <memory>

#include "Block.h"
#include "Export.h"
#include "NSArray.h"
#include "NSDate.h"
#include "NSObject.h"
#include "NSString.h"

namespace vantorq {

class NSRunLoop;
class NSTimer;

/// The mode that a loop is normally turned in.
VNTQ_EXPORT extern NSString& NSDefaultRunLoopMode;
/// Stands, where something is added, for all common modes. The default mode is the common mode.
VNTQ_EXPORT extern NSString& NSRunLoopCommonModes;

/// An input of a run loop: any thread signals it, and its handler runs on the loop's thread.
/// Signals that come before the handler has begun count as one.
///
/// Threads: any. An exception that leaves the handler ends the process.
class VNTQ_EXPORT RunLoopSource final : public RefCounted {
public:
    /// An empty handler traps.
    explicit RunLoopSource(Block<void()> handler);

    /// Asks for the handler to be run. Kept until the source is in a loop that is turned in its
    /// mode.
    void signal();

private:
    friend class NSRunLoop;

    ~RunLoopSource() override = default;

    const Block<void()> handler_;
    std::atomic<bool> isSignalled_{false};
    AtomicRef<NSRunLoop> loop_;  // while it is in one
};

/// The inputs and timers of one thread, which turns the loop to have them served.
///
/// What is added belongs to one or more modes, and is served only while the loop is turned in one
/// of these. Inputs are sources, performed blocks and, on the main thread in a common mode, the
/// work of the main queue; it is left alone while work of the main queue itself turns the loop.
/// Timers are not inputs. Waiting takes no processor time. Handlers may turn the loop again. What
/// is in the loop when its thread ends is dropped, and so is what is added later.
///
/// Threads: only the loop's own thread may turn it, else it traps; every thread may do the rest.
/// Traps: turning the loop in the common modes, and what is stated below.
class VNTQ_EXPORT NSRunLoop final : public NSObject {
    VNTQ_OBJECT(NSRunLoop, NSObject)
public:
    /// The calling thread's loop, made on first use.
    [[nodiscard]] static Ref<NSRunLoop> current();
    /// The main thread's loop.
    [[nodiscard]] static Ref<NSRunLoop> main();

    // What the loop serves. An added object is kept alive until it is removed or, a timer, invalid.

    /// Adding a timer to a further mode is allowed, adding it to another loop traps. An invalid
    /// timer is left out.
    void addTimer(NSTimer& timer, const NSString& mode);
    /// Adding a source to a further mode is allowed, adding it to another loop traps.
    void addSource(RunLoopSource& source, const NSString& mode);
    void removeSource(RunLoopSource& source, const NSString& mode);
    /// Runs `block` once, at the next turn in the default mode. Blocks run in order.
    void performBlock(Block<void()> block);
    /// The same at the next turn in one of `modes`.
    void performInModes(const NSArray& modes, Block<void()> block);

    // Turning the loop.

    /// Turns the loop in `mode` until an input was handled, the date has come, or nothing is left
    /// to wait for, whichever is first, and answers true. Answers false, without waiting, when
    /// there is nothing to wait for: no source, timer or performed block in that mode, nor the main
    /// queue. A date in the past makes one pass without waiting. Timers fire on the way.
    bool runMode(const NSString& mode, const NSDate& beforeDate);
    /// Turns the loop in the default mode until the date has come, or nothing is left to wait for.
    void runUntilDate(const NSDate& date);
    /// Turns the loop in the default mode until `stop`, or until nothing is left to wait for.
    void run();
    /// Ends the innermost turning call once its current handlers have returned. Does nothing when
    /// the loop is not being turned.
    void stop();
    /// Ends the current wait, so that the loop looks at everything anew.
    void wakeUp();

    /// The mode that the loop is being turned in, or nil. On the loop's own thread only.
    [[nodiscard]] Ref<NSString> currentMode() const;
    /// Makes one pass in `mode` without waiting, and gives the date of the next timer: the distant
    /// future without one, nil when there is nothing to wait for.
    [[nodiscard]] Ref<NSDate> limitDateForMode(const NSString& mode);

private:
    friend class NSTimer;
    struct State;
    enum class Ending { nothingToWaitFor, inputHandled, stopped, waitOver };

    explicit NSRunLoop(bool isMain);
    ~NSRunLoop() override;

    void removeTimer(const NSTimer& timer);
    static void threadEnded(void*);
    void close();
    Ending turn(const NSString& mode, std::int64_t deadline);
    bool pass(const NSString& mode);
    void checkThread() const;

    std::unique_ptr<State> state_;
};

}  // namespace vantorq
