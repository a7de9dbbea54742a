#include "VantorqFoundation/Platform/NSOperation.h"

#include <algorithm>
#include <array>
#include <condition_variable>
#include <iterator>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "VantorqFoundation/Platform/Class.h"
#include "VantorqFoundation/Platform/NSArray.h"

namespace vantorq {

namespace {

constexpr ConstantString kIsExecuting{"isExecuting"};
constexpr ConstantString kIsFinished{"isFinished"};
constexpr ConstantString kIsReady{"isReady"};
constexpr ConstantString kIsCancelled{"isCancelled"};

NSString& constant(const ConstantString& text) {
    return const_cast<ConstantString&>(text);
}

/// Tells the notifications of dependencies from those of a subclass's own observations.
constexpr char kDependencyMark = 0;
void* dependencyContext() {
    return const_cast<char*>(&kDependencyMark);
}

}  // namespace

namespace operation_keys {
constinit NSString& isExecuting = const_cast<ConstantString&>(kIsExecuting);
constinit NSString& isFinished = const_cast<ConstantString&>(kIsFinished);
constinit NSString& isReady = const_cast<ConstantString&>(kIsReady);
constinit NSString& isCancelled = const_cast<ConstantString&>(kIsCancelled);
}  // namespace operation_keys

struct NSOperation::Extras {
    struct Dependency {
        Ref<NSOperation> operation;
        bool hasFinished = false;
    };

