#include "VantorqFoundation/Platform/Class.h"

#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Support/Trap.h"
#include "VantorqFoundation/VantorqFoundation.h"

namespace vantorq {
namespace {

using testing::ElementsAre;

constexpr Protocol kNamed{"Named"};
constexpr std::string_view kTitledSelectors[] = {"title"};
constexpr Protocol kTitled{"Titled", kTitledSelectors, &kNamed};

class Animal : public NSObject {
    VNTQ_OBJECT(Animal, NSObject)
public:
    NSInteger legs() const { return 4; }
    Ref<NSString> name() const { return name_; }
    void setName(const Ref<NSString>& name) { name_ = name; }
    bool isTame() const { return false; }
    static Ref<NSString> kingdom() { return "animals"_ns; }

private:
    Ref<NSString> name_;
};

class Dog : public Animal {
    VNTQ_OBJECT(Dog, Animal)
public:
    void bark() {}
    NSInteger age() const { return 3; }
    static Ref<NSString> typical(const Class& cls) { return cls.description(); }
    static NSInteger litterSize() noexcept { return 6; }
    static bool isAncestor(const Class& cls, const Class& other) noexcept {
        return cls.isSubclassOf(other);
    }

protected:
    ~Dog() override = default;
};

NSInteger ageInDogYears(const Dog& dog) noexcept {
    return dog.age() * 7;
}

/// Has no tables of its own.
class Puppy : public Dog {};

class Statue : public NSObject {
    VNTQ_OBJECT(Statue, NSObject)
public:
    explicit Statue(int weight) : weight_(weight) {}
    int weight() const { return weight_; }

private:
    int weight_;
};

class Latecomer : public NSObject {
    VNTQ_OBJECT(Latecomer, NSObject)
};

constexpr PropertyInfo kAnimalProperties[] = {
    property<&Animal::name, &Animal::setName>("name"),
    property<&Animal::legs>("legs"),
    property<&Animal::isTame>("tame", "isTame"),
    classProperty<&Animal::kingdom>("kingdom"),
};
constexpr const Protocol* kDogProtocols[] = {&kTitled};
constexpr PropertyInfo kDogProperties[] = {property<&Dog::age>("age")};
constexpr MethodInfo kDogMethods[] = {
    method<&Dog::bark>("bark"),
    classMethod<&Dog::typical>("typical"),
    classMethod<&Dog::litterSize>("litterSize"),
    classMethod<&Dog::isAncestor>("isAncestor:"),
    method<&ageInDogYears>("ageInDogYears"),
};

VNTQ_DEFINE_CLASS(Animal, {.properties = kAnimalProperties})
VNTQ_DEFINE_CLASS(Dog, {.protocols = kDogProtocols,
                        .properties = kDogProperties,
                        .methods = kDogMethods})
VNTQ_DEFINE_CLASS(Statue, {})
VNTQ_DEFINE_CLASS(Latecomer, {})

const Class& animal() {
    return Animal::classObject();
}
const Class& dog() {
    return Dog::classObject();
}

std::vector<std::string_view> namesOf(const std::vector<const PropertyInfo*>& properties) {
    std::vector<std::string_view> names;
    for (const PropertyInfo* one : properties) {
        names.push_back(one->name);
    }
    return names;
}

TEST(Class, IsOneObjectForEachTable) {
    EXPECT_EQ(&Class::of(Animal::kClass), &animal());
    EXPECT_EQ(&make<Animal>()->objectClass(), &animal());
    EXPECT_NE(&animal(), &dog());
}

TEST(Class, KnowsItsNameAndSuperclass) {
    EXPECT_EQ(dog().name(), "Dog");
    EXPECT_EQ(dog().superclass(), &animal());
    EXPECT_EQ(animal().superclass(), &NSObject::classObject());
    EXPECT_EQ(NSObject::classObject().superclass(), nullptr);
    EXPECT_EQ(dog().description()->utf8(), "Dog");
}

TEST(Class, IsASubclassOfItselfAndItsAncestorsOnly) {
    EXPECT_TRUE(dog().isSubclassOf(dog()));
    EXPECT_TRUE(dog().isSubclassOf(animal()));
    EXPECT_TRUE(dog().isSubclassOf(NSObject::classObject()));
    EXPECT_FALSE(animal().isSubclassOf(dog()));
    EXPECT_FALSE(dog().isSubclassOf(Statue::classObject()));
}

TEST(Class, ObjectsAreOfTheirClassAndItsAncestors) {
    const auto rex = make<Dog>();
    EXPECT_TRUE(rex->isKindOfClass(animal()));
    EXPECT_FALSE(rex->isKindOfClass(Statue::classObject()));
    EXPECT_TRUE(rex->isMemberOfClass(dog()));
    EXPECT_FALSE(rex->isMemberOfClass(animal()));
}

TEST(Class, ASubclassWithoutTablesBelongsToTheNearestClassThatHasSome) {
    const auto puppy = make<Puppy>();
    EXPECT_EQ(&puppy->objectClass(), &dog());
    EXPECT_TRUE(puppy->respondsToSelector("bark"_sel));
}

TEST(Class, ObjectCastGivesNilForNilAndOtherClasses) {
    const id rex = make<Dog>();
    EXPECT_EQ(objectCast<Animal>(rex), rex);
    EXPECT_EQ(objectCast<Statue>(rex), nullptr);
    EXPECT_EQ(objectCast<Dog>(id()), nullptr);
    EXPECT_EQ(objectCast<Dog>(id(make<Animal>())), nullptr);
}

TEST(Class, IsFoundByName) {
    EXPECT_EQ(Class::named("VNTQOperation"), &VNTQOperation::classObject());
    EXPECT_EQ(Class::named("NSObject"), &NSObject::classObject());
    EXPECT_EQ(Class::named("NoSuchClass"), nullptr);
    EXPECT_EQ(Class::named(""), nullptr);
}

TEST(Class, OfTheHostJoinsOnFirstUse) {
    EXPECT_EQ(Class::named("Latecomer"), nullptr);
    const Class& latecomer = make<Latecomer>()->objectClass();
    EXPECT_EQ(Class::named("Latecomer"), &latecomer);
}

TEST(Class, AClassIsAnObjectOfTheClassClass) {
    EXPECT_EQ(&dog().objectClass(), &Class::classObject());
    EXPECT_EQ(Class::classObject().name(), "Class");
    EXPECT_TRUE(dog().isKindOfClass(NSObject::classObject()));
    EXPECT_FALSE(dog().isKindOfClass(animal()));
}

TEST(Class, KnowsWhatItsInstancesAnswer) {
    EXPECT_TRUE(dog().instancesRespondToSelector("bark"_sel));
    EXPECT_TRUE(dog().instancesRespondToSelector("legs"_sel)) << "inherited";
    EXPECT_TRUE(dog().instancesRespondToSelector("setName:"_sel)) << "a property's setter";
    EXPECT_TRUE(dog().instancesRespondToSelector("isTame"_sel)) << "a property's getter";
    EXPECT_FALSE(dog().instancesRespondToSelector("tame"_sel)) << "its getter has another name";
    EXPECT_FALSE(dog().instancesRespondToSelector("setLegs:"_sel)) << "read-only";
    EXPECT_FALSE(animal().instancesRespondToSelector("bark"_sel));
    EXPECT_FALSE(dog().instancesRespondToSelector("typical"_sel)) << "a class method";
    EXPECT_FALSE(dog().instancesRespondToSelector("bark:"_sel));
}

TEST(Class, AnswersItsClassMethodsAndThoseItInherits) {
    EXPECT_TRUE(dog().respondsToSelector("typical"_sel));
    EXPECT_TRUE(dog().respondsToSelector("kingdom"_sel));
    EXPECT_TRUE(dog().respondsToSelector("alloc"_sel));
    EXPECT_TRUE(dog().respondsToSelector("name"_sel)) << "of the class that a class is of";
    EXPECT_FALSE(dog().respondsToSelector("bark"_sel));
    EXPECT_FALSE(animal().respondsToSelector("typical"_sel));
}

TEST(Class, AClassMethodLearnsWhichClassWasAsked) {
    EXPECT_EQ(send<Ref<NSString>>(dog(), "typical"_sel)->utf8(), "Dog");
}

TEST(Class, FunctionsThatAreNoexceptMayBeMethods) {
    EXPECT_EQ(send<NSInteger>(dog(), "litterSize"_sel), 6);
    EXPECT_TRUE(send<bool>(dog(), "isAncestor:"_sel, animal()));
    EXPECT_FALSE(send<bool>(dog(), "isAncestor:"_sel, Statue::classObject()));
    EXPECT_EQ(send<NSInteger>(make<Dog>(), "ageInDogYears"_sel), 21);
}

TEST(Class, AllocGivesANewInstance) {
    const id made = dog().alloc();
    ASSERT_NE(made, nullptr);
    EXPECT_TRUE(made->isMemberOfClass(dog()));
    EXPECT_EQ(made->ownerCount(), 1U);
}

TEST(Class, AllocGivesNilForAClassWithoutDefault) {
    EXPECT_EQ(Statue::classObject().alloc(), nullptr);
    EXPECT_EQ(DispatchQueue::classObject().alloc(), nullptr) << "abstract";
    EXPECT_EQ(NSNull::classObject().alloc(), nullptr) << "private constructor";
}

TEST(Class, AllocAndInitAndNewWorkByMessage) {
    const id byInit = send<id>(send<id>(dog(), "alloc"_sel), "init"_sel);
    const id byNew = send<id>(dog(), "new"_sel);
    EXPECT_TRUE(byInit->isMemberOfClass(dog()));
    EXPECT_TRUE(byNew->isMemberOfClass(dog()));
    EXPECT_NE(byInit, byNew);
}

TEST(Class, ObjectsAndClassesTellTheirClassByMessage) {
    EXPECT_EQ(send<id>(make<Dog>(), "class"_sel), &dog());
    EXPECT_EQ(send<id>(make<Dog>(), "superclass"_sel), &animal());
    EXPECT_EQ(send<id>(dog(), "class"_sel), &dog());
    EXPECT_EQ(send<id>(dog(), "superclass"_sel), &animal());
    EXPECT_EQ(send<id>(NSObject::classObject(), "superclass"_sel), nullptr);
    EXPECT_EQ(send<Ref<NSString>>(dog(), "name"_sel)->utf8(), "Dog");
    EXPECT_TRUE(send<bool>(dog(), "isSubclassOfClass:"_sel, animal()));
    EXPECT_TRUE(send<bool>(make<Dog>(), "isKindOfClass:"_sel, animal()));
    EXPECT_TRUE(send<bool>(dog(), "instancesRespondToSelector:"_sel, Selector("bark")));
    EXPECT_TRUE(send<bool>(make<Dog>(), "respondsToSelector:"_sel, Selector("bark")));
}

TEST(Class, ConformsToItsProtocolsTheirBasesAndThoseItInherits) {
    EXPECT_TRUE(dog().classConformsToProtocol(kTitled));
    EXPECT_TRUE(dog().classConformsToProtocol(kNamed));
    EXPECT_FALSE(animal().classConformsToProtocol(kTitled));
    EXPECT_FALSE(dog().classConformsToProtocol(NSCopying));
    EXPECT_TRUE(make<Puppy>()->conformsToProtocol(kTitled));
    EXPECT_TRUE(NSMutableString::classObject().classConformsToProtocol(NSCopying)) << "inherited";
}

TEST(Class, ListsItsOwnPropertiesInTheOrderOfTheTable) {
    EXPECT_THAT(namesOf(animal().declaredProperties()), ElementsAre("name", "legs", "tame"));
    EXPECT_THAT(namesOf(dog().declaredProperties()), ElementsAre("age"));
    EXPECT_THAT(namesOf(VNTQResult::classObject().declaredProperties()),
                ElementsAre("type", "error", "value"));
}

TEST(Class, FindsInheritedPropertiesByName) {
    const PropertyInfo* name = dog().propertyNamed("name");
    ASSERT_NE(name, nullptr);
    EXPECT_FALSE(name->isReadOnly());
    EXPECT_FALSE(name->isScalar());
    const PropertyInfo* age = dog().propertyNamed("age");
    ASSERT_NE(age, nullptr);
    EXPECT_TRUE(age->isReadOnly());
    EXPECT_TRUE(age->isScalar());
    EXPECT_EQ(animal().propertyNamed("age"), nullptr);
    EXPECT_EQ(animal().propertyNamed("kingdom"), nullptr) << "a property of the class itself";
}

TEST(Class, ListsTheCategoriesThatExtendItself) {
    EXPECT_THAT(NSError::classObject().categoryNames(), ElementsAre("VNTQFoundation"));
    EXPECT_THAT(VNTQResult::classObject().categoryNames(), ElementsAre("VNTQResultStandard"));
    EXPECT_THAT(dog().categoryNames(), ElementsAre());
}

TEST(Class, ACategoryAddsToWhatItsClassAnswers) {
    EXPECT_TRUE(NSError::classObject().instancesRespondToSelector("vntq_isNetworkError"_sel));
    EXPECT_TRUE(NSError::classObject().respondsToSelector("vntq_error:userInfo:"_sel));
    EXPECT_TRUE(VNTQResult::classObject().respondsToSelector("success"_sel));
}

TEST(NSObject, EqualityAndHashAreThoseOfIdentity) {
    const auto a = make<NSObject>();
    const auto b = make<NSObject>();
    EXPECT_TRUE(a->isEqual(a.get()));
    EXPECT_FALSE(a->isEqual(b.get()));
    EXPECT_FALSE(a->isEqual(nullptr));
    EXPECT_EQ(a->hash(), a->hash());
    EXPECT_NE(a->hash(), b->hash());
    EXPECT_TRUE(isEqual(static_cast<NSObject*>(nullptr), nullptr));
    EXPECT_FALSE(isEqual(a.get(), nullptr));
}

TEST(NSObject, DescribesItselfByClassAndAddress) {
    const auto rex = make<Dog>();
    const std::string expected =
        (testing::Message() << "<Dog: " << static_cast<const void*>(rex.get()) << ">").GetString();
    EXPECT_EQ(rex->description()->utf8(), expected);
    EXPECT_EQ(rex->debugDescription()->utf8(), expected);
}

TEST(NSObject, CopyingWithoutAdoptingItTrapsWithTheNames) {
    EXPECT_TRAP((void)make<Dog>()->copy(),
                "-[Dog copyWithZone:]: the class does not adopt NSCopying");
    EXPECT_TRAP((void)make<Dog>()->mutableCopy(),
                "-[Dog mutableCopyWithZone:]: the class does not adopt NSMutableCopying");
}

}  // namespace
}  // namespace vantorq
