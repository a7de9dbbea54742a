#include "VantorqFoundation/Platform/NSOperationQueue.h"

#include <array>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <list>
#include <mutex>
#include <utility>

#include <boost/unordered/unordered_flat_map.hpp>

#include "VantorqFoundation/Platform/Class.h"

namespace vantorq {

namespace {

using Priority = NSOperationQueuePriority;

constexpr std::array kPriorities{Priority::veryHigh, Priority::high, Priority::normal,
                                 Priority::low, Priority::veryLow};

constexpr std::size_t rank(Priority priority) {
    for (std::size_t i = 0; i < kPriorities.size(); ++i) {
        if (kPriorities[i] == priority) {
            return i;
        }
    }
    return 2;
}

/// The keys that every operation of a queue is observed under: one array for all of them.
const NSArray& observedKeys() {
    static const NSArray& keys =
        immortal(NSArray::array({operation_keys::isExecuting, operation_keys::isFinished,
                                 operation_keys::isReady, operation_keys::isCancelled}));
    return keys;
}

NSOperationQueue*& currentQueueSlot() {
    static thread_local NSOperationQueue* current = nullptr;
    return current;
}

}  // namespace

/// Guarded by the mutex. No member of an operation, and no block, is called while it is held: an
/// operation holds its own lock while it announces a change.
struct NSOperationQueue::State {
    enum class Stage : std::uint8_t { waiting, ready, started };
    struct Entry {
        Ref<NSOperation> operation;
        Stage stage = Stage::waiting;
    };
    using Entries = std::list<Entry>;

    mutable std::mutex mutex;
    std::condition_variable emptied;
    Entries entries;  // in the order of arrival
    boost::unordered_flat_map<const NSOperation*, Entries::iterator> entryOf;
    std::array<std::deque<Ref<NSOperation>>, kPriorities.size()> ready;
    NSInteger maxConcurrent = kDefaultMaxConcurrentOperationCount;
    NSInteger startedCount = 0;
    bool isSuspended = false;
    Ref<NSString> name;
    Ref<DispatchQueue> underlyingQueue;
    Ref<NSOperationQueue> self;  // while there are entries

    Entry* find(const NSOperation& operation) {
        const auto found = entryOf.find(&operation);
        return found != entryOf.end() ? &*found->second : nullptr;
    }

