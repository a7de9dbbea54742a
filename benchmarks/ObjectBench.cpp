#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

#include <QList>
#include <QString>
#include <QVariant>
#include <benchmark/benchmark.h>

#include <VantorqFoundation/VantorqFoundation.h>

namespace {

using namespace vantorq;

/// While a process has one thread only, both our handles and std::shared_ptr count without atomic
/// instructions. An application has several, so there is a second one here.
void startSecondThread() {
    static const bool isStarted = [] {
        std::thread([] {
            static const std::atomic<bool> never{false};
            never.wait(false);
        }).detach();
        return true;
    }();
    benchmark::DoNotOptimize(isStarted);
}

// Sending a message.

class Tally : public NSObject {
    VNTQ_OBJECT(Tally, NSObject)
public:
    virtual void add(NSObject* object) = 0;
    virtual void addText(const NSString& text) = 0;

    [[nodiscard]] std::uint64_t count() const noexcept { return count_; }

protected:
    void note(const NSObject* object, std::uint64_t weight) noexcept {
        last_ = object;
        count_ += weight;
    }

private:
    const NSObject* last_ = nullptr;
    std::uint64_t count_ = 0;
};

class SingleTally final : public Tally {
    VNTQ_OBJECT(SingleTally, Tally)
public:
    void add(NSObject* object) override { note(object, 1); }
    void addText(const NSString& text) override { note(&text, 1); }
};

class DoubleTally final : public Tally {
    VNTQ_OBJECT(DoubleTally, Tally)
public:
    void add(NSObject* object) override { note(object, 2); }
    void addText(const NSString& text) override { note(&text, 2); }
};

constexpr MethodInfo kSingleMethods[] = {method<&SingleTally::add>("add:"),
                                         method<&SingleTally::addText>("addText:")};
constexpr MethodInfo kDoubleMethods[] = {method<&DoubleTally::add>("add:"),
                                         method<&DoubleTally::addText>("addText:")};

VNTQ_DEFINE_CLASS(Tally, {})
VNTQ_DEFINE_CLASS(SingleTally, {.methods = kSingleMethods})
VNTQ_DEFINE_CLASS(DoubleTally, {.methods = kDoubleMethods})

/// Which class it is, the compiler cannot know.
Ref<Tally> someTally(bool isDouble) {
    benchmark::DoNotOptimize(isDouble);
    if (isDouble) {
        return make<DoubleTally>();
    }
    return make<SingleTally>();
}

template <class Add>
void addRepeatedly(benchmark::State& state, Add add) {
    const auto tally = someTally(true);
    const auto argument = NSString::string("argument");
    NSString* text = argument.get();
    for (auto _ : state) {
        benchmark::DoNotOptimize(text);
        add(*tally, *text);
        benchmark::ClobberMemory();
    }
    if (tally->count() != 2 * static_cast<std::uint64_t>(state.iterations())) {
        state.SkipWithError("not every call has arrived");
    }
}

void sendObject(benchmark::State& state) {
    addRepeatedly(state, [](Tally& tally, NSString& text) { send<void>(tally, "add:"_sel, text); });
}
BENCHMARK(sendObject)->Name("send, one object argument/ours");

void callWithObject(benchmark::State& state) {
    addRepeatedly(state, [](Tally& tally, NSString& text) { tally.add(&text); });
}
BENCHMARK(callWithObject)->Name("send, one object argument/virtual call");

void sendText(benchmark::State& state) {
    addRepeatedly(state,
                  [](Tally& tally, NSString& text) { send<void>(tally, "addText:"_sel, text); });
}
BENCHMARK(sendText)->Name("send, one argument of a given class/ours");

void callWithText(benchmark::State& state) {
    addRepeatedly(state, [](Tally& tally, NSString& text) { tally.addText(text); });
}
BENCHMARK(callWithText)->Name("send, one argument of a given class/virtual call");

template <class Add>
void addInTurn(benchmark::State& state, Add add) {
    const Ref<Tally> tallies[] = {someTally(false), someTally(true)};
    const auto argument = NSString::string("argument");
    std::size_t turn = 0;
    for (auto _ : state) {
        add(*tallies[turn], *argument);
        turn ^= 1;
        benchmark::ClobberMemory();
    }
}

void sendInTurn(benchmark::State& state) {
    addInTurn(state, [](Tally& tally, NSString& text) { send<void>(tally, "add:"_sel, text); });
}
BENCHMARK(sendInTurn)->Name("send, two classes in turn/ours");

void callInTurn(benchmark::State& state) {
    addInTurn(state, [](Tally& tally, NSString& text) { tally.add(&text); });
}
BENCHMARK(callInTurn)->Name("send, two classes in turn/virtual call");

// Handles.

template <class Handle>
void copyHandle(benchmark::State& state, const Handle& handle) {
    startSecondThread();
    for (auto _ : state) {
        Handle copy = handle;
        benchmark::DoNotOptimize(copy);
    }
}

void copyRef(benchmark::State& state) {
    copyHandle(state, Ref<NSObject>(make<SingleTally>()));
}
BENCHMARK(copyRef)->Name("retain and release/ours");

void copySharedPtr(benchmark::State& state) {
    copyHandle(state, std::make_shared<std::string>("text"));
}
BENCHMARK(copySharedPtr)->Name("retain and release/std::shared_ptr");

void makeRef(benchmark::State& state) {
    startSecondThread();
    for (auto _ : state) {
        Ref<NSObject> made = make<NSObject>();
        benchmark::DoNotOptimize(made);
    }
}
BENCHMARK(makeRef)->Name("make an object and drop it/ours");

void makeSharedPtr(benchmark::State& state) {
    struct Object {
        virtual ~Object() = default;
    };
    startSecondThread();
    for (auto _ : state) {
        auto made = std::make_shared<Object>();
        benchmark::DoNotOptimize(made);
    }
}
BENCHMARK(makeSharedPtr)->Name("make an object and drop it/std::shared_ptr");

void makeWeak(benchmark::State& state) {
    startSecondThread();
    const Ref<NSObject> object = make<NSObject>();
    for (auto _ : state) {
        const Weak<NSObject> weak(object);
        auto strong = weak.load();
        benchmark::DoNotOptimize(strong);
    }
}
BENCHMARK(makeWeak)->Name("weak handle, made and loaded/ours");

void makeWeakPtr(benchmark::State& state) {
    startSecondThread();
    const auto object = std::make_shared<std::string>("text");
    for (auto _ : state) {
        const std::weak_ptr weak(object);
        auto strong = weak.lock();
        benchmark::DoNotOptimize(strong);
    }
}
BENCHMARK(makeWeakPtr)->Name("weak handle, made and loaded/std::weak_ptr");

// Text.

constexpr std::string_view kAsciiText =
    "The quick brown fox jumps over the lazy dog, "
    "and then it does so again, for good measure, every day.";
static_assert(kAsciiText.size() == 100);
constexpr std::string_view kMixedText =
    "Zwölf Boxkämpfer jagen Viktor quer über den großen Sylter Deich — "
    "съешь ещё этих мягких булок, いろはにほへと 👩‍🚀";

template <class Convert>
void convertText(benchmark::State& state, std::string_view text, Convert convert) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(text);
        auto converted = convert(text);
        benchmark::DoNotOptimize(converted);
    }
    if (NSString::string(text)->utf16() != QString::fromUtf8(text).toStdU16String()) {
        state.SkipWithError("the two conversions differ");
    }
}

