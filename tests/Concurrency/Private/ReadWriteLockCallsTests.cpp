#include <cerrno>
#include <cstring>
#include <functional>
#include <ostream>
#include <pthread.h>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "VantorqFoundation/Platform/Send.h"
#include "VantorqFoundation/ReadWriteLock.h"

// In this program the functions of POSIX note that they were called, lock nothing, and fail; the
// library is linked into it, so that its own calls come here too.

namespace {

constinit std::vector<std::string>* calls = nullptr;  // null while nobody listens
constinit pthread_rwlock_t* theLock = nullptr;        // of the last initialisation

int note(const char* call, const pthread_rwlock_t* lock) {
    if (calls != nullptr) {
        calls->push_back(lock == theLock ? call : std::string(call) + " of another lock");
    }
    return EDEADLK;
}

bool isZero(const pthread_rwlock_t& lock) {
    const pthread_rwlock_t zero{};
    return std::memcmp(&lock, &zero, sizeof lock) == 0;
}

}  // namespace

extern "C" {

int pthread_rwlock_init(pthread_rwlock_t* lock, const pthread_rwlockattr_t* attributes) noexcept {
    theLock = lock;
    return note(!isZero(*lock)          ? "init of bytes that are not zero"
                : attributes != nullptr ? "init with attributes"
                                        : "init",
                lock);
}
int pthread_rwlock_rdlock(pthread_rwlock_t* lock) noexcept {
    return note("rdlock", lock);
}
int pthread_rwlock_wrlock(pthread_rwlock_t* lock) noexcept {
    return note("wrlock", lock);
}
int pthread_rwlock_unlock(pthread_rwlock_t* lock) noexcept {
    return note("unlock", lock);
}
int pthread_rwlock_destroy(pthread_rwlock_t* lock) noexcept {
    std::memset(lock, 0xff, sizeof *lock);  // for whoever is given this memory next
    return note("destroy", lock);
}

}  // extern "C"

namespace vantorq {
namespace {

using Calls = std::vector<std::string>;

/// What was called while `act` ran.
template <class Act>
Calls callsOf(Act act) {
    Calls noted;
    calls = &noted;
    act();
    calls = nullptr;
    return noted;
}

TEST(ReadWriteLockCalls, TheLockIsMadeOfZeroesWithDefaultAttributesAndDestroyedWithItsObject) {
    Ref<ReadWriteLock> lock;
    EXPECT_EQ(callsOf([&] { lock = make<ReadWriteLock>(); }), Calls{"init"});
    EXPECT_EQ(callsOf([&] { lock.reset(); }), Calls{"destroy"});
    id made;
    EXPECT_EQ(callsOf([&] {
                  made = send<id>(*Class::named("VQReadWriteLock"), "alloc"_sel);
                  made = send<id>(made, "init"_sel);
              }),
              Calls{"init"});
    EXPECT_EQ(callsOf([&] { made = nullptr; }), Calls{"destroy"});
}

/// One way of using the lock, and what it calls around its body, if it takes one.
struct Form {
    const char* name;
    std::function<void(const Ref<ReadWriteLock>& lock, std::function<void()> body)> use;
    Calls expected;
};

std::ostream& operator<<(std::ostream& out, const Form& form) {
    return out << form.name;
}

std::vector<Form> allForms() {
    const Calls read{"rdlock", "body", "unlock"};
    const Calls write{"wrlock", "body", "unlock"};
    return {
        {"readLock", [](auto& lock, auto) { lock->readLock(); }, {"rdlock"}},
        {"writeLock", [](auto& lock, auto) { lock->writeLock(); }, {"wrlock"}},
        {"unlock", [](auto& lock, auto) { lock->unlock(); }, {"unlock"}},
        {"readBlock", [](auto& lock, auto body) { lock->readBlock(body); }, read},
        {"writeBlock", [](auto& lock, auto body) { lock->writeBlock(body); }, write},
        {"readBlockObjc", [](auto& lock, auto body) { lock->readBlockObjc(body); }, read},
        {"writeBlockObjc", [](auto& lock, auto body) { lock->writeBlockObjc(body); }, write},
        {"readLockByMessage",
         [](auto& lock, auto) { send<void>(lock, "readLock"_sel); },
         {"rdlock"}},
        {"writeLockByMessage",
         [](auto& lock, auto) { send<void>(lock, "writeLock"_sel); },
         {"wrlock"}},
        {"unlockByMessage", [](auto& lock, auto) { send<void>(lock, "unlock"_sel); }, {"unlock"}},
        {"readBlockByMessage",
         [](auto& lock, auto body) { send<void>(lock, "readBlockObjc:"_sel, body); }, read},
        {"writeBlockByMessage",
         [](auto& lock, auto body) { send<void>(lock, "writeBlockObjc:"_sel, body); }, write},
    };
}

class ReadWriteLockForm : public ::testing::TestWithParam<Form> {};
INSTANTIATE_TEST_SUITE_P(All, ReadWriteLockForm, ::testing::ValuesIn(allForms()),
                         [](const auto& form) { return std::string(form.param.name); });

TEST_P(ReadWriteLockForm, CallsEachFunctionOnceAndIgnoresThatItFails) {
    const auto lock = make<ReadWriteLock>();
    EXPECT_EQ(callsOf([&] { GetParam().use(lock, [] { calls->emplace_back("body"); }); }),
              GetParam().expected);
}

}  // namespace
}  // namespace vantorq
