#include "VantorqFoundation/Platform/KeyPath.h"

#include <map>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <unordered_set>

#include <gtest/gtest.h>

namespace vantorq {
namespace {

struct Address {
    std::string street;
    std::string city;
    bool operator==(const Address&) const = default;
};

struct Person {
    std::string name;
    Address home;
    Address work;
    const int born = 1815;
    int length() const { return static_cast<int>(name.size()); }
};

constexpr auto kName = keyPath<&Person::name>();
constexpr auto kHome = keyPath<&Person::home>();
constexpr auto kHomeStreet = keyPath<&Person::home, &Address::street>();
constexpr auto kWorkStreet = keyPath<&Person::work, &Address::street>();
constexpr auto kLength = keyPath<&Person::length>();

Person ada() {
    return {"Ada", {"St James's Square", "London"}, {"Dorset Street", "London"}};
}

TEST(KeyPath, LeadsThroughItsMembers) {
    const Person person = ada();
    EXPECT_EQ(kName(person), "Ada");
    EXPECT_EQ(kHome(person), person.home);
    EXPECT_EQ(kHomeStreet(person), "St James's Square");
    EXPECT_EQ(kWorkStreet(person), "Dorset Street");
}

TEST(KeyPath, WritesWhatItLeadsTo) {
    Person person = ada();
    kWorkStreet.in(person) = "Baker Street";
    kName.in(person) += " Lovelace";
    EXPECT_EQ(person.work.street, "Baker Street");
    EXPECT_EQ(person.home.street, "St James's Square");
    EXPECT_EQ(person.name, "Ada Lovelace");
}

TEST(KeyPath, FunctionsAndConstantsAreReadOnly) {
    const Person person = ada();
    EXPECT_EQ(kLength(person), 3);
    EXPECT_EQ((keyPath<&Person::name, &std::string::size>()(person)), 3U);
    EXPECT_EQ(keyPath<&Person::born>()(person), 1815);
    static_assert(std::is_same_v<decltype(kLength), const KeyPath<Person, int>>);
    static_assert(std::is_same_v<decltype(keyPath<&Person::born>()), KeyPath<Person, int>>);
    static_assert(std::is_same_v<decltype(kName), const WritableKeyPath<Person, std::string>>);
}

TEST(KeyPath, IsEqualToTheSameChainOnly) {
    EXPECT_EQ(kHomeStreet, (keyPath<&Person::home, &Address::street>()));
    EXPECT_NE(kHomeStreet, kWorkStreet);
    EXPECT_NE(kHomeStreet, (keyPath<&Person::home, &Address::city>()));
    const PartialKeyPath<Person> street = kHomeStreet;
    const PartialKeyPath<Person> home = kHome;
    EXPECT_NE(street, home);
    EXPECT_EQ(street, PartialKeyPath<Person>(keyPath<&Person::home, &Address::street>()));
}

TEST(KeyPath, EqualPathsHashAlike) {
    const PartialKeyPath<Person> one = kHomeStreet;
    const PartialKeyPath<Person> two = keyPath<&Person::home, &Address::street>();
    EXPECT_EQ(one.hash(), two.hash());
    EXPECT_EQ(std::hash<PartialKeyPath<Person>>()(one), one.hash());
}

TEST(KeyPath, IsAKeyWhateverItLeadsTo) {
    std::unordered_map<PartialKeyPath<Person>, int> calls;
    calls[kName] = 1;
    calls[kHomeStreet] = 2;
    calls[kLength] = 3;
    calls[keyPath<&Person::name>()] = 4;
    EXPECT_EQ(calls.size(), 3U);
    EXPECT_EQ(calls.at(kName), 4);
    EXPECT_FALSE(calls.contains(kWorkStreet));
}

struct Employee : Person {
    int room = 0;
};

TEST(KeyPath, OneOfABaseClassIsOneOfTheDerivedClassToo) {
    const PartialKeyPath<Employee> inherited = keyPath<&Employee::name>();
    const PartialKeyPath<Employee> own = keyPath<&Employee::room>();
    EXPECT_EQ(inherited, PartialKeyPath<Employee>(kName));
    EXPECT_NE(inherited, own);
    Employee employee;
    kName.in(employee) = "Ada";
    EXPECT_EQ(employee.name, "Ada");
}

TEST(KeyPath, IsOnePointer) {
    EXPECT_EQ(sizeof(kHomeStreet), sizeof(void*));
    EXPECT_EQ(sizeof(PartialKeyPath<Person>), sizeof(void*));
}

}  // namespace
}  // namespace vantorq
