#include "VantorqFoundation/Platform/NSDictionary.h"

#include <map>

#include <gtest/gtest.h>

#include "Support/Print.h"
#include "Support/Trap.h"
#include "VantorqFoundation/Platform/NSArray.h"
#include "VantorqFoundation/Platform/NSNumber.h"
#include "VantorqFoundation/Platform/Send.h"

namespace vantorq {
namespace {

using test::description;

/// A key that is no text, adopts no copying, and collides with all of its kind.
class Token : public NSObject {
public:
    explicit Token(int value) : value_(value) {}
    bool isEqual(const NSObject* other) const override {
        const auto* token = dynamic_cast<const Token*>(other);
        return token != nullptr && token->value_ == value_;
    }
    NSUInteger hash() const override { return 1; }

private:
    ~Token() override = default;
    int value_;
};

TEST(NSDictionary, FindsValuesByEqualKeys) {
    const auto dictionary =
        NSDictionary::dictionary({{"a"_ns, "1"_ns}, {NSNumber::number(2), "2"_ns}});
    EXPECT_EQ(dictionary->count(), 2U);
    EXPECT_EQ(dictionary->objectForKey(*NSString::string("a")).get(), &"1"_ns);
    EXPECT_EQ(dictionary->objectForKey(*NSNumber::number(2.0)).get(), &"2"_ns);
    EXPECT_EQ((*dictionary)["a"_ns].get(), &"1"_ns);
    EXPECT_EQ(dictionary->peekObjectForKey("a"_ns), &"1"_ns);
    EXPECT_EQ(dictionary->objectForKey("b"_ns), nullptr);
    EXPECT_EQ(dictionary->peekObjectForKey(*NSNumber::number(3)), nullptr);
}

TEST(NSDictionary, TextIsFoundWhateverItsStorageAndStaticType) {
    const auto dictionary = NSDictionary::dictionary({{"ab"_ns, "1"_ns}, {"né"_ns, "2"_ns}});
    const auto key = make<NSMutableString>("ab"_ns);
    const NSObject& object = *key;
    EXPECT_EQ(description(dictionary->objectForKey(*key)), "1");
    EXPECT_EQ(description(dictionary->objectForKey(object)), "1");
    EXPECT_EQ(description(dictionary->objectForKey(*NSString::string("né"))), "2");
}

TEST(NSDictionary, TheLastOfEqualKeysStays) {
    EXPECT_EQ(description(NSDictionary::dictionary({{"a"_ns, "1"_ns}, {"a"_ns, "2"_ns}})),
              "{\n    a = 2;\n}");
}

TEST(NSDictionary, CollidingKeysAreToldApart) {
    const auto dictionary = make<NSMutableDictionary>();
    for (int i = 0; i < 100; ++i) {
        dictionary->setObjectForKey(NSNumber::number(i), *make<Token>(i));
    }
    EXPECT_EQ(dictionary->count(), 100U);
    EXPECT_EQ(description(dictionary->objectForKey(*make<Token>(57))), "57");
    dictionary->removeObjectForKey(*make<Token>(57));
    EXPECT_EQ(dictionary->objectForKey(*make<Token>(57)), nullptr);
    EXPECT_EQ(dictionary->count(), 99U);
}

TEST(NSDictionary, CopiesKeysThatCanBeCopied) {
    const auto key = make<NSMutableString>("a"_ns);
    const auto dictionary = NSDictionary::dictionaryWithObjectForKey("1"_ns, *key);
    key->appendString("b"_ns);
    EXPECT_EQ(description(dictionary->objectForKey("a"_ns)), "1");
    EXPECT_EQ(dictionary->objectForKey(*key), nullptr);
}

TEST(NSDictionary, KeepsKeysThatCannotBeCopied) {
    const auto key = make<Token>(1);
    const auto dictionary = NSDictionary::dictionaryWithObjectForKey("1"_ns, *key);
    EXPECT_EQ(dictionary->allKeys()->firstObject(), key);
}

TEST(NSDictionary, NilTraps) {
    EXPECT_TRAP((void)NSDictionary::dictionary({{id(), "1"_ns}}), "nil cannot be a key");
    EXPECT_TRAP((void)NSDictionary::dictionary({{"a"_ns, id()}}), "nil cannot be a value");
    EXPECT_TRAP(make<NSMutableDictionary>()->setObjectForKey(nullptr, "a"_ns),
                "NSDictionary: nil cannot be a value");
    EXPECT_TRAP(send<void>(make<NSMutableDictionary>(), "setObject:forKey:"_sel, "1"_ns, nullptr),
                "NSDictionary: nil cannot be a key");
}

TEST(NSDictionary, ObjectsAndKeysMustMatchInNumber) {
    const auto objects = NSArray::array({"1"_ns, "2"_ns});
    const auto keys = NSArray::array({"a"_ns, "b"_ns});
    EXPECT_EQ(description(NSDictionary::dictionaryWithObjectsForKeys(*objects, *keys)),
              "{\n    a = 1;\n    b = 2;\n}");
    EXPECT_TRAP((void)NSDictionary::dictionaryWithObjectsForKeys(*NSArray::array(), *keys),
                "as many objects as keys");
}

TEST(NSDictionary, KeysAndValuesComeInTheSameOrder) {
    const auto dictionary =
        objectCast<NSDictionary>(bridge(std::map<std::string, int>{{"a", 1}, {"b", 2}, {"c", 3}}));
    const auto keys = dictionary->allKeys();
    const auto values = dictionary->allValues();
    ASSERT_EQ(keys->count(), 3U);
    NSUInteger index = 0;
    dictionary->enumerate([&](const id& key, const id& value) {
        EXPECT_EQ((*keys)[index], key);
        EXPECT_EQ((*values)[index], value);
        EXPECT_EQ(dictionary->objectForKey(*key), value);
        ++index;
    });
    EXPECT_EQ(index, 3U);
}

TEST(NSDictionary, FindsTheKeysOfAValue) {
    const auto dictionary = NSDictionary::dictionary({{"a"_ns, "1"_ns}, {"b"_ns, "2"_ns}});
    EXPECT_EQ(description(dictionary->allKeysForObject(*NSString::string("2"))), "(\n    b\n)");
}

TEST(NSDictionary, EqualDictionariesAreEqualAndHashAlike) {
    const auto one = NSDictionary::dictionary({{"a"_ns, "1"_ns}, {"b"_ns, NSNumber::number(2)}});
    const auto two =
        NSMutableDictionary::dictionary({{"b"_ns, NSNumber::number(2.0)}, {"a"_ns, "1"_ns}});
    EXPECT_TRUE(one->isEqual(two.get()));
    EXPECT_EQ(one->hash(), two->hash());
    two->setObjectForKey("x"_ns, "a"_ns);
    EXPECT_FALSE(one->isEqual(two.get()));
    EXPECT_NE(one->hash(), two->hash());
    EXPECT_FALSE(one->isEqual(NSDictionary::dictionary().get()));
    EXPECT_FALSE(one->isEqual(nullptr));
}

TEST(NSDictionary, DescriptionIsOrderedByKeys) {
    const auto inner = NSDictionary::dictionaryWithObjectForKey("x"_ns, "k"_ns);
    EXPECT_EQ(description(NSDictionary::dictionary({{"b"_ns, inner}, {"a"_ns, "1"_ns}})),
              "{\n    a = 1;\n    b = {\n        k = x;\n    };\n}");
    EXPECT_EQ(description(NSDictionary::dictionary()), "{\n}");
}

TEST(NSMutableDictionary, Changes) {
    const auto dictionary = NSMutableDictionary::dictionaryWithCapacity(4);
    dictionary->setObjectForKey("1"_ns, "a"_ns);
    dictionary->setObjectForKey("2"_ns, "b"_ns);
    dictionary->setObjectForKey("3"_ns, "a"_ns);
    EXPECT_EQ(description(dictionary), "{\n    a = 3;\n    b = 2;\n}");
    dictionary->removeObjectForKey("b"_ns);
    dictionary->removeObjectForKey("none"_ns);
    dictionary->addEntriesFromDictionary(*NSDictionary::dictionary({{"c"_ns, "4"_ns}}));
    dictionary->addEntriesFromDictionary(*dictionary);
    EXPECT_EQ(description(dictionary), "{\n    a = 3;\n    c = 4;\n}");
    dictionary->removeObjectsForKeys(*NSArray::array({"a"_ns, "b"_ns}));
    EXPECT_EQ(dictionary->count(), 1U);
    dictionary->setDictionary(*NSDictionary::dictionary({{"z"_ns, "9"_ns}}));
    EXPECT_EQ(description(dictionary), "{\n    z = 9;\n}");
    dictionary->removeAllObjects();
    EXPECT_EQ(dictionary->count(), 0U);
}

TEST(NSMutableDictionary, ReplacingAValueKeepsTheKey) {
    const auto key = NSString::string("a");
    const auto dictionary = NSMutableDictionary::dictionary({{key, "1"_ns}});
    dictionary->setObjectForKey("2"_ns, "a"_ns);
    EXPECT_EQ(dictionary->allKeys()->firstObject(), key);
}

void addWhileEnumerating() {
    const auto dictionary = NSMutableDictionary::dictionary({{"a"_ns, "1"_ns}});
    dictionary->enumerate(
        [&](const id&, const id& value) { dictionary->setObjectForKey(value, "b"_ns); });
}

TEST(NSMutableDictionary, ChangingItWhileItIsEnumeratedTraps) {
    EXPECT_TRAP(addWhileEnumerating(), "the dictionary was changed while it was enumerated");
}

TEST(NSMutableDictionary, LetsGoOfWhatItNoLongerHolds) {
    const auto value = NSString::string("v");
    const auto key = NSString::string("k");
    const auto dictionary = NSMutableDictionary::dictionary({{key, value}});
    EXPECT_EQ(value->ownerCount(), 2U);
    EXPECT_EQ(key->ownerCount(), 2U);
    dictionary->removeObjectForKey(*key);
    EXPECT_EQ(value->ownerCount(), 1U);
    EXPECT_EQ(key->ownerCount(), 1U);
}

TEST(NSMutableDictionary, CopiesAreIndependentAndImmutable) {
    const auto dictionary = NSMutableDictionary::dictionary({{"a"_ns, "1"_ns}});
    const auto copied = objectCast<NSDictionary>(dictionary->copy());
    const auto mutableCopied = objectCast<NSMutableDictionary>(dictionary->mutableCopy());
    dictionary->removeAllObjects();
    EXPECT_EQ(copied->count(), 1U);
    EXPECT_EQ(mutableCopied->count(), 1U);
    EXPECT_EQ(copied->copy(), copied);
    EXPECT_FALSE(copied->isKindOfClass(NSMutableDictionary::classObject()));
}

TEST(NSDictionary, KeyValueCodingReadsAndStoresEntries) {
    const auto dictionary = make<NSMutableDictionary>();
    dictionary->setValueForKey("1"_ns, "count"_ns);
    EXPECT_EQ(description(dictionary->valueForKey("count"_ns)), "1");
    dictionary->setValueForKey(nullptr, "count"_ns);
    EXPECT_EQ(dictionary->valueForKey("count"_ns), nullptr);
    dictionary->setValueForKey(make<NSMutableDictionary>(), "in"_ns);
    dictionary->setValueForKeyPath("2"_ns, "in.x"_ns);
    EXPECT_EQ(description(dictionary->valueForKeyPath("in.x"_ns)), "2");
}

TEST(NSDictionary, AnswersMessages) {
    const id made = send<id>(NSMutableDictionary::classObject(), "dictionary"_sel);
    send<void>(made, "setObject:forKey:"_sel, "1", "a");
    EXPECT_EQ(send<NSUInteger>(made, "count"_sel), 1U);
    EXPECT_EQ(description(send<id>(made, "objectForKey:"_sel, "a")), "1");
    EXPECT_EQ(send<id>(made, "objectForKey:"_sel, nullptr), nullptr);
    std::string seen;
    send<void>(
        made, "enumerateKeysAndObjectsUsingBlock:"_sel,
        [&seen](NSObject& key, NSObject& value) { seen += description(key) + description(value); });
    EXPECT_EQ(seen, "a1");
}

}  // namespace
}  // namespace vantorq
