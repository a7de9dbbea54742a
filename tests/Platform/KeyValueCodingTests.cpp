#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Support/Trap.h"
#include "VantorqFoundation/VantorqFoundation.h"

namespace vantorq {
namespace {

class Account : public NSObject {
    VNTQ_OBJECT(Account, NSObject)
public:
    Ref<NSString> owner() const { return owner_; }
    void setOwner(const Ref<NSString>& owner) { owner_ = owner; }
    Ref<Account> parent() const { return parent_; }
    void setParent(const Ref<Account>& parent) { parent_ = parent; }
    bool isOpen() const { return open_; }
    void setOpen(bool open) { open_ = open; }
    std::int8_t tiny() const { return tiny_; }
    void setTiny(std::int8_t tiny) { tiny_ = tiny; }
    std::uint8_t byte() const { return byte_; }
    void setByte(std::uint8_t byte) { byte_ = byte; }
    std::int32_t cents() const { return cents_; }
    void setCents(std::int32_t cents) { cents_ = cents; }
    NSInteger balance() const { return balance_; }
    void setBalance(NSInteger balance) { balance_ = balance; }
    NSUInteger visits() const { return visits_; }
    void setVisits(NSUInteger visits) { visits_ = visits; }
    float ratio() const { return ratio_; }
    void setRatio(float ratio) { ratio_ = ratio; }
    double interest() const { return interest_; }
    void setInterest(double interest) { interest_ = interest; }
    NSInteger fixed() const { return 7; }

    // Accessors that are no property.
    Ref<NSString> code() const { return code_; }
    void setCode(const Ref<NSString>& code) { code_ = code; }
    bool isLocked() const { return level_ > 0; }
    NSInteger level() const { return level_; }
    void setLevel(NSInteger level) { level_ = level; }
    void close() { open_ = false; }

protected:
    ~Account() override = default;

private:
    Ref<NSString> owner_;
    Ref<Account> parent_;
    Ref<NSString> code_;
    bool open_ = false;
    std::int8_t tiny_ = 0;
    std::uint8_t byte_ = 0;
    std::int32_t cents_ = 0;
    NSInteger balance_ = 0;
    NSUInteger visits_ = 0;
    NSInteger level_ = 0;
    float ratio_ = 0;
    double interest_ = 0;
};

/// Writes down what the hooks are asked, and answers.
class ForgivingAccount final : public Account {
public:
    id valueForUndefinedKey(const NSString& key) const override {
        return NSString::string("no " + key.utf8());
    }
    void setValueForUndefinedKey(const id& value, const NSString& key) override {
        asked.push_back(key.utf8() + "=" +
                        (value != nullptr ? value->description()->utf8() : "nil"));
    }
    void setNilValueForKey(const NSString& key) override { asked.push_back("nil " + key.utf8()); }

