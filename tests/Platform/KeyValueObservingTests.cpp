#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Support/Trap.h"
#include "VantorqFoundation/VantorqFoundation.h"

namespace vantorq {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using enum KeyValueObservingOptions;

class Lamp : public NSObject {
    VNTQ_OBJECT(Lamp, NSObject)
public:
    NSInteger level() const { return level_; }
    /// Announces nothing; key-value coding does.
    void setLevel(NSInteger level) { level_ = level; }
    /// Announces the change itself.
    void changeLevel(NSInteger level) {
        willChangeValueForKey("level"_ns);
        level_ = level;
        didChangeValueForKey("level"_ns);
    }
    Ref<NSString> label() const { return label_; }
    void setLabel(const Ref<NSString>& label) { label_ = label; }
    void changeLabel(const Ref<NSString>& label) {
        willChangeValueForKey("label"_ns);
        label_ = label;
        didChangeValueForKey("label"_ns);
    }

private:
    NSInteger level_ = 0;
    Ref<NSString> label_;
};

constexpr PropertyInfo kLampProperties[] = {
    property<&Lamp::level, &Lamp::setLevel>("level"),
    property<&Lamp::label, &Lamp::setLabel>("label"),
};
VNTQ_DEFINE_CLASS(Lamp, {.properties = kLampProperties})

std::string text(const id& value) {
    return value != nullptr ? value->description()->utf8() : "nil";
}

/// Writes down what it is told as "name: key old->new", and then does what the test asks for.
class Watcher : public NSObject {
    VNTQ_OBJECT(Watcher, NSObject)
public:
    using Log = std::vector<std::string>;

    explicit Watcher(Log& log, std::string name = "") : log_(log), name_(std::move(name)) {}

    void observeValueForKeyPath(const NSString& key, NSObject&, const KeyValueChange& change,
                                void* context) override {
        lastContext = context;
        log_.push_back(name_ + (change.isPrior ? "before " : "") + key.utf8() + " " +
                       text(change.oldValue) + "->" + text(change.newValue));
        if (then) {
            then(change);
        }
    }

