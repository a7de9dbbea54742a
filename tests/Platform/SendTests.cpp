#include "VantorqFoundation/Platform/Send.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Support/Threads.h"
#include "Support/Trap.h"
#include "VantorqFoundation/VantorqFoundation.h"

namespace vantorq {
namespace {

enum class Tone : std::int16_t { low = -1, high = 1 };

class Radio : public NSObject {
    VNTQ_OBJECT(Radio, NSObject)
public:
    bool flip(bool v) const { return !v; }
    std::int8_t int8(std::int8_t v) const { return v; }
    std::uint8_t uint8(std::uint8_t v) const { return v; }
    std::int16_t int16(std::int16_t v) const { return v; }
    std::uint16_t uint16(std::uint16_t v) const { return v; }
    std::int32_t int32(std::int32_t v) const { return v; }
    std::uint32_t uint32(std::uint32_t v) const { return v; }
    std::int64_t int64(std::int64_t v) const { return v; }
    std::uint64_t uint64(std::uint64_t v) const { return v; }
    float single(float v) const { return v; }
    double twofold(double v) const { return v; }
    Tone tone(Tone v) const { return v; }
    Selector selector(Selector v) const { return v; }
    NSRange range(NSRange v) const { return v; }
    void* pointer(void* v) const { return v; }
    void store(id* place) { *place = "stored"_ns; }

    void touch() { ++touched; }
    virtual Ref<NSString> station() const { return "base"_ns; }
    NSUInteger lengthOf(const NSString& text) const { return text.length(); }
    bool isNil(const NSString* text) const { return text == nullptr; }
    Ref<NSString> echo(const Ref<NSString>& text) const { return text; }
    id any(NSObject& object) const { return id(object); }
    NSUInteger countOf(const NSArray& array) const { return array.count(); }
    id valueIn(const NSDictionary& dictionary, const NSString& key) const {
        return dictionary.objectForKey(key);
    }
    NSInteger apply(const Block<NSInteger(NSInteger)>& function, NSInteger n) const {
        return function ? function(n) : -1;
    }
    std::vector<std::string> stations() const { return {"one", "two"}; }
    std::optional<std::string> noName() const { return std::nullopt; }

