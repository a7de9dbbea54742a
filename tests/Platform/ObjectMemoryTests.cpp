#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <latch>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "VantorqFoundation/VantorqFoundation.h"

namespace vantorq {
namespace {

/// An object of a size of its own, all of it marked.
template <std::size_t Size>
class Marked final : public RefCounted {
public:
    explicit Marked(std::uint8_t mark) : mark_(mark) { std::memset(bytes_, mark, Size); }

    [[nodiscard]] bool isIntact() const {
        for (const std::uint8_t byte : bytes_) {
            if (byte != mark_) {
                return false;
            }
        }
        return true;
    }

private:
    std::uint8_t mark_;
    std::uint8_t bytes_[Size];
};

struct alignas(128) Wide final : RefCounted {};

template <std::size_t Size>
void expectIntactAcrossThreads() {
    constexpr int kRounds = 500;
    std::vector<Ref<Marked<Size>>> made;
    std::thread maker([&] {
        for (int i = 0; i < kRounds; ++i) {
            made.push_back(make<Marked<Size>>(static_cast<std::uint8_t>(i)));
        }
    });
    maker.join();
    std::thread ender([&] {
        for (std::size_t i = 0; i < made.size(); i += 2) {
            made[i] = nullptr;
        }
        for (std::size_t i = 0; i < made.size(); i += 2) {
            made[i] = make<Marked<Size>>(static_cast<std::uint8_t>(i + 1));
        }
    });
    ender.join();
    for (const auto& object : made) {
        ASSERT_TRUE(object->isIntact());
    }
}

TEST(ObjectMemory, ObjectsOfEverySizeAreWholeThoughTheirMemoryChangesThreads) {
    expectIntactAcrossThreads<1>();
    expectIntactAcrossThreads<40>();
    expectIntactAcrossThreads<100>();
    expectIntactAcrossThreads<239>();
    expectIntactAcrossThreads<240>();
    expectIntactAcrossThreads<700>();
}

TEST(ObjectMemory, WideAlignmentsAreKept) {
    std::vector<Ref<Wide>> objects;
    for (int i = 0; i < 10; ++i) {
        objects.push_back(make<Wide>());
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(objects.back().get()) % 128, 0U);
    }
}

TEST(ObjectMemory, AnObjectMayOutliveTheThreadThatMadeItAndTheOneThatFreedItsNeighbours) {
    Ref<Marked<40>> survivor;
    std::thread([&] {
        const auto neighbour = make<Marked<40>>(std::uint8_t{1});
        survivor = make<Marked<40>>(std::uint8_t{2});
    }).join();
    EXPECT_TRUE(survivor->isIntact());
    std::thread([&] { survivor = nullptr; }).join();
    EXPECT_EQ(survivor, nullptr);
}

TEST(Immortal, TheOwnersOfAConstantAreNotCounted) {
    NSNull& null = NSNull::null();
    const auto before = null.ownerCount();
    const id first = null;
    const id second = first;
    EXPECT_EQ(null.ownerCount(), before);
}

TEST(Immortal, AWeakHandleOfAConstantLoadsIt) {
    const Weak<NSNull> weak(&NSNull::null());
    EXPECT_EQ(weak.load(), &NSNull::null());
}

TEST(Immortal, AnObjectThatHasBecomeImmortalOutlivesItsHandles) {
    static Marked<16>& shared = immortal(make<Marked<16>>(std::uint8_t{7}));
    for (int i = 0; i < 10; ++i) {
        shared.release();
    }
    EXPECT_TRUE(shared.isIntact());
}

}  // namespace
}  // namespace vantorq
