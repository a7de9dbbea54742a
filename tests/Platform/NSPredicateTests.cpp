#include "VantorqFoundation/Platform/NSPredicate.h"

#include <gtest/gtest.h>

#include "Support/Trap.h"
#include "VantorqFoundation/VantorqFoundation.h"

namespace vantorq {
namespace {

using Type = NSPredicateOperatorType;

bool holds(const id& value, Type type, const id& constant) {
    return NSPredicate::predicateWithKeyPath(""_ns, type, constant)
        ->evaluateWithObject(value.get());
}

TEST(NSPredicate, AsksItsBlock) {
    const auto isText = NSPredicate::predicateWithBlock(
        [](NSObject* object) { return objectCast<NSString>(object) != nullptr; });
    EXPECT_TRUE(isText->evaluateWithObject("text"_ns.copy().get()));
    EXPECT_FALSE(isText->evaluateWithObject(nullptr));
}

TEST(NSPredicate, AnEmptyBlockTraps) {
    EXPECT_TRAP((void)NSPredicate::predicateWithBlock(nullptr),
                "NSPredicate: an empty block is no condition");
}

TEST(NSPredicate, ComparesNumbersByValueWhateverTheirKind) {
    EXPECT_TRUE(holds(bridge(1), Type::lessThan, bridge(1.5)));
    EXPECT_FALSE(holds(bridge(2), Type::lessThan, bridge(2.0)));
    EXPECT_TRUE(holds(bridge(2), Type::lessThanOrEqualTo, bridge(2.0)));
    EXPECT_FALSE(holds(bridge(3), Type::lessThanOrEqualTo, bridge(2.0)));
    EXPECT_TRUE(holds(bridge(NSUInteger{UINT64_MAX}), Type::greaterThan, bridge(-1)));
    EXPECT_FALSE(holds(bridge(2), Type::greaterThan, bridge(2)));
    EXPECT_TRUE(holds(bridge(2), Type::greaterThanOrEqualTo, bridge(2)));
    EXPECT_FALSE(holds(bridge(1), Type::greaterThanOrEqualTo, bridge(2)));
    EXPECT_TRUE(holds(bridge(true), Type::equalTo, bridge(1.0)));
    EXPECT_FALSE(holds(bridge(1), Type::equalTo, bridge(2)));
    EXPECT_TRUE(holds(bridge(1), Type::notEqualTo, bridge(2)));
    EXPECT_FALSE(holds(bridge(1), Type::notEqualTo, bridge(1)));
}

TEST(NSPredicate, ComparesTextByUnits) {
    EXPECT_TRUE(holds("Zebra"_ns, Type::lessThan, "ape"_ns));
    EXPECT_TRUE(holds("ape"_ns, Type::lessThan, "apes"_ns));
    EXPECT_FALSE(holds("ape"_ns, Type::equalTo, "Ape"_ns));
    EXPECT_TRUE(holds("ape"_ns, Type::greaterThanOrEqualTo, "ape"_ns));
}

TEST(NSPredicate, ComparesDatesByTime) {
    const auto early = make<NSDate>(1.0);
    const auto late = make<NSDate>(2.0);
    EXPECT_TRUE(holds(early, Type::lessThan, late));
    EXPECT_FALSE(holds(early, Type::greaterThan, late));
    EXPECT_TRUE(holds(early, Type::equalTo, make<NSDate>(1.0)));
}

TEST(NSPredicate, ThingsThatHaveNoOrderFailEveryOrdering) {
    const std::pair<id, id> unordered[] = {
        {nullptr, bridge(1)},        {bridge(1), nullptr}, {nullptr, nullptr},
        {"1"_ns, make<NSDate>(1.0)}, {"1"_ns, bridge(1)},  {make<NSObject>(), make<NSObject>()},
    };
    for (const auto& [value, constant] : unordered) {
        EXPECT_FALSE(holds(value, Type::lessThan, constant));
        EXPECT_FALSE(holds(value, Type::lessThanOrEqualTo, constant));
        EXPECT_FALSE(holds(value, Type::greaterThan, constant));
        EXPECT_FALSE(holds(value, Type::greaterThanOrEqualTo, constant));
    }
}

TEST(NSPredicate, NilEqualsNilOnly) {
    EXPECT_TRUE(holds(nullptr, Type::equalTo, nullptr));
    EXPECT_FALSE(holds(nullptr, Type::notEqualTo, nullptr));
    EXPECT_FALSE(holds(nullptr, Type::equalTo, bridge(0)));
    EXPECT_TRUE(holds(bridge(0), Type::notEqualTo, nullptr));
}

TEST(NSPredicate, OtherObjectsCompareForEqualityOnly) {
    EXPECT_TRUE(holds(NSArray::array({bridge(1)}), Type::equalTo, NSArray::array({bridge(1)})));
    const id object = make<NSObject>();
    EXPECT_TRUE(holds(object, Type::equalTo, object));
    EXPECT_TRUE(holds(object, Type::notEqualTo, make<NSObject>()));
}

TEST(NSPredicate, TextBeginsAndEndsWithText) {
    EXPECT_TRUE(holds("package"_ns, Type::beginsWith, "pack"_ns));
    EXPECT_FALSE(holds("package"_ns, Type::beginsWith, "age"_ns));
    EXPECT_TRUE(holds("package"_ns, Type::endsWith, "age"_ns));
    EXPECT_FALSE(holds("package"_ns, Type::endsWith, "pack"_ns));
    EXPECT_TRUE(holds("package"_ns, Type::beginsWith, ""_ns));
    EXPECT_FALSE(holds(nullptr, Type::beginsWith, ""_ns));
    EXPECT_FALSE(holds(bridge(1), Type::endsWith, "1"_ns));
}

TEST(NSPredicate, AValueIsInAnArrayASetOrText) {
    EXPECT_TRUE(holds(bridge(2), Type::in, NSArray::array({bridge(1), bridge(2)})));
    EXPECT_FALSE(holds(bridge(3), Type::in, NSArray::array({bridge(1), bridge(2)})));
    EXPECT_TRUE(holds(bridge(2), Type::in, NSSet::set({bridge(2)})));
    EXPECT_TRUE(holds("cka"_ns, Type::in, "package"_ns));
    EXPECT_FALSE(holds("xyz"_ns, Type::in, "package"_ns));
    EXPECT_FALSE(holds(bridge(1), Type::in, "1"_ns));
    EXPECT_FALSE(holds(nullptr, Type::in, NSArray::array({bridge(1)})));
    EXPECT_FALSE(holds(bridge(2), Type::in, bridge(2)));
}

TEST(NSPredicate, AnArrayASetOrTextContainsAConstant) {
    EXPECT_TRUE(holds(NSArray::array({bridge(1)}), Type::contains, bridge(1.0)));
    EXPECT_FALSE(holds(NSArray::array({bridge(1)}), Type::contains, bridge(2)));
    EXPECT_TRUE(holds(NSSet::set({"a"_ns}), Type::contains, "a"_ns));
    EXPECT_TRUE(holds("package"_ns, Type::contains, "cka"_ns));
    EXPECT_FALSE(holds("package"_ns, Type::contains, "xyz"_ns));
    EXPECT_FALSE(holds(nullptr, Type::contains, "a"_ns));
    EXPECT_FALSE(holds(NSArray::array({bridge(1)}), Type::contains, nullptr));
}

TEST(NSPredicate, ReadsTheValueAtItsKeyPath) {
    const auto isAda = NSPredicate::predicateWithKeyPath("owner.name"_ns, Type::equalTo, "Ada"_ns);
    const auto owner = NSDictionary::dictionary({{"name"_ns, "Ada"_ns}});
    const auto account = NSDictionary::dictionary({{"owner"_ns, owner}});
    EXPECT_TRUE(isAda->evaluateWithObject(account.get()));
    EXPECT_FALSE(isAda->evaluateWithObject(NSDictionary::dictionary().get()));
    EXPECT_FALSE(isAda->evaluateWithObject(nullptr));
}

TEST(NSPredicate, KeepsItsOwnCopyOfThePath) {
    const auto path = make<NSMutableString>("name"_ns);
    const auto isAda = NSPredicate::predicateWithKeyPath(*path, Type::equalTo, "Ada"_ns);
    path->setString("age"_ns);
    EXPECT_TRUE(isAda->evaluateWithObject(NSDictionary::dictionary({{"name"_ns, "Ada"_ns}}).get()));
}

TEST(NSPredicate, ACopyIsThePredicateItself) {
    const auto always = NSPredicate::predicateWithBlock([](NSObject*) { return true; });
    EXPECT_EQ(always->copy(), always);
    EXPECT_TRUE(always->conformsToProtocol(NSCopying));
}

TEST(NSPredicate, WorksByMessage) {
    const id predicate = send<id>(NSPredicate::classObject(), "predicateWithBlock:"_sel,
                                  [](NSObject* object) { return object != nullptr; });
    EXPECT_TRUE(send<bool>(predicate, "evaluateWithObject:"_sel, predicate));
    EXPECT_FALSE(send<bool>(predicate, "evaluateWithObject:"_sel, nullptr));
    const id isOne = send<id>(NSPredicate::classObject(), "predicateWithKeyPath:type:value:"_sel,
                              ""_ns, Type::equalTo, bridge(1));
    EXPECT_TRUE(send<bool>(isOne, "evaluateWithObject:"_sel, bridge(1)));
}

}  // namespace
}  // namespace vantorq