    int touched = 0;

protected:
    ~Radio() override = default;
};

class PocketRadio : public Radio {
    VNTQ_OBJECT(PocketRadio, Radio)
public:
    Ref<NSString> station() const override { return "pocket"_ns; }
    /// Hides, in the tables, what the base class answers.
    NSUInteger lengthOfHalf(const NSString& text) const { return text.length() / 2; }
};

/// Has no tables: its override is found through those of its base.
class CarRadio final : public Radio {
public:
    Ref<NSString> station() const override { return "car"_ns; }
};

/// Answers a message of the same name with other types.
class Receiver : public NSObject {
    VNTQ_OBJECT(Receiver, NSObject)
public:
    Ref<NSString> station() const { return "receiver"_ns; }
    double int32(double v) const { return v; }
};

NSInteger tuned(const Radio& radio, NSInteger channel) {
    return radio.int64(channel) * 10;
}
void tuneInPlace(Radio* radio) {
    radio->touched += 100;
}
NSInteger sumOf(NSInteger a, NSInteger b) {
    return a + b;
}
Ref<NSString> nameOf(const Class& cls, const NSString& suffix) {
    return cls.description()->stringByAppendingString(suffix);
}

constexpr MethodInfo kRadioMethods[] = {
    method<&Radio::flip>("flip:"),           method<&Radio::int8>("int8:"),
    method<&Radio::uint8>("uint8:"),         method<&Radio::int16>("int16:"),
    method<&Radio::uint16>("uint16:"),       method<&Radio::int32>("int32:"),
    method<&Radio::uint32>("uint32:"),       method<&Radio::int64>("int64:"),
    method<&Radio::uint64>("uint64:"),       method<&Radio::single>("single:"),
    method<&Radio::twofold>("twofold:"),     method<&Radio::tone>("tone:"),
    method<&Radio::selector>("selector:"),   method<&Radio::range>("range:"),
    method<&Radio::pointer>("pointer:"),     method<&Radio::store>("store:"),
    method<&Radio::touch>("touch"),          method<&Radio::station>("station"),
    method<&Radio::lengthOf>("lengthOf:"),   method<&Radio::isNil>("isNil:"),
    method<&Radio::echo>("echo:"),           method<&Radio::any>("any:"),
    method<&Radio::countOf>("countOf:"),     method<&Radio::valueIn>("valueIn:forKey:"),
    method<&Radio::apply>("apply:to:"),      method<&Radio::stations>("stations"),
    method<&Radio::noName>("noName"),        method<&tuned>("tuned:"),
    method<&tuneInPlace>("tuneInPlace"),     classMethod<&sumOf>("sum:and:"),
    classMethod<&nameOf>("nameWithSuffix:"),
};
constexpr MethodInfo kPocketMethods[] = {method<&PocketRadio::lengthOfHalf>("lengthOf:")};
constexpr MethodInfo kReceiverMethods[] = {
    method<&Receiver::station>("station"),
    method<&Receiver::int32>("int32:"),
};

VNTQ_DEFINE_CLASS(Radio, {.methods = kRadioMethods})
VNTQ_DEFINE_CLASS(PocketRadio, {.methods = kPocketMethods})
VNTQ_DEFINE_CLASS(Receiver, {.methods = kReceiverMethods})

std::string stationOf(const id& receiver) {
    return send<Ref<NSString>>(receiver, "station"_sel)->utf8();
}

// Scalars.

TEST(Send, PassesScalarsOfEveryKind) {
    const auto radio = make<Radio>();
    EXPECT_TRUE(send<bool>(radio, "flip:"_sel, false));
    EXPECT_EQ(send<std::int8_t>(radio, "int8:"_sel, std::int8_t{-128}), -128);
    EXPECT_EQ(send<std::uint8_t>(radio, "uint8:"_sel, std::uint8_t{255}), 255);
    EXPECT_EQ(send<std::int16_t>(radio, "int16:"_sel, std::int16_t{-32768}), -32768);
    EXPECT_EQ(send<std::uint16_t>(radio, "uint16:"_sel, std::uint16_t{65535}), 65535);
    EXPECT_EQ(send<std::int32_t>(radio, "int32:"_sel, INT32_MIN), INT32_MIN);
    EXPECT_EQ(send<std::uint32_t>(radio, "uint32:"_sel, UINT32_MAX), UINT32_MAX);
    EXPECT_EQ(send<NSInteger>(radio, "int64:"_sel, NSInteger{INT64_MIN}), INT64_MIN);
    EXPECT_EQ(send<NSUInteger>(radio, "uint64:"_sel, NSUInteger{UINT64_MAX}), UINT64_MAX);
    EXPECT_EQ(send<float>(radio, "single:"_sel, 0.1F), 0.1F);
    EXPECT_EQ(send<double>(radio, "twofold:"_sel, 0.1), 0.1);
    EXPECT_EQ(send<Tone>(radio, "tone:"_sel, Tone::low), Tone::low);
    EXPECT_EQ(send<Selector>(radio, "selector:"_sel, Selector("count")), Selector("count"));
    EXPECT_EQ(send<NSRange>(radio, "range:"_sel, NSRange{1, 2}), (NSRange{1, 2}));
    EXPECT_EQ(send<void*>(radio, "pointer:"_sel, static_cast<void*>(radio.get())), radio.get());
}

TEST(Send, FillsAPlaceForAnObject) {
    id place;
    send<void>(make<Radio>(), "store:"_sel, &place);
    EXPECT_EQ(unbridge<std::string>(place), "stored");
}

// Receivers and methods.

TEST(Send, TakesItsReceiverAsHandleReferenceOrPointer) {
    const auto radio = make<Radio>();
    send<void>(radio, "touch"_sel);
    send<void>(*radio, "touch"_sel);
    send<void>(radio.get(), "touch"_sel);
    send<void>(id(radio), "touch"_sel);
    EXPECT_EQ(radio->touched, 4);
}

TEST(Send, ToNilAnswersZero) {
    const id nil;
    EXPECT_EQ(send<id>(nil, "station"_sel), nullptr);
    EXPECT_EQ(send<NSInteger>(nil, "int64:"_sel, NSInteger{7}), 0);
    EXPECT_EQ(send<double>(nil, "twofold:"_sel, 7.0), 0.0);
    EXPECT_FALSE(send<bool>(nil, "flip:"_sel, false));
    EXPECT_EQ(send<NSRange>(nil, Selector("range:"), NSRange{1, 2}), NSRange());
    send<void>(nil, "noSuchMessage"_sel);
}

TEST(Send, ReachesAnOverrideInASubclass) {
    EXPECT_EQ(stationOf(make<Radio>()), "base");
    EXPECT_EQ(stationOf(make<PocketRadio>()), "pocket");
    EXPECT_EQ(stationOf(make<CarRadio>()), "car") << "also without tables of its own";
}

TEST(Send, ASubclassMayAnswerWithAMethodOfItsOwn) {
    EXPECT_EQ(send<NSUInteger>(make<Radio>(), "lengthOf:"_sel, "four"_ns), 4U);
    EXPECT_EQ(send<NSUInteger>(make<PocketRadio>(), "lengthOf:"_sel, "four"_ns), 2U);
}

TEST(Send, OnePlaceServesReceiversOfManyClasses) {
    const std::array<std::pair<id, const char*>, 4> receivers{{
        {make<Radio>(), "base"},
        {make<PocketRadio>(), "pocket"},
        {make<CarRadio>(), "car"},
        {make<Receiver>(), "receiver"},
    }};
    for (int round = 0; round < 3; ++round) {
        for (const auto& [receiver, expected] : receivers) {
            EXPECT_EQ(stationOf(receiver), expected);
        }
    }
}

TEST(Send, OneSelectorMayHaveOtherTypesInAnotherClass) {
    EXPECT_EQ(send<std::int32_t>(make<Radio>(), "int32:"_sel, std::int32_t{7}), 7);
    EXPECT_EQ(send<double>(make<Receiver>(), "int32:"_sel, 7.5), 7.5);
}

TEST(Send, CallsFreeFunctionsWithTheReceiverFirst) {
    const auto radio = make<Radio>();
    EXPECT_EQ(send<NSInteger>(radio, "tuned:"_sel, NSInteger{9}), 90);
    send<void>(radio, "tuneInPlace"_sel);
    EXPECT_EQ(radio->touched, 100);
}

TEST(Send, CallsClassMethodsWithAndWithoutTheReceivingClass) {
    const Class& radio = Radio::classObject();
    EXPECT_EQ(send<NSInteger>(radio, "sum:and:"_sel, NSInteger{1}, NSInteger{2}), 3);
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(send<Ref<NSString>>(radio, "nameWithSuffix:"_sel, "!"_ns)->utf8(), "Radio!");
        EXPECT_EQ(
            send<Ref<NSString>>(PocketRadio::classObject(), "nameWithSuffix:"_sel, "!"_ns)->utf8(),
            "PocketRadio!");
    }
}

TEST(Send, ARunTimeSelectorAndALiteralReachTheSameMethod) {
    const auto radio = make<Radio>();
    const std::string name = std::string("int") + "64:";
    EXPECT_EQ(send<NSInteger>(radio, Selector(name), NSInteger{5}), 5);
    EXPECT_EQ(send<NSInteger>(radio, "int64:"_sel, NSInteger{5}), 5);
}

TEST(Send, ManyThreadsMayMakeTheFirstSendAtOnce) {
    const std::array<id, 3> receivers{make<Radio>(), make<PocketRadio>(), make<CarRadio>()};
    constexpr int kThreads = 4;
    constexpr int kRounds = 200;
    std::atomic<int> right{0};
    test::together(kThreads, [&](int) {
        for (int n = 0; n < kRounds; ++n) {
            const id& receiver = receivers[static_cast<std::size_t>(n) % 3];
            right += send<bool>(receiver, "isNil:"_sel, nullptr) ? 1 : 0;
        }
    });
    EXPECT_EQ(right, kThreads * kRounds);
}

// Objects and bridged values.

TEST(Send, PassesObjectsAsHandleReferenceOrPointer) {
    const auto radio = make<Radio>();
    const auto text = NSString::string("text");
    EXPECT_EQ(send<NSUInteger>(radio, "lengthOf:"_sel, text), 4U);
    EXPECT_EQ(send<NSUInteger>(radio, "lengthOf:"_sel, *text), 4U);
    EXPECT_EQ(send<NSUInteger>(radio, "lengthOf:"_sel, text.get()), 4U);
    EXPECT_EQ(send<id>(radio, "any:"_sel, radio), radio);
}

TEST(Send, PassesNilWhereItIsAllowed) {
    const auto radio = make<Radio>();
    EXPECT_TRUE(send<bool>(radio, "isNil:"_sel, nullptr));
    EXPECT_TRUE(send<bool>(radio, "isNil:"_sel, Ref<NSString>()));
    EXPECT_EQ(send<id>(radio, "echo:"_sel, nullptr), nullptr);
    EXPECT_EQ(send<NSInteger>(radio, "apply:to:"_sel, nullptr, NSInteger{1}), -1);
}

TEST(Send, BridgesTextVectorsMapsAndOptionals) {
    const auto radio = make<Radio>();
    EXPECT_EQ(send<NSUInteger>(radio, "lengthOf:"_sel, "literal"), 7U);
    EXPECT_EQ(send<NSUInteger>(radio, "lengthOf:"_sel, std::string("text")), 4U);
    EXPECT_EQ(send<NSUInteger>(radio, "countOf:"_sel, std::vector<int>{1, 2, 3}), 3U);
    const std::map<std::string, int> ages{{"Ada", 36}};
    EXPECT_EQ(unbridge<int>(send<id>(radio, "valueIn:forKey:"_sel, ages, "Ada")), 36);
    EXPECT_TRUE(send<bool>(radio, "isNil:"_sel, std::optional<std::string>()));
    EXPECT_FALSE(send<bool>(radio, "isNil:"_sel, std::optional<std::string>("text")));
}

TEST(Send, BridgesResultsThatAreValues) {
    const auto radio = make<Radio>();
    EXPECT_EQ(unbridge<std::vector<std::string>>(send<id>(radio, "stations"_sel)),
              (std::vector<std::string>{"one", "two"}));
    EXPECT_EQ(send<id>(radio, "noName"_sel), nullptr);
}

TEST(Send, TurnsALambdaIntoABlock) {
    const auto radio = make<Radio>();
    NSInteger factor = 1;
    factor += 2;
    EXPECT_EQ(
        send<NSInteger>(
            radio, "apply:to:"_sel, [factor](NSInteger n) { return factor * n; }, NSInteger{5}),
        15);
    const Block<NSInteger(NSInteger)> block = [](NSInteger n) { return -n; };
    EXPECT_EQ(send<NSInteger>(radio, "apply:to:"_sel, block, NSInteger{5}), -5);
    EXPECT_EQ(send<NSInteger>(radio, "apply:to:"_sel, id(block), NSInteger{5}), -5);
}

TEST(Send, PassesFormatArgumentsOfAnyKind) {
    const id error = send<id>(NSError::classObject(), "vntq_errorUnspecified:"_sel,
                              "%@ is %d of %.1f %@"_ns, "one"_ns, 1, 2.5, std::string("text"));
    ASSERT_NE(objectCast<NSError>(error), nullptr);
    EXPECT_EQ(objectCast<NSError>(error)->localizedFailureReason()->utf8(), "one is 1 of 2.5 text");
}

TEST(Send, AFormatMethodNeedsNoArgumentsBesideItsFormat) {
    const id error =
        send<id>(NSError::classObject(), Selector("vntq_errorUnspecified:"), "plain"_ns);
    EXPECT_EQ(objectCast<NSError>(error)->localizedFailureReason()->utf8(), "plain");
}

// Refusals.

TEST(Send, AnUnknownSelectorTrapsWithTheNames) {
    EXPECT_TRAP(send<void>(make<Radio>(), "explode"_sel),
                "-[Radio explode]: unrecognised selector");
    EXPECT_TRAP(send<void>(make<Radio>(), Selector("explode:now:"), 1, 2),
                "-[Radio explode:now:]: unrecognised selector");
    EXPECT_TRAP(send<void>(Radio::classObject(), "touch"_sel),
                "+[Radio touch]: unrecognised selector");
}

TEST(Send, AScalarOfAnotherKindTrapsWithBothSignatures) {
    EXPECT_TRAP(send<NSInteger>(make<Radio>(), "int64:"_sel, std::int32_t{1}),
                "-[Radio int64:]: sent with the types qi, but the method has the types qq");
    EXPECT_TRAP(send<double>(make<Radio>(), Selector("int64:"), NSInteger{1}),
                "-[Radio int64:]: sent with the types dq, but the method has the types qq");
    EXPECT_TRAP(send<NSUInteger>(make<Radio>(), "uint64:"_sel, NSInteger{1}),
                "-[Radio uint64:]: sent with the types Qq, but the method has the types QQ");
}

TEST(Send, AScalarForAnObjectTraps) {
    EXPECT_TRAP(send<NSUInteger>(make<Radio>(), "lengthOf:"_sel, 4),
                "-[Radio lengthOf:]: sent with the types Qi, but the method has the types Q@");
}

TEST(Send, AnotherNumberOfArgumentsTraps) {
    EXPECT_TRAP(send<NSInteger>(make<Radio>(), "int64:"_sel),
                "-[Radio int64:]: sent with the types q, but the method has the types qq");
    EXPECT_TRAP(send<NSInteger>(make<Radio>(), "int64:"_sel, NSInteger{1}, NSInteger{2}),
                "-[Radio int64:]: sent with the types qqq, but the method has the types qq");
}

TEST(Send, AnObjectOfAnotherClassTrapsWithBothNames) {
    EXPECT_TRAP(send<NSUInteger>(make<Radio>(), "lengthOf:"_sel, make<Receiver>()),
                "an object of class Receiver was sent where NSString is required");
    EXPECT_TRAP(send<id>(make<Radio>(), "echo:"_sel, bridge(1)),
                "an object of class NSNumber was sent where NSString is required");
}

TEST(Send, NilWhereAnObjectIsRequiredTraps) {
    EXPECT_TRAP(send<NSUInteger>(make<Radio>(), "lengthOf:"_sel, nullptr),
                "nil was sent where NSString is required");
    EXPECT_TRAP(send<id>(make<Radio>(), "any:"_sel, nullptr),
                "nil was sent where an object is required");
}

TEST(Send, ABlockOfAnotherSignatureTraps) {
    EXPECT_TRAP(send<NSInteger>(
                    make<Radio>(), "apply:to:"_sel, [](double d) { return d; }, NSInteger{1}),
                "an object of class NSBlock was sent where a block of signature qq is required");
}

TEST(Send, AResultOfAnotherClassTraps) {
    EXPECT_TRAP((void)send<Ref<NSNumber>>(make<Radio>(), "station"_sel),
                "an object of class NSString was sent where NSNumber is required");
}

TEST(Send, ARefusalAfterASuccessAtTheSamePlaceTrapsToo) {
    const auto lengthOf = [](const id& argument) {
        return send<NSUInteger>(make<Radio>(), "lengthOf:"_sel, argument);
    };
    EXPECT_EQ(lengthOf("four"_ns), 4U);
    EXPECT_TRAP(lengthOf(bridge(4)),
                "an object of class NSNumber was sent where NSString is required");
}

TEST(Send, ANilFormatTraps) {
    EXPECT_TRAP(send<id>(NSError::classObject(), "vntq_errorUnspecified:"_sel, Ref<NSString>()),
                "nil was sent where NSString is required");
}

// trySend.

TEST(TrySend, AnswersWhatSendWouldAnswer) {
    const auto radio = make<Radio>();
    EXPECT_EQ(trySend<NSInteger>(radio, "int64:"_sel, NSInteger{5}), 5);
    EXPECT_EQ(trySend<Ref<NSString>>(radio, "station"_sel).value()->utf8(), "base");
    EXPECT_EQ(trySend<id>(radio, "echo:"_sel, nullptr), std::optional<id>(nullptr));
    EXPECT_TRUE(trySend<void>(radio, "touch"_sel));
    EXPECT_EQ(radio->touched, 1);
    const auto error =
        trySend<Ref<NSError>>(NSError::classObject(), "vntq_errorUnspecified:"_sel, "%d"_ns, 7);
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ((*error)->localizedFailureReason()->utf8(), "7");
}

TEST(TrySend, ToNilAnswersZero) {
    const id nil;
    EXPECT_EQ(trySend<NSInteger>(nil, "int64:"_sel, NSInteger{5}), 0);
    EXPECT_EQ(trySend<id>(nil, "noSuchMessage"_sel), std::optional<id>(nullptr));
    EXPECT_TRUE(trySend<void>(nil, "noSuchMessage"_sel));
}

TEST(TrySend, RefusesAnUnknownSelector) {
    EXPECT_EQ(trySend<id>(make<Radio>(), "explode"_sel), std::nullopt);
    EXPECT_FALSE(trySend<void>(make<Radio>(), "explode"_sel));
}

TEST(TrySend, RefusesOtherTypesAndNumbersOfArguments) {
    const auto radio = make<Radio>();
    EXPECT_EQ(trySend<NSInteger>(radio, "int64:"_sel, std::int32_t{1}), std::nullopt);
    EXPECT_EQ(trySend<NSInteger>(radio, "int64:"_sel), std::nullopt);
    EXPECT_EQ(trySend<double>(radio, "int64:"_sel, NSInteger{1}), std::nullopt);
    EXPECT_FALSE(trySend<void>(radio, "touch"_sel, 1));
    EXPECT_EQ(trySend<NSInteger>(radio, "touch"_sel), std::nullopt);
    EXPECT_EQ(radio->touched, 0) << "nothing was called";
}

TEST(TrySend, RefusesObjectsThatTheMethodRefuses) {
    const auto radio = make<Radio>();
    EXPECT_EQ(trySend<NSUInteger>(radio, "lengthOf:"_sel, bridge(1)), std::nullopt);
    EXPECT_EQ(trySend<NSUInteger>(radio, "lengthOf:"_sel, nullptr), std::nullopt);
    EXPECT_EQ(trySend<id>(radio, "any:"_sel, nullptr), std::nullopt);
    EXPECT_EQ(trySend<NSInteger>(
                  radio, "apply:to:"_sel, [](double d) { return d; }, NSInteger{1}),
              std::nullopt);
    EXPECT_EQ(trySend<id>(NSError::classObject(), "vntq_errorUnspecified:"_sel, bridge(1)),
              std::nullopt);
    EXPECT_EQ(trySend<id>(NSError::classObject(), "vntq_errorUnspecified:"_sel, nullptr),
              std::nullopt);
}

TEST(TrySend, GivesNothingForAResultOfAnotherClass) {
    EXPECT_EQ(trySend<Ref<NSNumber>>(make<Radio>(), "station"_sel), std::nullopt);
}

// perform.

TEST(Perform, UnboxesArgumentsAndBoxesTheResult) {
    const id radio = make<Radio>();
    EXPECT_EQ(unbridge<NSInteger>(perform(radio, "int64:"_sel, {bridge(5)}).value()), 5);
    EXPECT_EQ(unbridge<double>(perform(radio, "twofold:"_sel, {bridge(5)}).value()), 5.0);
    EXPECT_EQ(unbridge<bool>(perform(radio, "flip:"_sel, {bridge(true)}).value()), false);
    EXPECT_EQ(unbridge<Tone>(perform(radio, "tone:"_sel, {bridge(Tone::high)}).value()),
              Tone::high);
    EXPECT_EQ(unbridge<std::string>(perform(radio, "station"_sel).value()), "base");
    EXPECT_EQ(unbridge<NSUInteger>(perform(radio, "lengthOf:"_sel, {"four"_ns}).value()), 4U);
    const id sum = perform(id(const_cast<Class&>(Radio::classObject())), "sum:and:"_sel,
                           {bridge(1), bridge(2)})
                       .value();
    EXPECT_EQ(unbridge<NSInteger>(sum), 3);
}

TEST(Perform, AVoidResultIsNil) {
    const auto radio = make<Radio>();
    EXPECT_EQ(perform(radio, "touch"_sel), std::optional<id>(nullptr));
    EXPECT_EQ(radio->touched, 1);
}

TEST(Perform, PassesFormatArguments) {
    const auto error = perform(id(const_cast<Class&>(NSError::classObject())),
                               "vntq_errorUnspecified:"_sel, {"%@ and %d"_ns, "one"_ns, bridge(2)});
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(objectCast<NSError>(*error)->localizedFailureReason()->utf8(), "one and 2");
}

TEST(Perform, ToNilAnswersNil) {
    EXPECT_EQ(perform(nullptr, "anything:"_sel, {bridge(1)}), std::optional<id>(nullptr));
}

TEST(Perform, RefusesAnUnknownSelector) {
    EXPECT_EQ(perform(make<Radio>(), "explode"_sel), std::nullopt);
}

TEST(Perform, RefusesAnotherNumberOfArguments) {
    const auto radio = make<Radio>();
    EXPECT_EQ(perform(radio, "int64:"_sel), std::nullopt);
    EXPECT_EQ(perform(radio, "int64:"_sel, {bridge(1), bridge(2)}), std::nullopt);
    EXPECT_EQ(perform(radio, "touch"_sel, {nullptr}), std::nullopt);
    EXPECT_EQ(radio->touched, 0);
}

TEST(Perform, RefusesArgumentsOfAnotherKind) {
    const id radio = make<Radio>();
    EXPECT_EQ(perform(radio, "int64:"_sel, {"5"_ns}), std::nullopt);
    EXPECT_EQ(perform(radio, "int64:"_sel, {nullptr}), std::nullopt);
    EXPECT_EQ(perform(radio, "int8:"_sel, {bridge(300)}), std::nullopt) << "does not fit";
    EXPECT_EQ(perform(radio, "int64:"_sel, {bridge(1.5)}), std::nullopt)
        << "would lose its fraction";
    EXPECT_EQ(perform(radio, "lengthOf:"_sel, {bridge(5)}), std::nullopt);
    EXPECT_EQ(perform(radio, "lengthOf:"_sel, {nullptr}), std::nullopt);
    EXPECT_EQ(perform(radio, "selector:"_sel, {"count"_ns}), std::nullopt) << "has no boxed form";
    EXPECT_EQ(perform(id(const_cast<Class&>(NSError::classObject())), "vntq_errorUnspecified:"_sel,
                      {bridge(1)}),
              std::nullopt);
}

}  // namespace
}  // namespace vantorq