    /// The next operation that may start now, or nil.
    Ref<NSOperation> takeNext() {
        if (isSuspended || (maxConcurrent >= 0 && startedCount >= maxConcurrent)) {
            return nullptr;
        }
        for (auto& queue : ready) {
            while (!queue.empty()) {
                Ref<NSOperation> next = std::move(queue.front());
                queue.pop_front();
                Entry* entry = find(*next);
                if (entry != nullptr && entry->stage == Stage::ready) {
                    entry->stage = Stage::started;
                    ++startedCount;
                    return next;
                }
            }
        }
        return nullptr;
    }
};

NSOperationQueue::NSOperationQueue() : state_(std::make_unique<State>()) {}

NSOperationQueue::~NSOperationQueue() = default;

Ref<NSOperationQueue> NSOperationQueue::mainQueue() {
    static NSOperationQueue& queue = immortal([] {
        auto made = make<NSOperationQueue>();
        made->setUnderlyingQueue(DispatchQueue::main());
        made->setMaxConcurrentOperationCount(1);
        return made;
    }());
    return queue;
}

Ref<NSOperationQueue> NSOperationQueue::currentQueue() {
    return currentQueueSlot();
}

void NSOperationQueue::addOperation(NSOperation& operation) {
    if (operation.endAnnounced_ || operation.isExecuting()) {
        VNTQ_TRAP("NSOperationQueue: the operation is executing or has finished");
    }
    if (operation.isQueued_.exchange(true)) {
        VNTQ_TRAP("NSOperationQueue: the operation is in a queue already");
    }
    {
        const std::lock_guard guard(state_->mutex);
        if (state_->entries.empty()) {
            state_->self = Ref<NSOperationQueue>(this);
        }
        state_->entries.push_back({operation});
        state_->entryOf.emplace(&operation, std::prev(state_->entries.end()));
    }
    operation.addObserver(*this, observedKeys(), KeyValueObservingOptions::none, nullptr);
    consider(operation);
}

void NSOperationQueue::addOperations(const NSArray& operations, bool waitUntilFinished) {
    for (const id& one : operations.elements()) {
        const auto operation = objectCast<NSOperation>(one);
        if (operation == nullptr) {
            VNTQ_TRAP("NSOperationQueue: an element of the array is no operation");
        }
        addOperation(*operation);
    }
    if (waitUntilFinished) {
        for (const id& one : operations.elements()) {
            objectCast<NSOperation>(one)->waitUntilFinished();
        }
    }
}

void NSOperationQueue::addOperationWithBlock(Block<void()> block) {
    addOperation(*NSBlockOperation::blockOperationWithBlock(std::move(block)));
}

/// Lines the operation up when it has become ready.
void NSOperationQueue::consider(NSOperation& operation) {
    if (!operation.isReady()) {
        return;
    }
    {
        const std::lock_guard guard(state_->mutex);
        State::Entry* entry = state_->find(operation);
        if (entry == nullptr || entry->stage != State::Stage::waiting) {
            return;
        }
        entry->stage = State::Stage::ready;
        state_->ready[rank(operation.queuePriority())].push_back(operation);
    }
    startReadyOperations();
}

/// An operation that somebody starts by hand is not started again, but counts.
void NSOperationQueue::noteStarted(NSOperation& operation) {
    const std::lock_guard guard(state_->mutex);
    State::Entry* entry = state_->find(operation);
    if (entry != nullptr && entry->stage != State::Stage::started) {
        entry->stage = State::Stage::started;
        ++state_->startedCount;
    }
}

void NSOperationQueue::noteFinished(NSOperation& operation) {
    Ref<NSOperationQueue> self(this);
    Ref<NSOperation> finished;
    {
        const std::lock_guard guard(state_->mutex);
        const auto found = state_->entryOf.find(&operation);
        if (found == state_->entryOf.end()) {
            return;
        }
        if (found->second->stage == State::Stage::started) {
            --state_->startedCount;
        }
        finished = std::move(found->second->operation);
        state_->entries.erase(found->second);
        state_->entryOf.erase(found);
        if (state_->entries.empty()) {
            self = std::move(state_->self);
            state_->emptied.notify_all();
        }
    }
    operation.removeObserver(*this, static_cast<const void*>(nullptr));
    startReadyOperations();
}

void NSOperationQueue::startReadyOperations() {
    for (;;) {
        Ref<NSOperation> next;
        Ref<DispatchQueue> queue;
        {
            const std::lock_guard guard(state_->mutex);
            next = state_->takeNext();
            queue = state_->underlyingQueue;
        }
        if (next == nullptr) {
            return;
        }
        if (queue == nullptr) {
            queue = DispatchQueue::global();
        }
        queue->async([operation = std::move(next), self = Ref<NSOperationQueue>(this)] {
            if (!operation->isReady()) {
                self->putBack(*operation);
                return;
            }
            NSOperationQueue* const outer = std::exchange(currentQueueSlot(), self.get());
            operation->start();
            currentQueueSlot() = outer;
        });
    }
}

/// Takes back an operation that was given a further dependency after it had been lined up.
void NSOperationQueue::putBack(NSOperation& operation) {
    {
        const std::lock_guard guard(state_->mutex);
        State::Entry* entry = state_->find(operation);
        if (entry == nullptr) {
            return;
        }
        entry->stage = State::Stage::waiting;
        --state_->startedCount;
    }
    consider(operation);  // the dependency may have finished in the meantime
    startReadyOperations();
}

void NSOperationQueue::observeValueForKeyPath(const NSString& key, NSObject& object,
                                              const KeyValueChange&, void*) {
    auto& operation = static_cast<NSOperation&>(object);
    if (key.isEqualToString(&operation_keys::isFinished)) {
        if (operation.isFinished()) {
            noteFinished(operation);
        }
    } else if (key.isEqualToString(&operation_keys::isExecuting)) {
        if (operation.isExecuting()) {
            noteStarted(operation);
        }
    } else {
        consider(operation);
    }
}

Ref<NSArray> NSOperationQueue::operations() const {
    const auto list = make<NSMutableArray>();
    const std::lock_guard guard(state_->mutex);
    for (const State::Entry& entry : state_->entries) {
        list->addObject(entry.operation);
    }
    return list;
}

NSUInteger NSOperationQueue::operationCount() const {
    const std::lock_guard guard(state_->mutex);
    return state_->entries.size();
}

void NSOperationQueue::cancelAllOperations() {
    const auto all = operations();
    for (const id& one : all->elements()) {
        static_cast<NSOperation&>(*one).cancel();
    }
}

void NSOperationQueue::waitUntilAllOperationsAreFinished() {
    const Ref<NSOperationQueue> alive(this);
    std::unique_lock guard(state_->mutex);
    state_->emptied.wait(guard, [&] { return state_->entries.empty(); });
}

NSInteger NSOperationQueue::maxConcurrentOperationCount() const {
    const std::lock_guard guard(state_->mutex);
    return state_->maxConcurrent;
}

void NSOperationQueue::setMaxConcurrentOperationCount(NSInteger count) {
    if (count < kDefaultMaxConcurrentOperationCount) {
        VNTQ_TRAP("NSOperationQueue: a negative number of concurrent operations");
    }
    {
        const std::lock_guard guard(state_->mutex);
        state_->maxConcurrent = count;
    }
    startReadyOperations();
}

bool NSOperationQueue::isSuspended() const {
    const std::lock_guard guard(state_->mutex);
    return state_->isSuspended;
}

void NSOperationQueue::setSuspended(bool suspended) {
    {
        const std::lock_guard guard(state_->mutex);
        state_->isSuspended = suspended;
    }
    startReadyOperations();
}

Ref<NSString> NSOperationQueue::name() const {
    const std::lock_guard guard(state_->mutex);
    return state_->name;
}

void NSOperationQueue::setName(const Ref<NSString>& name) {
    const std::lock_guard guard(state_->mutex);
    state_->name = name;
}

Ref<DispatchQueue> NSOperationQueue::underlyingQueue() const {
    const std::lock_guard guard(state_->mutex);
    return state_->underlyingQueue;
}

void NSOperationQueue::setUnderlyingQueue(const Ref<DispatchQueue>& queue) {
    const std::lock_guard guard(state_->mutex);
    state_->underlyingQueue = queue;
}

namespace {

constexpr PropertyInfo kProperties[] = {
    property<&NSOperationQueue::operations>("operations"),
    property<&NSOperationQueue::operationCount>("operationCount"),
    property<&NSOperationQueue::maxConcurrentOperationCount,
             &NSOperationQueue::setMaxConcurrentOperationCount>("maxConcurrentOperationCount"),
    property<&NSOperationQueue::isSuspended, &NSOperationQueue::setSuspended>("suspended",
                                                                              "isSuspended"),
    property<&NSOperationQueue::name, &NSOperationQueue::setName>("name"),
    property<&NSOperationQueue::underlyingQueue, &NSOperationQueue::setUnderlyingQueue>(
        "underlyingQueue"),
    classProperty<&NSOperationQueue::mainQueue>("mainQueue"),
    classProperty<&NSOperationQueue::currentQueue>("currentQueue"),
};
constexpr MethodInfo kMethods[] = {
    method<&NSOperationQueue::addOperation>("addOperation:"),
    method<&NSOperationQueue::addOperations>("addOperations:waitUntilFinished:"),
    method<&NSOperationQueue::addOperationWithBlock>("addOperationWithBlock:"),
    method<&NSOperationQueue::cancelAllOperations>("cancelAllOperations"),
    method<&NSOperationQueue::waitUntilAllOperationsAreFinished>(
        "waitUntilAllOperationsAreFinished"),
};

}  // namespace

VNTQ_DEFINE_CLASS(NSOperationQueue, {.properties = kProperties, .methods = kMethods})

}  // namespace vantorq
