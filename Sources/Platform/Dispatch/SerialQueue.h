#pragma once

#include <atomic>
#include <cstdint>
#include <string_view>

#include "VantorqFoundation/Platform/DispatchQueue.h"
#include "Work.h"

namespace vantorq {

/// Runs one piece of work at a time, in order.
///
/// One word is the queue: idle, or owned by the thread that runs, or is about to run, its work,
/// together with what has arrived since that thread last looked, newest first. Who finds the queue
/// idle makes it owned, and has to see to it that `drain` is called.
class SerialQueue : public DispatchQueue {
public:
    SerialQueue(std::string_view label, DispatchQoS qos) : DispatchQueue(label, qos) {}

    void enqueue(Work& work) final;

protected:
    ~SerialQueue() override = default;

    /// Has `drain` called, soon and on the right thread.
    virtual void requestDrain();
    /// Runs what has arrived, up to a bound; for the owner. Then gives the queue up, or, when there
    /// is more, requests to be called again.
    void drain();
    [[nodiscard]] bool isIdle() const noexcept {
        return arrived_.load(std::memory_order_acquire) == kIdle;
    }
    void runAndWait(void (*function)(void*) noexcept, void* context) override;
    /// Lets the queue's owner run `function`, and waits for it.
    void runInTurn(void (*function)(void*) noexcept, void* context);

private:
    static constexpr std::uintptr_t kIdle = 0;
    static constexpr std::uintptr_t kOwned = 1;  // and nothing has arrived

    Work* nextWork() noexcept;
    bool giveUp() noexcept;

    std::atomic<std::uintptr_t> arrived_{kIdle};  // or the newest of what has arrived
    Work* ready_ = nullptr;                       // in order; the owner's
};

/// The queue whose work the main thread's run loop runs.
class MainQueue final : public SerialQueue {
public:
    static MainQueue& shared();

    /// Runs what has arrived, on the main thread; false when there is nothing. Work of this queue
    /// that turns the run loop is not interrupted by other work of this queue.
    bool serve();
    /// Whether the caller is such work.
    [[nodiscard]] static bool isServing() noexcept;

protected:
    void requestDrain() override;
    void runAndWait(void (*function)(void*) noexcept, void* context) override;

private:
    MainQueue() : SerialQueue("main", DispatchQoS::userInteractive) {}
    ~MainQueue() override = default;
};

}  // namespace vantorq
