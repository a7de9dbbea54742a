#include "VantorqFoundation/Platform/NSRunLoop.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "MonotonicTime.h"
#include "SerialQueue.h"
#include "Thread.h"
#include "VantorqFoundation/Platform/Class.h"
#include "VantorqFoundation/Platform/NSTimer.h"
#include "VantorqFoundation/Platform/Trap.h"

namespace vantorq {

namespace {

constexpr ConstantString kDefaultMode{"kCFRunLoopDefaultMode"};
constexpr ConstantString kCommonModes{"kCFRunLoopCommonModes"};

bool isCommonMode(const NSString& mode) {
    return mode.isEqualToString(&kDefaultMode);
}

/// The modes that something was added to.
class ModeSet {
public:
    void add(const NSString& mode) {
        if (!names(mode)) {
            modes_.push_back(objectCast<NSString>(mode.copy()));
        }
    }
    void remove(const NSString& mode) {
        std::erase_if(modes_, [&](const auto& one) { return one->isEqualToString(&mode); });
    }
    [[nodiscard]] bool isEmpty() const noexcept { return modes_.empty(); }
    /// Whether what has these modes is served in `mode`.
    [[nodiscard]] bool includes(const NSString& mode) const {
        return names(mode) || (isCommonMode(mode) && names(kCommonModes));
    }

private:
    [[nodiscard]] bool names(const NSString& mode) const {
        return std::ranges::any_of(modes_,
                                   [&](const auto& one) { return one->isEqualToString(&mode); });
    }

    std::vector<Ref<NSString>> modes_;
};

/// The calling thread's loop, owned by it; null until it is asked for.
constinit thread_local NSRunLoop* currentLoop = nullptr;

template <class T>
struct Member {
    T item;
    ModeSet modes;
};

template <class T>
Member<Ref<T>>* find(std::vector<Member<Ref<T>>>& members, const T& item) {
    const auto found =
        std::ranges::find(members, &item, [](const auto& m) { return m.item.get(); });
    return found != members.end() ? &*found : nullptr;
}

template <class T>
void addTo(std::vector<Member<Ref<T>>>& members, T& item, const NSString& mode) {
    Member<Ref<T>>* member = find(members, item);
    if (member == nullptr) {
        member = &members.emplace_back(Member<Ref<T>>{item, {}});
    }
    member->modes.add(mode);
}

}  // namespace

constinit NSString& NSDefaultRunLoopMode = const_cast<ConstantString&>(kDefaultMode);
constinit NSString& NSRunLoopCommonModes = const_cast<ConstantString&>(kCommonModes);

struct NSRunLoop::State {
    explicit State(bool main) : isMain(main) {}

    const bool isMain;

    std::mutex mutex;  // guards what follows
    std::condition_variable woken;
    bool hasWakeUp = false;
    bool isStopRequested = false;
    std::vector<Member<Ref<NSTimer>>> timers;
    std::vector<Member<Ref<RunLoopSource>>> sources;
    std::deque<Member<Block<void()>>> blocks;
    std::size_t turning = 0;  // calls that turn the loop, one within the other
    bool isClosed = false;    // the thread has ended

    // Of the loop's own thread.
    Ref<NSString> mode;

    void wakeUp() {
        const std::lock_guard guard(mutex);
        wakeUpLocked();
    }
    void wakeUpLocked() {
        hasWakeUp = true;
        woken.notify_one();
    }

    /// The one place where the loop's thread waits. With the lock; until woken or `deadline`.
    void wait(std::unique_lock<std::mutex>& lock, std::int64_t deadline) {
        const auto isWoken = [&] { return hasWakeUp; };
        if (deadline == kNever) {
            woken.wait(lock, isWoken);
        } else {
            const std::chrono::steady_clock::time_point limit{std::chrono::nanoseconds(deadline)};
            woken.wait_until(lock, limit, isWoken);
        }
    }