Ref<NSString> ourText(std::string_view text) {
    return NSString::string(text);
}
QString qtText(std::string_view text) {
    return QString::fromUtf8(text);
}

void ourAsciiText(benchmark::State& state) {
    convertText(state, kAsciiText, ourText);
}
BENCHMARK(ourAsciiText)->Name("text from UTF-8, 100 ASCII characters/ours");

void qtAsciiText(benchmark::State& state) {
    convertText(state, kAsciiText, qtText);
}
BENCHMARK(qtAsciiText)->Name("text from UTF-8, 100 ASCII characters/QString");

void ourMixedText(benchmark::State& state) {
    convertText(state, kMixedText, ourText);
}
BENCHMARK(ourMixedText)->Name("text from UTF-8, mixed scripts/ours");

void qtMixedText(benchmark::State& state) {
    convertText(state, kMixedText, qtText);
}
BENCHMARK(qtMixedText)->Name("text from UTF-8, mixed scripts/QString");

// Arrays. The time is that of one element, in an array that grows to 1,000.

constexpr int kElements = 1'000;

void appendToArray(benchmark::State& state) {
    const id element = NSNumber::number(42);
    while (state.KeepRunningBatch(kElements)) {
        const auto array = make<NSMutableArray>();
        for (int i = 0; i < kElements; ++i) {
            array->addObject(element);
        }
        if (array->count() != kElements) {
            state.SkipWithError("an element is missing");
        }
    }
}
BENCHMARK(appendToArray)->Name("append to an array/ours");

void appendToList(benchmark::State& state) {
    const QVariant element = 42;
    while (state.KeepRunningBatch(kElements)) {
        QList<QVariant> list;
        for (int i = 0; i < kElements; ++i) {
            list.append(element);
        }
        if (list.size() != kElements) {
            state.SkipWithError("an element is missing");
        }
    }
}
BENCHMARK(appendToList)->Name("append to an array/QList of QVariant");

// Locks.

template <class Lock>
void takeLock(benchmark::State& state, Lock& lock, int times) {
    startSecondThread();
    for (auto _ : state) {
        for (int i = 0; i < times; ++i) {
            lock.lock();
        }
        benchmark::ClobberMemory();
        for (int i = 0; i < times; ++i) {
            lock.unlock();
        }
    }
}

void takeOurLock(benchmark::State& state) {
    takeLock(state, *make<NSRecursiveLock>(), 1);
}
BENCHMARK(takeOurLock)->Name("recursive lock, free/ours");

void takeStandardLock(benchmark::State& state) {
    std::recursive_mutex mutex;
    takeLock(state, mutex, 1);
}
BENCHMARK(takeStandardLock)->Name("recursive lock, free/std::recursive_mutex");

void takeOurLockTwice(benchmark::State& state) {
    takeLock(state, *make<NSRecursiveLock>(), 2);
}
BENCHMARK(takeOurLockTwice)->Name("recursive lock, taken twice/ours");

void takeStandardLockTwice(benchmark::State& state) {
    std::recursive_mutex mutex;
    takeLock(state, mutex, 2);
}
BENCHMARK(takeStandardLockTwice)->Name("recursive lock, taken twice/std::recursive_mutex");

}  // namespace
