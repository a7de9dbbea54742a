#include "VantorqFoundation/Platform/NSArray.h"

#include <gtest/gtest.h>

#include "Support/Print.h"
#include "Support/Trap.h"
#include "VantorqFoundation/Platform/NSDictionary.h"
#include "VantorqFoundation/Platform/NSNull.h"
#include "VantorqFoundation/Platform/NSNumber.h"
#include "VantorqFoundation/Platform/Send.h"

namespace vantorq {
namespace {

std::string joined(const NSArray& array) {
    return array.componentsJoinedByString(","_ns)->utf8();
}
Ref<NSArray> numbers(std::initializer_list<int> values) {
    return objectCast<NSArray>(bridge(values));
}

NSComparisonResult compareNumbers(const NSObject& a, const NSObject& b) {
    return objectCast<NSNumber>(&a)->compare(*objectCast<NSNumber>(&b));
}

TEST(NSArray, HoldsItsElementsInOrder) {
    const auto array = NSArray::array({"a"_ns, "b"_ns});
    EXPECT_EQ(array->count(), 2U);
    EXPECT_EQ(array->objectAtIndex(0).get(), &"a"_ns);
    EXPECT_EQ((*array)[1].get(), &"b"_ns);
    EXPECT_EQ(array->firstObject().get(), &"a"_ns);
    EXPECT_EQ(array->lastObject().get(), &"b"_ns);
    EXPECT_EQ(array->elements().size(), 2U);
}

TEST(NSArray, TheEmptyArrayIsSharedAndHasNoObjects) {
    EXPECT_EQ(NSArray::array(), NSArray::array(std::vector<id>()));
    EXPECT_EQ(NSArray::array()->firstObject(), nullptr);
    EXPECT_EQ(NSArray::array()->lastObject(), nullptr);
    EXPECT_EQ(NSArray::array()->begin(), NSArray::array()->end());
}

TEST(NSArray, OwnsItsElements) {
    const auto element = NSString::string("x");
    {
        const auto array = NSArray::array({element, element});
        EXPECT_EQ(element->ownerCount(), 3U);
    }
    EXPECT_EQ(element->ownerCount(), 1U);
}

TEST(NSArray, TakesOverTheElementsOfAVector) {
    const auto element = NSString::string("x");
    std::vector<id> elements{element};
    const auto array = NSArray::array(std::move(elements));
    EXPECT_EQ(element->ownerCount(), 2U);
}

TEST(NSArray, IndexOutOfBoundsTraps) {
    EXPECT_TRAP((void)numbers({1})->objectAtIndex(1), "NSArray: index out of bounds");
    EXPECT_TRAP((void)NSArray::array()->objectAtIndex(NSNotFound), "NSArray: index out of bounds");
    EXPECT_TRAP((void)numbers({1})->subarrayWithRange({1, UINT64_MAX}), "range out of bounds");
}

TEST(NSArray, NilElementsTrap) {
    EXPECT_TRAP((void)NSArray::array({"a"_ns, id()}), "NSArray: nil cannot be an element");
    EXPECT_TRAP((void)NSMutableArray::array({id()}), "NSArray: nil cannot be an element");
    EXPECT_TRAP(make<NSMutableArray>()->addObject(nullptr), "nil cannot be an element");
    EXPECT_TRAP((void)numbers({1})->arrayByAddingObject(nullptr), "nil cannot be an element");
}

TEST(NSArray, SearchesByEquality) {
    const auto array = NSArray::array({NSString::string("a"), NSString::string("b"), "b"_ns});
    EXPECT_TRUE(array->containsObject("b"_ns));
    EXPECT_FALSE(array->containsObject("c"_ns));
    EXPECT_EQ(array->indexOfObject("b"_ns), 1U);
    EXPECT_EQ(array->indexOfObject("c"_ns), NSNotFound);
    EXPECT_EQ(array->indexOfObjectIdenticalTo("b"_ns), 2U);
    EXPECT_EQ(array->indexOfObjectIdenticalTo("a"_ns), NSNotFound);
}

TEST(NSArray, DerivesArrays) {
    const auto array = numbers({1, 2, 3});
    EXPECT_EQ(joined(*array->arrayByAddingObject("x"_ns)), "1,2,3,x");
    EXPECT_EQ(joined(*array->arrayByAddingObjectsFromArray(*numbers({4}))), "1,2,3,4");
    EXPECT_EQ(joined(*array->subarrayWithRange({1, 2})), "2,3");
    EXPECT_EQ(joined(*array->reversedArray()), "3,2,1");
    EXPECT_EQ(joined(*array), "1,2,3");
}

TEST(NSArray, SortsByAComparator) {
    EXPECT_EQ(joined(*numbers({3, 1, 2, 5, 4})->sortedArrayUsingComparator(compareNumbers)),
              "1,2,3,4,5");
    EXPECT_EQ(joined(*NSArray::array()->sortedArrayUsingComparator(compareNumbers)), "");
}

TEST(NSArray, SortsStably) {
    const auto byLength = [](const NSObject& a, const NSObject& b) {
        return NSNumber::number(objectCast<NSString>(&a)->length())
            ->compare(*NSNumber::number(objectCast<NSString>(&b)->length()));
    };
    const auto words = "dd a ccc b aa eee c bb d"_ns.componentsSeparatedByString(" "_ns);
    EXPECT_EQ(joined(*words->sortedArrayUsingComparator(byLength)), "a,b,c,d,dd,aa,bb,ccc,eee");
}

TEST(NSArray, ASenselessComparatorLosesNothing) {
    const auto array = numbers({3, 1, 2, 5, 4, 9, 8});
    const auto sorted = array->sortedArrayUsingComparator(
        [](const NSObject&, const NSObject&) { return NSComparisonResult::ascending; });
    EXPECT_EQ(joined(*sorted->sortedArrayUsingComparator(compareNumbers)), "1,2,3,4,5,8,9");
}

TEST(NSArray, SortsByAMessage) {
    EXPECT_EQ(
        joined(*NSArray::array({"b"_ns, "c"_ns, "a"_ns})->sortedArrayUsingSelector("compare:"_sel)),
        "a,b,c");
}

TEST(NSArray, EnumeratesInOrder) {
    std::string seen;
    numbers({7, 8})->enumerateObjects([&](NSObject& element, NSUInteger index) {
        seen += std::to_string(index) + "=" + test::description(element) + " ";
    });
    EXPECT_EQ(seen, "0=7 1=8 ");
    seen.clear();
    const auto array = numbers({7, 8});
    for (const id& element : *array) {
        seen += test::description(element);
    }
    EXPECT_EQ(seen, "78");
}

void addWhileEnumerating() {
    const auto array = NSMutableArray::array({"a"_ns, "b"_ns});
    for (const id& element : *array) {
        array->addObject(element);
    }
}

TEST(NSMutableArray, ChangingItWhileItIsEnumeratedTraps) {
    EXPECT_TRAP(addWhileEnumerating(), "NSArray: the array was changed while it was enumerated");
}

TEST(NSMutableArray, ChangingItAndLeavingTheLoopIsAllowed) {
    const auto array = NSMutableArray::array({"a"_ns, "b"_ns});
    for (const id& element : *array) {
        array->removeObject(*element);
        break;
    }
    EXPECT_EQ(joined(*array), "b");
}

TEST(NSArray, JoinsDescriptions) {
    EXPECT_EQ(joined(*NSArray::array({"né"_ns, NSNumber::number(1), NSNull::null()})),
              "né,1,<null>");
}

TEST(NSArray, EqualArraysAreEqualAndHashAlike) {
    const auto array = numbers({1, 2});
    const auto same = NSMutableArray::array({NSNumber::number(1.0), NSNumber::number(2L)});
    EXPECT_TRUE(array->isEqual(same.get()));
    EXPECT_EQ(array->hash(), same->hash());
    EXPECT_FALSE(array->isEqual(numbers({2, 1}).get()));
    EXPECT_FALSE(array->isEqual(numbers({1}).get()));
    EXPECT_FALSE(array->isEqual("1"_ns.copy().get()));
    EXPECT_NE(array->hash(), numbers({2, 1})->hash());
}

TEST(NSArray, DescriptionHasOneElementALine) {
    EXPECT_EQ(test::description(numbers({1, 2})), "(\n    1,\n    2\n)");
    EXPECT_EQ(test::description(NSArray::array({numbers({1}), "x"_ns})),
              "(\n    (\n        1\n    ),\n    x\n)");
    EXPECT_EQ(test::description(NSArray::array()), "(\n)");
}

TEST(NSArray, KeyValueCodingMapsTheElements) {
    const auto words = NSArray::array({"ab"_ns, "c"_ns});
    EXPECT_EQ(joined(*objectCast<NSArray>(words->valueForKey("length"_ns))), "2,1");
    const auto rows = NSArray::array(
        {NSDictionary::dictionaryWithObjectForKey("x"_ns, "k"_ns), NSDictionary::dictionary()});
    EXPECT_EQ(joined(*objectCast<NSArray>(rows->valueForKey("k"_ns))), "x,<null>");
}

TEST(NSArray, KeyValueCodingSetsEachElement) {
    const auto first = make<NSMutableDictionary>();
    const auto second = make<NSMutableDictionary>();
    NSArray::array({first, second})->setValueForKey("v"_ns, "k"_ns);
    EXPECT_EQ(test::description(first->objectForKey("k"_ns)), "v");
    EXPECT_EQ(test::description(second->objectForKey("k"_ns)), "v");
}

TEST(NSMutableArray, Changes) {
    const auto array = NSMutableArray::arrayWithCapacity(2);
    array->addObject("b"_ns);
    array->insertObjectAtIndex("a"_ns, 0);
    array->insertObjectAtIndex("c"_ns, 2);
    EXPECT_EQ(joined(*array), "a,b,c");
    array->replaceObjectAtIndex(1, "x"_ns);
    array->exchangeObjects(0, 2);
    EXPECT_EQ(joined(*array), "c,x,a");
    array->removeObjectAtIndex(1);
    array->removeLastObject();
    EXPECT_EQ(joined(*array), "c");
    array->addObjectsFromArray(*NSArray::array({"b"_ns, "c"_ns, "a"_ns}));
    array->removeObject(*NSString::string("c"));
    EXPECT_EQ(joined(*array), "b,a");
    array->setArray(*numbers({3, 1, 2}));
    array->sortUsingComparator(compareNumbers);
    EXPECT_EQ(joined(*array), "1,2,3");
    array->removeObjectsInRange({1, 2});
    EXPECT_EQ(joined(*array), "1");
    array->removeAllObjects();
    array->removeLastObject();
    EXPECT_EQ(array->count(), 0U);
}

TEST(NSMutableArray, TakesItselfAsAnArgument) {
    const auto array = NSMutableArray::array({"a"_ns, "b"_ns});
    array->addObjectsFromArray(*array);
    array->setArray(*array);
    EXPECT_EQ(joined(*array), "a,b,a,b");
}

TEST(NSMutableArray, RemovesAnElementThatItAloneOwns) {
    const auto array = NSMutableArray::array({NSString::string("é"), NSString::string("é")});
    array->removeObject(*(*array)[0]);
    EXPECT_EQ(array->count(), 0U);
}

TEST(NSMutableArray, IndexesOutOfBoundsTrap) {
    const auto array = NSMutableArray::array({"a"_ns});
    EXPECT_TRAP(array->removeObjectAtIndex(1), "NSMutableArray: index out of bounds");
    EXPECT_TRAP(array->replaceObjectAtIndex(1, "x"_ns), "NSMutableArray: index out of bounds");
    EXPECT_TRAP(array->exchangeObjects(0, 1), "NSMutableArray: index out of bounds");
    EXPECT_TRAP(array->insertObjectAtIndex("x"_ns, 2), "range out of bounds");
}

/// Looks at its array when it goes.
class Farewell : public NSObject {
public:
    Farewell(NSMutableArray& array, NSUInteger& seen) : array_(array), seen_(seen) {}

private:
    ~Farewell() override { seen_ = array_.count(); }
    NSMutableArray& array_;
    NSUInteger& seen_;
};

TEST(NSMutableArray, IsInOrderWhenARemovedElementGoes) {
    const auto array = make<NSMutableArray>();
    NSUInteger seen = 99;
    array->addObject(make<Farewell>(*array, seen));
    array->removeObjectAtIndex(0);
    EXPECT_EQ(seen, 0U);
    array->addObject(make<Farewell>(*array, seen));
    array->replaceObjectAtIndex(0, "x"_ns);
    EXPECT_EQ(seen, 1U);
    array->addObject(make<Farewell>(*array, seen));
    array->removeAllObjects();
    EXPECT_EQ(seen, 0U);
}

TEST(NSMutableArray, CopiesAreIndependentAndImmutable) {
    const auto array = NSMutableArray::array({"a"_ns});
    const auto copied = objectCast<NSArray>(array->copy());
    const auto mutableCopied = objectCast<NSMutableArray>(array->mutableCopy());
    array->addObject("b"_ns);
    EXPECT_EQ(joined(*copied), "a");
    EXPECT_EQ(joined(*mutableCopied), "a");
    EXPECT_EQ(copied->copy(), copied);
    EXPECT_TRUE(array->isKindOfClass(NSArray::classObject()));
    EXPECT_FALSE(copied->isKindOfClass(NSMutableArray::classObject()));
}

TEST(NSArray, AnswersMessages) {
    const auto array = numbers({1, 2});
    EXPECT_EQ(send<NSUInteger>(array, "count"_sel), 2U);
    EXPECT_EQ(test::description(send<id>(array, "objectAtIndex:"_sel, NSUInteger{1})), "2");
    const id made = send<id>(NSMutableArray::classObject(), "array"_sel);
    send<void>(made, "addObject:"_sel, "x");
    EXPECT_EQ(send<NSUInteger>(made, "count"_sel), 1U);
    NSUInteger sum = 0;
    send<void>(array, "enumerateObjectsUsingBlock:"_sel,
               [&sum](NSObject& element, NSUInteger index) {
                   sum += index + objectCast<NSNumber>(&element)->unsignedIntegerValue();
               });
    EXPECT_EQ(sum, 4U);
    EXPECT_FALSE(trySend<void>(made, "addObject:"_sel, NSInteger{1}));
}

}  // namespace
}  // namespace vantorq