    [[nodiscard]] bool servesMainQueue(const NSString& inMode) const {
        return isMain && isCommonMode(inMode) && !MainQueue::isServing();
    }

    /// When the next timer of `inMode` is due; nothing without one. With the lock.
    [[nodiscard]] std::optional<std::int64_t> nextDueTime(const NSString& inMode) const {
        std::optional<std::int64_t> next;
        for (const auto& timer : timers) {
            const auto due = timer.modes.includes(inMode) ? timer.item->dueTime() : std::nullopt;
            if (due) {
                next = std::min(*due, next.value_or(kNever));
            }
        }
        return next;
    }

    /// Whether an input can come in `inMode`. With the lock.
    [[nodiscard]] bool hasInputs(const NSString& inMode) const {
        const auto isOfMode = [&](const auto& member) { return member.modes.includes(inMode); };
        return servesMainQueue(inMode) || std::ranges::any_of(sources, isOfMode) ||
               std::ranges::any_of(blocks, isOfMode);
    }

    void fireTimers(const NSString& inMode);
    bool performBlocks(const NSString& inMode);
    bool handleSources(const NSString& inMode);
};

void NSRunLoop::State::fireTimers(const NSString& inMode) {
    const std::int64_t now = monotonicNow();
    struct Due {
        std::int64_t time;
        std::size_t place;
        Ref<NSTimer> timer;
    };
    std::vector<Due> due;
    {
        const std::lock_guard guard(mutex);
        for (const auto& timer : timers) {
            const auto time = timer.modes.includes(inMode) ? timer.item->dueTime() : std::nullopt;
            if (time && *time <= now) {
                due.push_back({*time, due.size(), timer.item});
            }
        }
    }
    std::ranges::sort(due, {}, [](const Due& one) { return std::pair(one.time, one.place); });
    for (const Due& one : due) {
        one.timer->fireIfDue(now);
    }
}

/// Those that were there at the beginning: a block that adds itself again does not hold up the
/// loop.
bool NSRunLoop::State::performBlocks(const NSString& inMode) {
    std::vector<Block<void()>> ready;
    {
        const std::lock_guard guard(mutex);
        std::erase_if(blocks, [&](auto& block) {
            const bool isReady = block.modes.includes(inMode);
            if (isReady) {
                ready.push_back(std::move(block.item));
            }
            return isReady;
        });
    }
    for (const auto& block : ready) {
        [&]() noexcept { block(); }();
    }
    return !ready.empty();
}

bool NSRunLoop::State::handleSources(const NSString& inMode) {
    std::vector<Ref<RunLoopSource>> signalled;
    {
        const std::lock_guard guard(mutex);
        for (const auto& source : sources) {
            if (source.modes.includes(inMode) && source.item->isSignalled_.load()) {
                signalled.push_back(source.item);
            }
        }
    }
    bool hasHandled = false;
    for (const auto& source : signalled) {
        // The handler of another may have removed the source, or have turned the loop and handled
        // it.
        if (source->loop_.load() != nullptr && source->isSignalled_.exchange(false)) {
            hasHandled = true;
            [&]() noexcept { source->handler_(); }();
        }
    }
    return hasHandled;
}

RunLoopSource::RunLoopSource(Block<void()> handler) : handler_(std::move(handler)) {
    if (!handler_) {
        VNTQ_TRAP("RunLoopSource: made with an empty handler");
    }
}

void RunLoopSource::signal() {
    isSignalled_.store(true);
    if (const Ref<NSRunLoop> loop = loop_.load()) {
        loop->wakeUp();
    }
}

NSRunLoop::NSRunLoop(bool isMain) : state_(std::make_unique<State>(isMain)) {}

NSRunLoop::~NSRunLoop() = default;

Ref<NSRunLoop> NSRunLoop::current() {
    if (currentLoop == nullptr) {
        if (DispatchQueue::isMainThread()) {
            currentLoop = main().get();
        } else {
            currentLoop = new NSRunLoop(false);
            atThreadEnd<&NSRunLoop::threadEnded>(currentLoop);
        }
    }
    return currentLoop;
}

void NSRunLoop::threadEnded(void*) {
    Ref<NSRunLoop>::adopt(std::exchange(currentLoop, nullptr))->close();
}

Ref<NSRunLoop> NSRunLoop::main() {
    static NSRunLoop& loop = *new NSRunLoop(true);
    return loop;
}

void NSRunLoop::checkThread() const {
    if (current() != this) {
        VNTQ_TRAP("NSRunLoop: turned by a thread that is not its own");
    }
}

void NSRunLoop::addTimer(NSTimer& timer, const NSString& mode) {
    {
        const std::lock_guard guard(state_->mutex);
        if (state_->isClosed) {
            return;
        }
        addTo(state_->timers, timer, mode);
        state_->wakeUpLocked();
    }
    // In this order, so that a timer that is invalidated meanwhile finds its loop or does not join.
    if (!timer.join(*this)) {
        removeTimer(timer);
    }
}

void NSRunLoop::removeTimer(const NSTimer& timer) {
    std::vector<Member<Ref<NSTimer>>> removed;  // released without the lock
    const std::lock_guard guard(state_->mutex);
    std::erase_if(state_->timers, [&](auto& member) {
        const bool isIt = member.item == &timer;
        if (isIt) {
            removed.push_back(std::move(member));
        }
        return isIt;
    });
    state_->wakeUpLocked();
}

void NSRunLoop::addSource(RunLoopSource& source, const NSString& mode) {
    const std::lock_guard guard(state_->mutex);
    if (state_->isClosed) {
        return;
    }
    const Ref<NSRunLoop> joined = source.loop_.load();
    if (joined != nullptr && joined != this) {
        VNTQ_TRAP("RunLoopSource: added to a second run loop");
    }
    source.loop_.store(this);
    addTo(state_->sources, source, mode);
    state_->wakeUpLocked();
}

void NSRunLoop::removeSource(RunLoopSource& source, const NSString& mode) {
    Ref<NSRunLoop> left;
    const std::lock_guard guard(state_->mutex);
    if (auto* member = find(state_->sources, source)) {
        member->modes.remove(mode);
        if (member->modes.isEmpty()) {
            left = source.loop_.exchange(nullptr);
            std::erase_if(state_->sources, [&](const auto& one) { return one.item == &source; });
        }
    }
    state_->wakeUpLocked();
}

void NSRunLoop::performBlock(Block<void()> block) {
    performInModes(*NSArray::arrayWithObject(NSDefaultRunLoopMode), std::move(block));
}

void NSRunLoop::performInModes(const NSArray& modes, Block<void()> block) {
    if (!block) {
        VNTQ_TRAP("NSRunLoop: an empty block to perform");
    }
    ModeSet set;
    for (const id& mode : modes) {
        const auto name = objectCast<NSString>(mode);
        if (name == nullptr) {
            VNTQ_TRAP("NSRunLoop: a mode is no string");
        }
        set.add(*name);
    }
    const std::lock_guard guard(state_->mutex);
    if (!state_->isClosed) {
        state_->blocks.push_back({std::move(block), std::move(set)});
        state_->wakeUpLocked();
    }
}

/// One pass; whether an input was handled.
bool NSRunLoop::pass(const NSString& mode) {
    state_->fireTimers(mode);
    bool hasHandled = state_->performBlocks(mode);
    hasHandled |= state_->handleSources(mode);
    if (state_->servesMainQueue(mode)) {
        hasHandled |= MainQueue::shared().serve();
    }
    return hasHandled;
}

NSRunLoop::Ending NSRunLoop::turn(const NSString& mode, std::int64_t deadline) {
    checkThread();
    if (mode.isEqualToString(&kCommonModes)) {
        VNTQ_TRAP("NSRunLoop: the common modes are no mode to turn the loop in");
    }
    State& state = *state_;
    const Ref<NSString> outerMode = std::exchange(state.mode, objectCast<NSString>(mode.copy()));
    Ending ending = Ending::nothingToWaitFor;
    {
        std::unique_lock lock(state.mutex);
        ++state.turning;
        while (state.hasInputs(mode) || state.nextDueTime(mode)) {
            state.hasWakeUp = false;
            lock.unlock();
            const bool hasHandled = pass(mode);
            lock.lock();
            ending = std::exchange(state.isStopRequested, false) ? Ending::stopped
                     : hasHandled                                ? Ending::inputHandled
                                                                 : Ending::waitOver;
            if (ending != Ending::waitOver || monotonicNow() >= deadline) {
                break;
            }
            state.wait(lock, std::min(deadline, state.nextDueTime(mode).value_or(kNever)));
        }
        --state.turning;
    }
    state.mode = outerMode;
    return ending;
}

bool NSRunLoop::runMode(const NSString& mode, const NSDate& beforeDate) {
    return turn(mode, instantAfterSeconds(beforeDate.timeIntervalSinceNow())) !=
           Ending::nothingToWaitFor;
}

void NSRunLoop::runUntilDate(const NSDate& date) {
    const std::int64_t deadline = instantAfterSeconds(date.timeIntervalSinceNow());
    while (turn(NSDefaultRunLoopMode, deadline) == Ending::inputHandled) {
    }
}

void NSRunLoop::run() {
    runUntilDate(*NSDate::distantFuture());
}

void NSRunLoop::stop() {
    const std::lock_guard guard(state_->mutex);
    if (state_->turning > 0) {
        state_->isStopRequested = true;
        state_->wakeUpLocked();
    }
}

void NSRunLoop::wakeUp() {
    state_->wakeUp();
}

Ref<NSString> NSRunLoop::currentMode() const {
    checkThread();
    return state_->mode;
}

Ref<NSDate> NSRunLoop::limitDateForMode(const NSString& mode) {
    (void)turn(mode, 0);
    const std::lock_guard guard(state_->mutex);
    if (const auto due = state_->nextDueTime(mode)) {
        const auto delay = static_cast<double>(*due - monotonicNow());
        return NSDate::dateWithTimeIntervalSinceNow(delay / kNanosecondsPerSecond);
    }
    return state_->hasInputs(mode) ? NSDate::distantFuture() : nullptr;
}

/// Drops everything, and whatever is added from now on: the thread has ended.
void NSRunLoop::close() {
    std::vector<Member<Ref<NSTimer>>> timers;
    std::vector<Member<Ref<RunLoopSource>>> sources;
    std::deque<Member<Block<void()>>> blocks;
    const std::lock_guard guard(state_->mutex);
    state_->isClosed = true;
    timers.swap(state_->timers);
    sources.swap(state_->sources);
    blocks.swap(state_->blocks);
    for (const auto& source : sources) {
        source.item->loop_.store(nullptr);
    }
}

namespace {

constexpr PropertyInfo kProperties[] = {
    classProperty<&NSRunLoop::current>("currentRunLoop"),
    classProperty<&NSRunLoop::main>("mainRunLoop"),
    property<&NSRunLoop::currentMode>("currentMode"),
};
constexpr MethodInfo kMethods[] = {
    method<&NSRunLoop::addTimer>("addTimer:forMode:"),
    method<&NSRunLoop::performBlock>("performBlock:"),
    method<&NSRunLoop::performInModes>("performInModes:block:"),
    method<&NSRunLoop::runMode>("runMode:beforeDate:"),
    method<&NSRunLoop::runUntilDate>("runUntilDate:"),
    method<&NSRunLoop::run>("run"),
    method<&NSRunLoop::stop>("stop"),
    method<&NSRunLoop::limitDateForMode>("limitDateForMode:"),
};

}  // namespace

VNTQ_DEFINE_CLASS(NSRunLoop, {.properties = kProperties, .methods = kMethods})

}  // namespace vantorq
