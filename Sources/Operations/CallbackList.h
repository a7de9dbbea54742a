#pragma once

#include <atomic>
#include <cstdint>
#include <utility>
#include <vector>

#include "VantorqFoundation/Platform/Block.h"
#include "VantorqFoundation/Platform/RefCounted.h"

namespace vantorq {

/// The callbacks that wait for an operation's end, in one word and without a lock.
///
/// A registration makes a new list that has the old one as its tail, and replaces the word; a list
/// that was published is never changed, so whoever takes it sees all of it. Taking the list at the
/// end closes the word: a registration that comes too late is told so, and delivers by itself. So
/// each callback is delivered once, whichever way a registration and the end race.
///
/// The word is 0 when empty, a block (tagged) for a list of one, which needs no node, or a node.
class CallbackList {
public:
    /// A taken list. Calls its blocks in the order of their registration.
    class Taken {
    public:
        explicit Taken(std::uintptr_t word) noexcept : word_(word) {}
        Taken(Taken&& other) noexcept : word_(std::exchange(other.word_, 0)) {}
        Taken& operator=(Taken&&) = delete;
        ~Taken();

        [[nodiscard]] bool isEmpty() const noexcept { return word_ == 0; }
        template <class Call>
        void forEach(Call call) const {
            visit(word_, call);
        }

    private:
        template <class Call>
        static void visit(std::uintptr_t word, Call& call);

        std::uintptr_t word_;
    };

    /// Adds the block; false, leaving it to the caller, when the word is closed.
    static bool append(std::atomic<std::uintptr_t>& word, const Ref<NSBlock>& block);
    /// Takes all there is, and closes the word to later registrations if `close` is set. The word
    /// of a dying owner is taken to free what is left in it.
    static Taken take(std::atomic<std::uintptr_t>& word, bool close) noexcept;

private:
    struct Node {
        Ref<NSBlock> block;
        std::uintptr_t earlier;
    };

    static constexpr std::uintptr_t kSingle = 1;
    static constexpr std::uintptr_t kClosed = 2;

    static NSBlock* single(std::uintptr_t word) noexcept {
        return reinterpret_cast<NSBlock*>(word & ~kSingle);
    }
    static Node* node(std::uintptr_t word) noexcept { return reinterpret_cast<Node*>(word); }
};

inline bool CallbackList::append(std::atomic<std::uintptr_t>& word, const Ref<NSBlock>& block) {
    std::uintptr_t seen = 0;
    const auto alone = reinterpret_cast<std::uintptr_t>(block.get()) | kSingle;
    block->retain();
    if (word.compare_exchange_strong(seen, alone, std::memory_order_acq_rel)) {
        return true;
    }
    auto* fresh = new Node{Ref<NSBlock>::adopt(block.get()), 0};
    for (;;) {
        if (seen == kClosed) {
            delete fresh;
            return false;
        }
        fresh->earlier = seen;
        if (word.compare_exchange_weak(seen, reinterpret_cast<std::uintptr_t>(fresh),
                                       std::memory_order_acq_rel)) {
            return true;
        }
    }
}

inline CallbackList::Taken CallbackList::take(std::atomic<std::uintptr_t>& word,
                                              bool close) noexcept {
    std::uintptr_t seen = word.load(std::memory_order_acquire);
    while (seen != kClosed) {
        if (word.compare_exchange_weak(seen, close ? kClosed : 0, std::memory_order_acq_rel)) {
            return Taken(seen);
        }
    }
    return Taken(0);
}

template <class Call>
void CallbackList::Taken::visit(std::uintptr_t word, Call& call) {
    // The newest stands first.
    std::vector<NSBlock*> newestFirst;
    for (; word != 0 && (word & kSingle) == 0; word = node(word)->earlier) {
        newestFirst.push_back(node(word)->block.get());
    }
    if (word != 0) {
        call(*single(word));
    }
    for (auto block = newestFirst.rbegin(); block != newestFirst.rend(); ++block) {
        call(**block);
    }
}

inline CallbackList::Taken::~Taken() {
    while (word_ != 0) {
        if ((word_ & kSingle) != 0) {
            single(word_)->release();
            return;
        }
        Node* const first = node(word_);
        word_ = first->earlier;
        delete first;
    }
}

}  // namespace vantorq