    std::function<void(const KeyValueChange&)> then;
    void* lastContext = nullptr;

private:
    Log& log_;
    std::string name_;
};
VNTQ_DEFINE_CLASS(Watcher, {})

class KeyValueObserving : public testing::Test {
protected:
    Watcher::Log log;
    Ref<Lamp> lamp = make<Lamp>();
    Ref<Watcher> watcher = make<Watcher>(log);
};

// What is told.

TEST_F(KeyValueObserving, TellsOfAChangeWithoutValuesByDefault) {
    lamp->addObserver(*watcher, "level"_ns);
    lamp->changeLevel(1);
    EXPECT_THAT(log, ElementsAre("level nil->nil"));
}

TEST_F(KeyValueObserving, TellsTheValuesThatWereAskedFor) {
    lamp->addObserver(*watcher, "level"_ns, oldValue | newValue);
    lamp->changeLevel(1);
    lamp->changeLevel(2);
    EXPECT_THAT(log, ElementsAre("level 0->1", "level 1->2"));
}

TEST_F(KeyValueObserving, TheNullObjectStandsForNil) {
    lamp->addObserver(*watcher, "label"_ns, oldValue | newValue);
    lamp->changeLabel("desk"_ns);
    lamp->changeLabel(nullptr);
    EXPECT_THAT(log, ElementsAre("label <null>->desk", "label desk-><null>"));
}

TEST_F(KeyValueObserving, InitialTellsAtOnceWithTheCurrentValue) {
    lamp->setLevel(5);
    lamp->addObserver(*watcher, "level"_ns, initial | newValue);
    EXPECT_THAT(log, ElementsAre("level nil->5"));
    lamp->addObserver(*watcher, "level"_ns, initial);
    EXPECT_THAT(log, ElementsAre("level nil->5", "level nil->nil"));
}

TEST_F(KeyValueObserving, PriorTellsBeforeAndAfterTheChange) {
    lamp->addObserver(*watcher, "level"_ns, prior | oldValue | newValue);
    NSInteger levelBefore = -1;
    watcher->then = [&](const KeyValueChange& change) {
        if (change.isPrior) {
            levelBefore = lamp->level();
        }
    };
    lamp->changeLevel(3);
    EXPECT_THAT(log, ElementsAre("before level 0->nil", "level 0->3"));
    EXPECT_EQ(levelBefore, 0);
}

TEST_F(KeyValueObserving, HandsTheContextAndTheObjectBack) {
    int mark = 0;
    lamp->addObserver(*watcher, "level"_ns, none, &mark);
    lamp->changeLevel(1);
    EXPECT_EQ(watcher->lastContext, &mark);
}

TEST_F(KeyValueObserving, ObserversAreToldInTheOrderInWhichTheyWereAdded) {
    const auto first = make<Watcher>(log, "1 ");
    const auto second = make<Watcher>(log, "2 ");
    lamp->addObserver(*second, "level"_ns, prior);
    lamp->addObserver(*first, "level"_ns, prior);
    lamp->addObserver(*second, "level"_ns);
    lamp->changeLevel(1);
    EXPECT_THAT(log, ElementsAre("2 before level nil->nil", "1 before level nil->nil",
                                 "2 level nil->nil", "1 level nil->nil", "2 level nil->nil"));
}

TEST_F(KeyValueObserving, OtherKeysAreNotTold) {
    lamp->addObserver(*watcher, "label"_ns);
    lamp->changeLevel(1);
    EXPECT_THAT(log, IsEmpty());
}

TEST_F(KeyValueObserving, KeysAreComparedByText) {
    lamp->addObserver(*watcher, *NSString::string(std::string("lev") + "el"));
    lamp->changeLevel(1);
    EXPECT_THAT(log, ElementsAre("level nil->nil"));
}

TEST_F(KeyValueObserving, AKeyThatChangesItsTextLaterDoesNotMatter) {
    const auto key = make<NSMutableString>("level"_ns);
    lamp->addObserver(*watcher, *key);
    key->setString("label"_ns);
    lamp->changeLevel(1);
    EXPECT_THAT(log, ElementsAre("level nil->nil"));
}

TEST_F(KeyValueObserving, OneRegistrationMayCoverSeveralKeys) {
    lamp->addObserver(*watcher, *NSArray::array({"level"_ns, "label"_ns}), oldValue | newValue,
                      nullptr);
    lamp->changeLabel("desk"_ns);
    lamp->changeLevel(1);
    EXPECT_THAT(log, ElementsAre("label <null>->desk", "level 0->1"));
}

TEST_F(KeyValueObserving, InitialOfSeveralKeysTellsEach) {
    lamp->addObserver(*watcher, *NSArray::array({"level"_ns, "label"_ns}), initial | newValue,
                      nullptr);
    EXPECT_THAT(log, ElementsAre("level nil->0", "label nil-><null>"));
}

TEST_F(KeyValueObserving, AKeyThatIsNoTextTraps) {
    EXPECT_TRAP(lamp->addObserver(*watcher, *NSArray::array({bridge(1)}), none, nullptr),
                "a key is no string");
}

// Who tells.

TEST_F(KeyValueObserving, SettingByKeyTells) {
    lamp->addObserver(*watcher, "level"_ns, oldValue | newValue);
    lamp->setValueForKey(bridge(4), "level"_ns);
    EXPECT_THAT(log, ElementsAre("level 0->4"));
}

TEST_F(KeyValueObserving, ATypedSetterWithoutAPairTellsNothing) {
    lamp->addObserver(*watcher, "level"_ns);
    lamp->setLevel(4);
    EXPECT_THAT(log, IsEmpty());
}

TEST_F(KeyValueObserving, NestedPairsOfOneKeyEachKnowTheirOldValue) {
    lamp->addObserver(*watcher, "level"_ns, oldValue | newValue);
    lamp->willChangeValueForKey("level"_ns);
    lamp->setLevel(1);
    lamp->changeLevel(2);
    lamp->setLevel(3);
    lamp->didChangeValueForKey("level"_ns);
    EXPECT_THAT(log, ElementsAre("level 1->2", "level 0->3"));
}

TEST_F(KeyValueObserving, PairsOfSeveralKeysMayOverlap) {
    lamp->addObserver(*watcher, *NSArray::array({"level"_ns, "label"_ns}), oldValue | newValue,
                      nullptr);
    lamp->willChangeValueForKey("level"_ns);
    lamp->willChangeValueForKey("label"_ns);
    lamp->setLevel(1);
    lamp->setLabel("desk"_ns);
    lamp->didChangeValueForKey("level"_ns);
    lamp->didChangeValueForKey("label"_ns);
    EXPECT_THAT(log, ElementsAre("level 0->1", "label <null>->desk"));
}

TEST_F(KeyValueObserving, PairsOfSeveralObjectsMayOverlap) {
    const auto other = make<Lamp>();
    other->setLevel(10);
    lamp->addObserver(*watcher, "level"_ns, oldValue);
    other->addObserver(*watcher, "level"_ns, oldValue);
    lamp->willChangeValueForKey("level"_ns);
    other->willChangeValueForKey("level"_ns);
    lamp->didChangeValueForKey("level"_ns);
    other->didChangeValueForKey("level"_ns);
    EXPECT_THAT(log, ElementsAre("level 0->nil", "level 10->nil"));
}

TEST_F(KeyValueObserving, AnEndWithoutABeginningHasNoOldValue) {
    lamp->addObserver(*watcher, "level"_ns, oldValue | newValue);
    lamp->didChangeValueForKey("level"_ns);
    EXPECT_THAT(log, ElementsAre("level nil->0"));
}

TEST_F(KeyValueObserving, AChangeMadeByAnObserverIsToldWithin) {
    lamp->addObserver(*watcher, "level"_ns, oldValue | newValue);
    watcher->then = [&](const KeyValueChange&) {
        if (lamp->level() == 1) {
            lamp->changeLevel(2);
        }
    };
    lamp->changeLevel(1);
    EXPECT_THAT(log, ElementsAre("level 0->1", "level 1->2"));
}

// Coming and going.

TEST_F(KeyValueObserving, TheSameObserverAddedTwiceIsToldTwice) {
    lamp->addObserver(*watcher, "level"_ns);
    lamp->addObserver(*watcher, "level"_ns);
    lamp->changeLevel(1);
    EXPECT_THAT(log, ElementsAre("level nil->nil", "level nil->nil"));
}

TEST_F(KeyValueObserving, RemovingTakesTheLatestRegistrationForTheKey) {
    lamp->addObserver(*watcher, "level"_ns, newValue);
    lamp->addObserver(*watcher, "level"_ns, oldValue);
    lamp->addObserver(*watcher, "label"_ns);
    lamp->removeObserver(*watcher, "level"_ns);
    lamp->changeLevel(1);
    EXPECT_THAT(log, ElementsAre("level nil->1"));
}

TEST_F(KeyValueObserving, RemovingByContextLeavesTheOtherContexts) {
    int first = 0;
    int second = 0;
    lamp->addObserver(*watcher, "level"_ns, oldValue, &first);
    lamp->addObserver(*watcher, "level"_ns, newValue, &second);
    lamp->removeObserver(*watcher, "level"_ns, &first);
    lamp->changeLevel(1);
    EXPECT_THAT(log, ElementsAre("level nil->1"));
    lamp->removeObserver(*watcher, "level"_ns, &first);
    lamp->changeLevel(2);
    EXPECT_THAT(log, ElementsAre("level nil->1", "level nil->2"));
}

TEST_F(KeyValueObserving, RemovingAContextTakesAllItsRegistrations) {
    int mark = 0;
    lamp->addObserver(*watcher, "level"_ns, none, &mark);
    lamp->addObserver(*watcher, "label"_ns, none, &mark);
    lamp->addObserver(*watcher, "level"_ns, newValue);
    lamp->removeObserver(*watcher, &mark);
    lamp->changeLabel("desk"_ns);
    lamp->changeLevel(1);
    EXPECT_THAT(log, ElementsAre("level nil->1"));
}

TEST_F(KeyValueObserving, RemovingOneKeyOfSeveralLeavesTheRest) {
    lamp->addObserver(*watcher, *NSArray::array({"level"_ns, "label"_ns}), none, nullptr);
    lamp->removeObserver(*watcher, "level"_ns);
    lamp->changeLevel(1);
    lamp->changeLabel("desk"_ns);
    EXPECT_THAT(log, ElementsAre("label nil->nil"));
    lamp->removeObserver(*watcher, "label"_ns);
    EXPECT_FALSE(lamp->hasObservers());
}

TEST_F(KeyValueObserving, RemovingWhatIsNotThereDoesNothing) {
    lamp->removeObserver(*watcher, "level"_ns);
    lamp->addObserver(*watcher, "level"_ns);
    lamp->removeObserver(*make<Watcher>(log), "level"_ns);
    lamp->removeObserver(*watcher, "label"_ns);
    lamp->changeLevel(1);
    EXPECT_THAT(log, ElementsAre("level nil->nil"));
}

TEST_F(KeyValueObserving, AnObserverMayRemoveItselfWhileItIsTold) {
    const auto other = make<Watcher>(log, "other ");
    lamp->addObserver(*watcher, "level"_ns);
    lamp->addObserver(*other, "level"_ns);
    watcher->then = [&](const KeyValueChange&) { lamp->removeObserver(*watcher, "level"_ns); };
    lamp->changeLevel(1);
    lamp->changeLevel(2);
    EXPECT_THAT(log, ElementsAre("level nil->nil", "other level nil->nil", "other level nil->nil"));
}

TEST_F(KeyValueObserving, AnObserverAddedWhileOthersAreToldIsToldFromTheNextChangeOn) {
    const auto late = make<Watcher>(log, "late ");
    lamp->addObserver(*watcher, "level"_ns);
    watcher->then = [&](const KeyValueChange&) {
        watcher->then = nullptr;
        lamp->addObserver(*late, "level"_ns, oldValue);
    };
    lamp->changeLevel(1);
    EXPECT_THAT(log, ElementsAre("level nil->nil"));
    lamp->changeLevel(2);
    EXPECT_THAT(log, ElementsAre("level nil->nil", "level nil->nil", "late level 1->nil"));
}

TEST_F(KeyValueObserving, AnObserverIsHeldWeaklyAndForgottenAtItsEnd) {
    lamp->addObserver(*watcher, "level"_ns, oldValue);
    EXPECT_EQ(watcher->ownerCount(), 1U);
    watcher.reset();
    lamp->changeLevel(1);
    EXPECT_THAT(log, IsEmpty());
}

TEST_F(KeyValueObserving, AnObserverRemovedWithinAChangeLeavesNothingBehind) {
    lamp->setLabel(NSString::string("the old label"));
    const Weak<NSString> old(lamp->label());
    lamp->addObserver(*watcher, "label"_ns, oldValue);
    lamp->willChangeValueForKey("label"_ns);
    lamp->removeObserver(*watcher, "label"_ns);
    lamp->setLabel(nullptr);
    lamp->didChangeValueForKey("label"_ns);
    EXPECT_EQ(old.load(), nullptr);
}

TEST_F(KeyValueObserving, WithoutObserversNothingIsReadOrKept) {
    EXPECT_FALSE(lamp->hasObservers());
    lamp->changeLevel(1);
    lamp->addObserver(*watcher, "level"_ns);
    EXPECT_TRUE(lamp->hasObservers());
    lamp->removeObserver(*watcher, "level"_ns);
    EXPECT_FALSE(lamp->hasObservers());
    lamp->willChangeValueForKey("no such key"_ns);
    lamp->didChangeValueForKey("no such key"_ns);
    EXPECT_THAT(log, IsEmpty());
}

TEST_F(KeyValueObserving, WorksByMessage) {
    send<void>(lamp, "addObserver:forKeyPath:options:context:"_sel, watcher, "level"_ns, newValue,
               static_cast<void*>(nullptr));
    lamp->changeLevel(1);
    send<void>(lamp, "removeObserver:forKeyPath:"_sel, watcher, "level"_ns);
    lamp->changeLevel(2);
    EXPECT_THAT(log, ElementsAre("level nil->1"));
}

}  // namespace
}  // namespace vantorq