    std::vector<std::string> asked;
};

constexpr PropertyInfo kProperties[] = {
    property<&Account::owner, &Account::setOwner>("owner"),
    property<&Account::parent, &Account::setParent>("parent"),
    property<&Account::isOpen, &Account::setOpen>("open", "isOpen"),
    property<&Account::tiny, &Account::setTiny>("tiny"),
    property<&Account::byte, &Account::setByte>("byte"),
    property<&Account::cents, &Account::setCents>("cents"),
    property<&Account::balance, &Account::setBalance>("balance"),
    property<&Account::visits, &Account::setVisits>("visits"),
    property<&Account::ratio, &Account::setRatio>("ratio"),
    property<&Account::interest, &Account::setInterest>("interest"),
    property<&Account::fixed>("fixed"),
};
constexpr MethodInfo kMethods[] = {
    method<&Account::code>("code"),          method<&Account::setCode>("setCode:"),
    method<&Account::isLocked>("isLocked"),  method<&Account::level>("level"),
    method<&Account::setLevel>("setLevel:"), method<&Account::close>("close"),
};

VNTQ_DEFINE_CLASS(Account, {.properties = kProperties, .methods = kMethods})

/// What a number property of that name holds after `value` was set.
template <class T>
T afterSetting(const NSString& key, const id& value) {
    const auto account = make<Account>();
    account->setValueForKey(value, key);
    return unbridge<T>(account->valueForKey(key)).value();
}

// Reading.

TEST(KeyValueCoding, ReadsAndWritesAnObjectProperty) {
    const auto account = make<Account>();
    EXPECT_EQ(account->valueForKey("owner"_ns), nullptr);
    account->setValueForKey("Ada"_ns, "owner"_ns);
    EXPECT_EQ(account->owner()->utf8(), "Ada");
    EXPECT_EQ(account->valueForKey("owner"_ns), account->owner());
    account->setValueForKey(nullptr, "owner"_ns);
    EXPECT_EQ(account->owner(), nullptr);
}

TEST(KeyValueCoding, FindsAKeyByItsTextNotByItsObject) {
    const auto account = make<Account>();
    account->setBalance(5);
    EXPECT_EQ(unbridge<int>(account->valueForKey(*NSString::string(std::string("bal") + "ance"))),
              5);
}

TEST(KeyValueCoding, ReadsAPropertyByItsNameWhateverItsGetterIsCalled) {
    const auto account = make<Account>();
    account->setOpen(true);
    EXPECT_EQ(unbridge<bool>(account->valueForKey("open"_ns)), true);
    EXPECT_EQ(unbridge<bool>(account->valueForKey("isOpen"_ns)), true) << "as a method";
}

TEST(KeyValueCoding, ReadsMethodsOfThatNameAndIsGetters) {
    const auto account = make<Account>();
    account->setCode("A1"_ns);
    account->setLevel(1);
    EXPECT_EQ(unbridge<std::string>(account->valueForKey("code"_ns)), "A1");
    EXPECT_EQ(unbridge<bool>(account->valueForKey("locked"_ns)), true);
}

TEST(KeyValueCoding, ReadsWhatTheRootDeclares) {
    const auto account = make<Account>();
    EXPECT_EQ(account->valueForKey("superclass"_ns), &NSObject::classObject());
    EXPECT_EQ(unbridge<NSUInteger>(account->valueForKey("hash"_ns)), account->hash());
}

TEST(KeyValueCoding, DoesNotCallAMethodWithoutResult) {
    const auto account = make<Account>();
    account->setOpen(true);
    EXPECT_TRAP((void)account->valueForKey("close"_ns),
                "-[Account valueForUndefinedKey:]: there is no value for the key close");
    EXPECT_TRUE(account->isOpen());
}

TEST(KeyValueCoding, BoxesScalarsInTheirOwnKind) {
    const auto account = make<Account>();
    const auto kindOf = [&](const NSString& key) {
        return std::string(objectCast<NSNumber>(account->valueForKey(key))->encoding());
    };
    EXPECT_EQ(kindOf("open"_ns), "B");
    EXPECT_EQ(kindOf("tiny"_ns), "c");
    EXPECT_EQ(kindOf("byte"_ns), "C");
    EXPECT_EQ(kindOf("cents"_ns), "i");
    EXPECT_EQ(kindOf("balance"_ns), "q");
    EXPECT_EQ(kindOf("visits"_ns), "Q");
    EXPECT_EQ(kindOf("ratio"_ns), "f");
    EXPECT_EQ(kindOf("interest"_ns), "d");
}

// Numbers into scalars.

TEST(KeyValueCoding, UnboxesNumbersOfAnyKindThatFit) {
    EXPECT_EQ(afterSetting<NSInteger>("balance"_ns, bridge(std::uint8_t{200})), 200);
    EXPECT_EQ(afterSetting<NSInteger>("balance"_ns, bridge(true)), 1);
    EXPECT_EQ(afterSetting<double>("interest"_ns, bridge(3)), 3.0);
    EXPECT_EQ(afterSetting<float>("ratio"_ns, bridge(0.1)), 0.1F) << "rounded";
    EXPECT_EQ(afterSetting<bool>("open"_ns, bridge(1)), true);
    EXPECT_EQ(afterSetting<NSUInteger>("visits"_ns, bridge(NSUInteger{UINT64_MAX})), UINT64_MAX);
}

TEST(KeyValueCoding, CutsFractionsOff) {
    EXPECT_EQ(afterSetting<NSInteger>("balance"_ns, bridge(2.9)), 2);
    EXPECT_EQ(afterSetting<NSInteger>("balance"_ns, bridge(-2.9)), -2);
    EXPECT_EQ(afterSetting<std::uint8_t>("byte"_ns, bridge(-0.5)), 0);
}

TEST(KeyValueCoding, BringsNumbersOutOfRangeToTheNearestEdge) {
    constexpr NSInteger kMost = std::numeric_limits<NSInteger>::max();
    EXPECT_EQ(afterSetting<std::int8_t>("tiny"_ns, bridge(1000)), 127);
    EXPECT_EQ(afterSetting<std::int8_t>("tiny"_ns, bridge(-1000)), -128);
    EXPECT_EQ(afterSetting<std::uint8_t>("byte"_ns, bridge(-1)), 0);
    EXPECT_EQ(afterSetting<std::uint8_t>("byte"_ns, bridge(256)), 255);
    EXPECT_EQ(afterSetting<std::int32_t>("cents"_ns, bridge(kMost)), INT32_MAX)
        << "a number that no double holds exactly";
    EXPECT_EQ(afterSetting<NSInteger>("balance"_ns, bridge(NSUInteger{UINT64_MAX})), kMost);
    EXPECT_EQ(afterSetting<NSInteger>("balance"_ns, bridge(-1e300)), INT64_MIN);
    EXPECT_EQ(afterSetting<NSUInteger>("visits"_ns, bridge(-5)), 0U);
    EXPECT_EQ(
        afterSetting<NSInteger>("balance"_ns, bridge(std::numeric_limits<double>::quiet_NaN())), 0);
}

TEST(KeyValueCoding, RoundsIntegersThatAFloatingPointPropertyCannotHold) {
    EXPECT_EQ(afterSetting<double>("interest"_ns, bridge((NSInteger{1} << 53) + 1)), 0x1p53);
}

TEST(KeyValueCoding, TakesEveryNumberButZeroAsTrue) {
    EXPECT_TRUE(afterSetting<bool>("open"_ns, bridge(5)));
    EXPECT_TRUE(afterSetting<bool>("open"_ns, bridge(-0.5)));
    EXPECT_FALSE(afterSetting<bool>("open"_ns, bridge(0.0)));
}

// Text into scalars.

TEST(KeyValueCoding, ReadsANumberFromText) {
    EXPECT_EQ(afterSetting<NSInteger>("balance"_ns, "42"_ns), 42);
    EXPECT_EQ(afterSetting<NSInteger>("balance"_ns, "9223372036854775807"_ns), INT64_MAX);
    EXPECT_EQ(afterSetting<std::int32_t>("cents"_ns, " -12 cents"_ns), -12);
    EXPECT_EQ(afterSetting<double>("interest"_ns, "2.5"_ns), 2.5);
    EXPECT_EQ(afterSetting<float>("ratio"_ns, "0.5"_ns), 0.5F);
    EXPECT_TRUE(afterSetting<bool>("open"_ns, "YES"_ns));
    EXPECT_FALSE(afterSetting<bool>("open"_ns, "no"_ns));
}

TEST(KeyValueCoding, TextWithoutANumberIsZeroAndTextOutOfRangeIsTheEdge) {
    EXPECT_EQ(afterSetting<NSInteger>("balance"_ns, "none"_ns), 0);
    EXPECT_EQ(afterSetting<std::int8_t>("tiny"_ns, "1000"_ns), 127);
    EXPECT_EQ(afterSetting<std::uint8_t>("byte"_ns, "-3"_ns), 0);
    EXPECT_EQ(afterSetting<NSInteger>("balance"_ns, "99999999999999999999"_ns), INT64_MAX);
}

// What cannot be set.

TEST(KeyValueCoding, AnObjectOfAnotherClassTrapsWithTheNames) {
    EXPECT_TRAP(make<Account>()->setValueForKey(bridge(1), "owner"_ns),
                "-[Account setValue:forKey:]: an object of class NSNumber does not fit the "
                "property owner");
    EXPECT_TRAP(make<Account>()->setValueForKey(NSArray::array(), "balance"_ns),
                "-[Account setValue:forKey:]: an object of class NSArray does not fit the property "
                "balance");
}

TEST(KeyValueCoding, NilForAScalarTraps) {
    EXPECT_TRAP(make<Account>()->setValueForKey(nullptr, "balance"_ns),
                "-[Account setNilValueForKey:]: nil was set for the scalar balance");
}

TEST(KeyValueCoding, NilForAScalarGoesToTheHook) {
    const auto account = make<ForgivingAccount>();
    account->setBalance(5);
    account->setValueForKey(nullptr, "balance"_ns);
    account->setValueForKey(nullptr, "level"_ns);
    EXPECT_THAT(account->asked, testing::ElementsAre("nil balance", "nil level"));
    EXPECT_EQ(account->balance(), 5);
}

TEST(KeyValueCoding, UndefinedKeysTrapWithTheNames) {
    EXPECT_TRAP((void)make<Account>()->valueForKey("colour"_ns),
                "-[Account valueForUndefinedKey:]: there is no value for the key colour");
    EXPECT_TRAP(make<Account>()->setValueForKey(bridge(1), "colour"_ns),
                "-[Account setValue:forUndefinedKey:]: no value can be set for the key colour");
    EXPECT_TRAP(make<Account>()->setValueForKey(bridge(1), "fixed"_ns),
                "-[Account setValue:forUndefinedKey:]: no value can be set for the key fixed");
}

TEST(KeyValueCoding, UndefinedKeysGoToTheHooks) {
    const auto account = make<ForgivingAccount>();
    EXPECT_EQ(unbridge<std::string>(account->valueForKey("colour"_ns)), "no colour");
    EXPECT_EQ(unbridge<std::string>(account->valueForKey(""_ns)), "no ");
    EXPECT_EQ(unbridge<std::string>(account->valueForKey("setCode:"_ns)), "no setCode:");
    account->setValueForKey(bridge(1), "colour"_ns);
    account->setValueForKey(bridge(2), "fixed"_ns);
    account->setValueForKey(nullptr, ""_ns);
    EXPECT_THAT(account->asked, testing::ElementsAre("colour=1", "fixed=2", "=nil"));
}

// Setters that are no property.

TEST(KeyValueCoding, SendsASetterThatIsNoProperty) {
    const auto account = make<Account>();
    account->setValueForKey("A1"_ns, "code"_ns);
    account->setValueForKey(bridge(3), "level"_ns);
    EXPECT_EQ(account->code()->utf8(), "A1");
    EXPECT_EQ(account->level(), 3);
    account->setValueForKey("4"_ns, "level"_ns);
    EXPECT_EQ(account->level(), 4) << "text is read as for a property";
}

TEST(KeyValueCoding, ASetterThatIsNoPropertyRefusesOtherClasses) {
    EXPECT_TRAP(make<Account>()->setValueForKey(bridge(1), "code"_ns),
                "-[Account setValue:forKey:]: an object of class NSNumber does not fit the "
                "property code");
}

// Paths.

TEST(KeyValueCoding, FollowsKeyPaths) {
    const auto account = make<Account>();
    account->setParent(make<Account>());
    account->parent()->setParent(make<Account>());
    account->setValueForKeyPath("Ada"_ns, "parent.parent.owner"_ns);
    EXPECT_EQ(account->parent()->parent()->owner()->utf8(), "Ada");
    EXPECT_EQ(unbridge<std::string>(account->valueForKeyPath("parent.parent.owner"_ns)), "Ada");
    account->setValueForKeyPath(bridge(1), "balance"_ns);
    EXPECT_EQ(unbridge<int>(account->valueForKeyPath("balance"_ns)), 1);
}

TEST(KeyValueCoding, ANilOnTheWayOfAPathGivesNilAndTakesNothing) {
    const auto account = make<Account>();
    EXPECT_EQ(account->valueForKeyPath("parent.parent.owner"_ns), nullptr);
    account->setValueForKeyPath("Ada"_ns, "parent.owner"_ns);
    EXPECT_EQ(account->parent(), nullptr);
}

TEST(KeyValueCoding, PathsGoThroughCollections) {
    const auto account = make<Account>();
    account->setOwner("Ada"_ns);
    const auto named = NSDictionary::dictionary({{"first"_ns, account}});
    EXPECT_EQ(unbridge<std::string>(named->valueForKeyPath("first.owner"_ns)), "Ada");
    const auto list = NSArray::array({account, make<Account>()});
    const auto owners = objectCast<NSArray>(list->valueForKeyPath("owner"_ns));
    EXPECT_EQ((*owners)[0], account->owner());
    EXPECT_EQ((*owners)[1], &NSNull::null());
}

// Dictionaries.

TEST(KeyValueCoding, SetsValuesFromADictionaryWithTheNullObjectForNil) {
    const auto account = make<Account>();
    account->setOwner("Ada"_ns);
    account->setValuesForKeysWithDictionary(*NSDictionary::dictionary(
        {{"balance"_ns, bridge(5)}, {"owner"_ns, id(NSNull::null())}, {"code"_ns, "A1"_ns}}));
    EXPECT_EQ(account->balance(), 5);
    EXPECT_EQ(account->owner(), nullptr);
    EXPECT_EQ(account->code()->utf8(), "A1");
}

TEST(KeyValueCoding, ExportsADictionaryWithTheNullObjectForNil) {
    const auto account = make<Account>();
    account->setBalance(5);
    const auto values =
        account->dictionaryWithValuesForKeys(*NSArray::array({"balance"_ns, "owner"_ns}));
    EXPECT_EQ(values->count(), 2U);
    EXPECT_EQ(unbridge<int>(values->objectForKey("balance"_ns)), 5);
    EXPECT_EQ(values->objectForKey("owner"_ns), &NSNull::null());
}

TEST(KeyValueCoding, KeysThatAreNoTextTrap) {
    EXPECT_TRAP(make<Account>()->setValuesForKeysWithDictionary(
                    *NSDictionary::dictionary({{bridge(1), bridge(2)}})),
                "a key is no string but of class NSNumber");
    EXPECT_TRAP((void)make<Account>()->dictionaryWithValuesForKeys(*NSArray::array({bridge(1)})),
                "a key is no string but of class NSNumber");
}

TEST(KeyValueCoding, WorksByMessage) {
    const auto account = make<Account>();
    send<void>(account, "setValue:forKey:"_sel, bridge(5), "balance"_ns);
    EXPECT_EQ(unbridge<int>(send<id>(account, "valueForKey:"_sel, "balance"_ns)), 5);
    send<void>(account, "setValue:forKeyPath:"_sel, bridge(6), "balance"_ns);
    EXPECT_EQ(unbridge<int>(send<id>(account, "valueForKeyPath:"_sel, "balance"_ns)), 6);
}

}  // namespace
}  // namespace vantorq