    std::mutex mutex;
    std::condition_variable ended;
    std::vector<Dependency> dependencies;
    Ref<NSString> name;
    Block<void()> completionBlock;
};

/// Lets go of its dependencies, and of theirs, one at a time: were each destroyed within the
/// destructor of the one before, a long chain would overflow the stack.
NSOperation::~NSOperation() {
    const std::unique_ptr<Extras> own(existingExtras());
    if (own == nullptr || own->dependencies.empty()) {
        return;
    }
    for (const auto& one : own->dependencies) {
        if (!one.hasFinished) {
            one.operation->removeObserver(*this, dependencyContext());
        }
    }
    static constinit thread_local std::vector<Extras::Dependency>* underWay = nullptr;
    if (underWay != nullptr) {
        std::ranges::move(own->dependencies, std::back_inserter(*underWay));
        return;
    }
    underWay = &own->dependencies;
    while (!underWay->empty()) {
        const auto next = std::move(underWay->back());
        underWay->pop_back();
    }
    underWay = nullptr;
}

NSOperation::Extras& NSOperation::extras() const {
    Extras* current = existingExtras();
    if (current == nullptr) {
        auto fresh = std::make_unique<Extras>();
        if (extras_.compare_exchange_strong(current, fresh.get())) {
            current = fresh.release();
        }
    }
    return *current;
}

void NSOperation::start() {
    if (!isReady()) {
        VNTQ_TRAP("NSOperation: an operation was started before it was ready");
    }
    if (hasStarted_.exchange(true)) {
        return;
    }
    const Ref<NSOperation> alive(this);
    if (!isCancelled()) {
        willChangeValueForKey(constant(kIsExecuting));
        phase_ = Phase::executing;
        didChangeValueForKey(constant(kIsExecuting));
        main();
    }
    finish();
}

void NSOperation::finish() {
    const bool wasExecuting = phase_ == Phase::executing;
    if (wasExecuting) {
        willChangeValueForKey(constant(kIsExecuting));
    }
    willChangeValueForKey(constant(kIsFinished));
    phase_ = Phase::finished;
    if (wasExecuting) {
        didChangeValueForKey(constant(kIsExecuting));
    }
    didChangeValueForKey(constant(kIsFinished));
}

void NSOperation::main() {}

void NSOperation::cancel() {
    if (isFinished() || isCancelled()) {
        return;
    }
    const bool becomesReady = !isReady();
    willChangeValueForKey(constant(kIsCancelled));
    if (becomesReady) {
        willChangeValueForKey(constant(kIsReady));
    }
    cancelled_ = true;
    if (becomesReady) {
        didChangeValueForKey(constant(kIsReady));
    }
    didChangeValueForKey(constant(kIsCancelled));
}

void NSOperation::addDependency(NSOperation& dependency) {
    if (isExecuting() || isFinished()) {
        return;
    }
    Extras& own = extras();
    {
        const std::lock_guard guard(own.mutex);
        const bool isKnown = std::ranges::any_of(
            own.dependencies, [&](const auto& one) { return one.operation.get() == &dependency; });
        if (isKnown) {
            return;
        }
        own.dependencies.push_back({dependency});
        ++unfinishedDependencies_;
    }
    dependency.addObserver(*this, constant(kIsFinished), KeyValueObservingOptions::none,
                           dependencyContext());
    if (dependency.isFinished()) {
        dependencyFinished(dependency);
    }
}

void NSOperation::removeDependency(NSOperation& dependency) {
    dependencyFinished(dependency);
    Extras& own = extras();
    const std::lock_guard guard(own.mutex);
    std::erase_if(own.dependencies,
                  [&](const auto& one) { return one.operation.get() == &dependency; });
}

Ref<NSArray> NSOperation::dependencies() const {
    const auto list = make<NSMutableArray>();
    if (Extras* own = existingExtras()) {
        const std::lock_guard guard(own->mutex);
        for (const auto& one : own->dependencies) {
            list->addObject(one.operation);
        }
    }
    return objectCast<NSArray>(list->copy());
}

/// Counts a dependency as finished, once.
void NSOperation::dependencyFinished(NSOperation& dependency) {
    Extras& own = extras();
    const auto unfinished = [&] {
        return std::ranges::find_if(own.dependencies, [&](const auto& one) {
            return one.operation.get() == &dependency && !one.hasFinished;
        });
    };
    {
        const std::lock_guard guard(own.mutex);
        if (unfinished() == own.dependencies.end()) {
            return;
        }
    }
    dependency.removeObserver(*this, constant(kIsFinished), dependencyContext());
    willChangeValueForKey(constant(kIsReady));
    {
        const std::lock_guard guard(own.mutex);
        if (const auto found = unfinished(); found != own.dependencies.end()) {
            found->hasFinished = true;
            --unfinishedDependencies_;
        }
    }
    didChangeValueForKey(constant(kIsReady));
}

void NSOperation::setQueuePriority(NSOperationQueuePriority priority) noexcept {
    const auto number = static_cast<NSInteger>(priority);
    using enum NSOperationQueuePriority;
    priority_ = number <= -8   ? veryLow
                : number <= -4 ? low
                : number >= 8  ? veryHigh
                : number >= 4  ? high
                               : normal;
}

Ref<NSString> NSOperation::name() const {
    Extras* own = existingExtras();
    if (own == nullptr) {
        return nullptr;
    }
    const std::lock_guard guard(own->mutex);
    return own->name;
}

void NSOperation::setName(const Ref<NSString>& name) {
    Extras& own = extras();
    const std::lock_guard guard(own.mutex);
    own.name = name;
}

Block<void()> NSOperation::completionBlock() const {
    Extras* own = existingExtras();
    if (own == nullptr) {
        return nullptr;
    }
    const std::lock_guard guard(own->mutex);
    return own->completionBlock;
}

void NSOperation::setCompletionBlock(Block<void()> block) {
    Extras& own = extras();
    const std::lock_guard guard(own.mutex);
    own.completionBlock = std::move(block);
}

void NSOperation::waitUntilFinished() {
    // Asked before the lock is taken: a subclass may answer under a lock that it announces under.
    if (isFinished()) {
        return;
    }
    Extras& own = extras();
    std::unique_lock guard(own.mutex);
    own.ended.wait(guard, [&] { return endAnnounced_.load(); });
}

void NSOperation::didChangeValueForKey(const NSString& key) {
    NSObject::didChangeValueForKey(key);
    if ((&key == &kIsFinished || key.isEqualToString(&kIsFinished)) && isFinished()) {
        announceEnd();
    }
}

/// Does once what the end of an operation brings with it. A waiting thread makes its extras before
/// it looks at the flag, and here the flag is set before the extras are looked for, so one sees the
/// other.
void NSOperation::announceEnd() {
    if (endAnnounced_.exchange(true)) {
        return;
    }
    Extras* own = existingExtras();
    if (own == nullptr) {
        return;
    }
    Block<void()> completion;
    std::vector<Extras::Dependency> released;
    {
        const std::lock_guard guard(own->mutex);
        completion = std::exchange(own->completionBlock, nullptr);
        released.swap(own->dependencies);
        unfinishedDependencies_ = 0;
        own->ended.notify_all();
    }
    for (const auto& one : released) {
        if (!one.hasFinished) {
            one.operation->removeObserver(*this, constant(kIsFinished), dependencyContext());
        }
    }
    if (completion) {
        DispatchQueue::global()->async(std::move(completion));
    }
}

void NSOperation::observeValueForKeyPath(const NSString& key, NSObject& object,
                                         const KeyValueChange& change, void* context) {
    if (context == dependencyContext()) {
        auto& dependency = static_cast<NSOperation&>(object);
        if (dependency.isFinished()) {
            dependencyFinished(dependency);
        }
        return;
    }
    NSObject::observeValueForKeyPath(key, object, change, context);
}

Ref<NSBlockOperation> NSBlockOperation::blockOperationWithBlock(Block<void()> block) {
    auto operation = make<NSBlockOperation>();
    operation->addExecutionBlock(std::move(block));
    return operation;
}

void NSBlockOperation::addExecutionBlock(Block<void()> block) {
    if (!block) {
        VNTQ_TRAP("NSBlockOperation: an empty block was added");
    }
    blocks_.push_back(std::move(block));
}

void NSBlockOperation::main() {
    for (const auto& block : blocks_) {
        block();
    }
}

namespace {

constexpr PropertyInfo kProperties[] = {
    property<&NSOperation::isCancelled>("cancelled", "isCancelled"),
    property<&NSOperation::isExecuting>("executing", "isExecuting"),
    property<&NSOperation::isFinished>("finished", "isFinished"),
    property<&NSOperation::isReady>("ready", "isReady"),
    property<&NSOperation::isAsynchronous>("asynchronous", "isAsynchronous"),
    property<&NSOperation::dependencies>("dependencies"),
    property<&NSOperation::queuePriority, &NSOperation::setQueuePriority>("queuePriority"),
    property<&NSOperation::name, &NSOperation::setName>("name"),
    property<&NSOperation::completionBlock, &NSOperation::setCompletionBlock>("completionBlock"),
};
constexpr MethodInfo kMethods[] = {
    method<&NSOperation::start>("start"),
    method<&NSOperation::main>("main"),
    method<&NSOperation::cancel>("cancel"),
    method<&NSOperation::addDependency>("addDependency:"),
    method<&NSOperation::removeDependency>("removeDependency:"),
    method<&NSOperation::waitUntilFinished>("waitUntilFinished"),
};
constexpr MethodInfo kBlockMethods[] = {
    classMethod<&NSBlockOperation::blockOperationWithBlock>("blockOperationWithBlock:"),
    method<&NSBlockOperation::addExecutionBlock>("addExecutionBlock:"),
};

}  // namespace

VNTQ_DEFINE_CLASS(NSOperation, {.properties = kProperties, .methods = kMethods})
VNTQ_DEFINE_CLASS(NSBlockOperation, {.methods = kBlockMethods})

}  // namespace vantorq
