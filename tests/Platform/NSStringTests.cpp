#include "VantorqFoundation/Platform/NSString.h"

#include <clocale>

#include <gtest/gtest.h>

#include "Support/Print.h"
#include "Support/Trap.h"
#include "VantorqFoundation/Platform/NSArray.h"
#include "VantorqFoundation/Platform/NSData.h"
#include "VantorqFoundation/Platform/NSNumber.h"
#include "VantorqFoundation/Platform/Send.h"

namespace vantorq {
namespace {

using test::text;

Ref<NSString> str(std::string_view utf8) {
    return NSString::string(utf8);
}
Ref<NSMutableString> mutableStr(std::string_view utf8) {
    return make<NSMutableString>(*NSString::string(utf8));
}

TEST(NSString, CountsUtf16Units) {
    EXPECT_EQ(str("abc")->length(), 3U);
    EXPECT_EQ(str("é")->length(), 1U);
    EXPECT_EQ(str("😀")->length(), 2U);
    EXPECT_EQ(str("😀")->characterAtIndex(0), 0xD83D);
    EXPECT_EQ(str("😀")->characterAtIndex(1), 0xDE00);
}

TEST(NSString, Utf8GoesInAndOut) {
    for (const char* utf8 :
         {"", "a", "plain ASCII, longer than eight bytes", "naïve", "日本語 😀"}) {
        EXPECT_EQ(str(utf8)->utf8(), utf8);
        EXPECT_EQ(text(NSString::stringWithUTF8(utf8)), utf8);
    }
}

TEST(NSString, NulIsACharacter) {
    EXPECT_EQ(str(std::string_view("a\0b", 3))->length(), 3U);
    EXPECT_EQ(str(std::string_view("a\0b", 3))->utf8(), std::string("a\0b", 3));
}

TEST(NSString, NonAsciiIsFoundAtEveryOffset) {
    for (std::size_t at = 0; at < 20; ++at) {
        std::string utf8(20, 'x');
        utf8.insert(at, "é");
        EXPECT_EQ(str(utf8)->length(), 21U) << at;
        EXPECT_EQ(str(utf8)->characterAtIndex(at), u'é') << at;
    }
}

TEST(NSString, AsciiIsKeptInOneByteAndTheRestInTwo) {
    EXPECT_EQ(str("abc")->asciiView(), "abc");
    EXPECT_FALSE(str("abc")->utf16View());
    EXPECT_EQ(str("é")->utf16View(), u"é");
    EXPECT_FALSE(str("é")->asciiView());
    EXPECT_EQ(NSString::string(u"abc")->asciiView(), "abc");
    EXPECT_EQ(str("aé")->substringToIndex(1)->asciiView(), "a");
}

TEST(NSString, TheEmptyStringIsShared) {
    EXPECT_EQ(str(""), NSString::string(u""));
    EXPECT_EQ(str("abc")->substringToIndex(0), str(""));
}

TEST(NSString, StrictConversionRefusesIllFormedUtf8) {
    for (const char* utf8 : {"\xFF", "a\xC3", "\xC0\x80", "\xED\xA0\x80", "\xF4\x90\x80\x80"}) {
        EXPECT_EQ(NSString::stringWithUTF8(utf8), nullptr);
    }
}

TEST(NSString, LenientConversionReplacesEachMaximalSubpart) {
    EXPECT_EQ(str("\xC0\xAF\xE0\x80\xBF\xF0\x81\x82\x41")->utf16(),
              u"\xFFFD\xFFFD\xFFFD\xFFFD\xFFFD\xFFFD\xFFFD\xFFFD"
              u"A");
    EXPECT_EQ(str("\xE1\x80\xE2\xF0\x91\x92\xF1\xBF\x41")->utf16(),
              u"\xFFFD\xFFFD\xFFFD\xFFFD"
              u"A");
}

TEST(NSString, UnpairedSurrogatesStayAndBecomeU_FFFD_InUtf8) {
    const char16_t lone[] = {u'a', 0xD800, u'b'};
    const auto string = NSString::string(std::u16string_view(lone, 3));
    EXPECT_EQ(string->length(), 3U);
    EXPECT_EQ(string->characterAtIndex(1), 0xD800);
    EXPECT_EQ(string->utf8(),
              "a\xEF\xBF\xBD"
              "b");
}

TEST(NSString, LiteralsAreConstants) {
    EXPECT_EQ(&"abc"_ns, &"abc"_ns);
    EXPECT_EQ("naïve 😀"_ns.utf8(), "naïve 😀");
    EXPECT_TRUE("naïve 😀"_ns.isEqual(str("naïve 😀").get()));
    EXPECT_TRUE("abc"_ns.isMemberOfClass(NSString::classObject()));
}

TEST(NSString, CharacterIndexOutOfBoundsTraps) {
    EXPECT_TRAP((void)str("abc")->characterAtIndex(3), "NSString: character index out of bounds");
}

TEST(NSString, RangesOutOfBoundsTrap) {
    EXPECT_TRAP((void)str("abc")->substringFromIndex(4), "NSString: range out of bounds");
    EXPECT_TRAP((void)str("abc")->substringToIndex(4), "NSString: range out of bounds");
    EXPECT_TRAP((void)str("abc")->substringWithRange({2, UINT64_MAX}), "out of bounds");
    EXPECT_TRAP((void)str("abc")->rangeOfString("a"_ns, 4), "out of bounds");
    EXPECT_TRAP(mutableStr("abc")->deleteCharactersInRange({1, 3}), "out of bounds");
    EXPECT_TRAP(mutableStr("abc")->insertString("x"_ns, 4), "out of bounds");
}

TEST(NSString, GetCharactersCopiesUnits) {
    std::array<char16_t, 3> units{};
    str("xabcx")->getCharacters(units, {1, 3});
    EXPECT_EQ(std::u16string_view(units.data(), 3), u"abc");
    EXPECT_TRAP(str("abcd")->getCharacters(units, {0, 4}), "buffer is smaller");
}

TEST(NSString, EqualityIsByContentWhateverTheStorage) {
    EXPECT_TRUE(str("abc")->isEqual(mutableStr("abc").get()));
    EXPECT_TRUE(mutableStr("abc")->isEqual(str("abc").get()));
    EXPECT_TRUE(str("é")->isEqual(mutableStr("é").get()));
    EXPECT_FALSE(str("abc")->isEqual(str("abd").get()));
    EXPECT_FALSE(str("abc")->isEqual(str("ab").get()));
    EXPECT_FALSE(str("1")->isEqual(NSNumber::number(1).get()));
    EXPECT_FALSE(str("abc")->isEqual(nullptr));
    EXPECT_FALSE(str("abc")->isEqualToString(nullptr));
}

TEST(NSString, EqualStringsHashAlike) {
    for (const char* utf8 : {"", "a", "abcdefghijklmnopqrstuvwxyz", "naïve"}) {
        EXPECT_EQ(str(utf8)->hash(), mutableStr(utf8)->hash()) << utf8;
    }
    EXPECT_EQ(str("abc")->hash(), "abc"_ns.hash());
    EXPECT_NE(str("abc")->hash(), str("abd")->hash());
}

TEST(NSString, HashOfMutableTextFollowsTheText) {
    const auto string = mutableStr("ab");
    EXPECT_EQ(string->hash(), str("ab")->hash());
    string->appendString("c"_ns);
    EXPECT_EQ(string->hash(), str("abc")->hash());
}

TEST(NSString, ComparesByUnits) {
    EXPECT_EQ(str("a")->compare("b"_ns), NSComparisonResult::ascending);
    EXPECT_EQ(str("b")->compare("a"_ns), NSComparisonResult::descending);
    EXPECT_EQ(str("a")->compare("ab"_ns), NSComparisonResult::ascending);
    EXPECT_EQ(str("Z")->compare("a"_ns), NSComparisonResult::ascending);
    EXPECT_EQ(str("z")->compare("é"_ns), NSComparisonResult::ascending);
    EXPECT_EQ(str("é")->compare(*mutableStr("é")), NSComparisonResult::same);
}

TEST(NSString, CaseInsensitiveComparisonFoldsAsciiOnly) {
    EXPECT_EQ(str("HeLLo")->caseInsensitiveCompare("hEllO"_ns), NSComparisonResult::same);
    EXPECT_EQ(str("É")->caseInsensitiveCompare("é"_ns), NSComparisonResult::ascending);
    EXPECT_EQ(str("[")->caseInsensitiveCompare("{"_ns), NSComparisonResult::ascending);
}

TEST(NSString, FindsPrefixSuffixAndParts) {
    EXPECT_TRUE(str("foobar")->hasPrefix("foo"_ns));
    EXPECT_FALSE(str("foobar")->hasPrefix("bar"_ns));
    EXPECT_TRUE(str("foobar")->hasSuffix("bar"_ns));
    EXPECT_FALSE(str("ar")->hasSuffix("bar"_ns));
    EXPECT_TRUE(str("foobar")->containsString("oba"_ns));
    EXPECT_TRUE(str("naïve")->containsString("ve"_ns));
    EXPECT_FALSE(str("naive")->containsString("ï"_ns));
    EXPECT_TRUE(mutableStr("naive")->containsString("iv"_ns));
}

TEST(NSString, TheEmptyTextIsFoundNowhereButBeginsAndEndsEverything) {
    EXPECT_FALSE(str("abc")->containsString(""_ns));
    EXPECT_TRUE(str("abc")->hasPrefix(""_ns));
    EXPECT_TRUE(str("")->hasSuffix(""_ns));
}

TEST(NSString, RangeOfStringStartsWhereAsked) {
    EXPECT_EQ(str("abab")->rangeOfString("ab"_ns), (NSRange{0, 2}));
    EXPECT_EQ(str("abab")->rangeOfString("ab"_ns, 1), (NSRange{2, 2}));
    EXPECT_EQ(str("éab")->rangeOfString("ab"_ns, 1), (NSRange{1, 2}));
    EXPECT_EQ(str("abab")->rangeOfString("ab"_ns, 3), (NSRange{NSNotFound, 0}));
    EXPECT_EQ(str("abab")->rangeOfString("ab"_ns, 4), (NSRange{NSNotFound, 0}));
}

TEST(NSString, Substrings) {
    EXPECT_EQ(text(str("foobar")->substringFromIndex(3)), "bar");
    EXPECT_EQ(text(str("foobar")->substringToIndex(3)), "foo");
    EXPECT_EQ(text(str("日本語")->substringWithRange({1, 1})), "本");
    EXPECT_EQ(text(str("abc")->substringFromIndex(3)), "");
}

TEST(NSString, TheWholeOfImmutableTextIsTheTextItself) {
    const auto string = str("abc");
    EXPECT_EQ(string->substringFromIndex(0), string);
    EXPECT_EQ(string->copy(), string);
    EXPECT_EQ(string->description(), string);
    EXPECT_EQ(string->stringByTrimmingWhitespace(), string);
    EXPECT_EQ(string->lowercaseString(), string);
    EXPECT_EQ(string->stringByAppendingString(""_ns), string);
}

TEST(NSString, Appending) {
    EXPECT_EQ(text(str("foo")->stringByAppendingString("bar"_ns)), "foobar");
    EXPECT_EQ(text(str("na")->stringByAppendingString("ïve"_ns)), "naïve");
    EXPECT_EQ(text(str("né")->stringByAppendingString("e"_ns)), "née");
    EXPECT_EQ(mutableStr("a")->stringByAppendingString(*mutableStr("b"))->asciiView(), "ab");
    EXPECT_EQ(text(str("n")->stringByAppendingFormat("=%d"_ns, 3)), "n=3");
}

TEST(NSString, ReplacesEveryOccurrenceWithoutOverlap) {
    const auto replaced = [](std::string_view whole, std::string_view a, std::string_view b) {
        return text(str(whole)->stringByReplacingOccurrencesOfString(*str(a), *str(b)));
    };
    EXPECT_EQ(replaced("aaaa", "aa", "b"), "bb");
    EXPECT_EQ(replaced("a-b-c", "-", ""), "abc");
    EXPECT_EQ(replaced("a-b", "-", "–"), "a–b");
    EXPECT_EQ(replaced("a–b", "–", "-"), "a-b");
    EXPECT_EQ(replaced("abc", "x", "y"), "abc");
    EXPECT_EQ(replaced("abc", "", "y"), "abc");
}

TEST(NSString, Components) {
    const auto joined = [](std::string_view whole, std::string_view separator) {
        return text(str(whole)
                        ->componentsSeparatedByString(*str(separator))
                        ->componentsJoinedByString("|"_ns));
    };
    EXPECT_EQ(joined("a,b,c", ","), "a|b|c");
    EXPECT_EQ(joined(",a,", ","), "|a|");
    EXPECT_EQ(joined("abc", ","), "abc");
    EXPECT_EQ(joined("abc", ""), "abc");
    EXPECT_EQ(str("")->componentsSeparatedByString(","_ns)->count(), 1U);
}

TEST(NSString, CaseMappingIsThatOfTheRootLocale) {
    EXPECT_EQ(text(str("Hello I")->lowercaseString()), "hello i");
    EXPECT_EQ(text(str("hello i")->uppercaseString()), "HELLO I");
    EXPECT_EQ(text(str("straße")->uppercaseString()), "STRASSE");
    EXPECT_EQ(text(str("ÅÉ")->lowercaseString()), "åé");
    // Longer than the text it is made from.
    EXPECT_EQ(str("\u0390\u0390")->uppercaseString()->utf16(),
              u"\u0399\u0308\u0301\u0399\u0308\u0301");
}

TEST(NSString, TrimsWhitespaceAndLineEnds) {
    EXPECT_EQ(text(str(" \t\r\n a b \u0085\u00A0")->stringByTrimmingWhitespace()), "a b");
    EXPECT_EQ(text(str(" \n ")->stringByTrimmingWhitespace()), "");
}

TEST(NSString, DataIsUtf8) {
    EXPECT_TRUE(str("é")->dataUsingUTF8()->isEqual(NSData::dataWithBytes("\xC3\xA9").get()));
}

TEST(NSString, IntegerValueReadsTheStart) {
    EXPECT_EQ(str("42")->integerValue(), 42);
    EXPECT_EQ(str(" \n-42abc")->integerValue(), -42);
    EXPECT_EQ(str("+7")->integerValue(), 7);
    EXPECT_EQ(str("abc")->integerValue(), 0);
    EXPECT_EQ(str("--7")->integerValue(), 0);
    EXPECT_EQ(str("")->integerValue(), 0);
    EXPECT_EQ(str("7é")->integerValue(), 7);
}

TEST(NSString, IntegerValueSaturates) {
    EXPECT_EQ(str("9223372036854775807")->integerValue(), INT64_MAX);
    EXPECT_EQ(str("9223372036854775808")->integerValue(), INT64_MAX);
    EXPECT_EQ(str("-9223372036854775808")->integerValue(), INT64_MIN);
    EXPECT_EQ(str("-99999999999999999999")->integerValue(), INT64_MIN);
}

TEST(NSString, DoubleValueReadsTheStart) {
    EXPECT_EQ(str("3.25")->doubleValue(), 3.25);
    EXPECT_EQ(str("  -1e3x")->doubleValue(), -1000);
    EXPECT_EQ(str("+.5")->doubleValue(), 0.5);
    EXPECT_EQ(str("5.")->doubleValue(), 5);
    EXPECT_EQ(str("2e")->doubleValue(), 2);
    EXPECT_EQ(str("1e999")->doubleValue(), HUGE_VAL);
    EXPECT_EQ(str("1e-999")->doubleValue(), 0);
    EXPECT_EQ(str("nan")->doubleValue(), 0);
    EXPECT_EQ(str("inf")->doubleValue(), 0);
    EXPECT_EQ(str(".")->doubleValue(), 0);
    EXPECT_EQ(str("1,5")->doubleValue(), 1);
}

TEST(NSString, BoolValueReadsTheStart) {
    for (const char* yes : {"Y", "yes", "True", "t", "1", "+01", " 7"}) {
        EXPECT_TRUE(str(yes)->boolValue()) << yes;
    }
    for (const char* no : {"", "no", "false", "0", "-00", "x1"}) {
        EXPECT_FALSE(str(no)->boolValue()) << no;
    }
}

TEST(NSMutableString, Changes) {
    const auto string = make<NSMutableString>();
    EXPECT_EQ(string->length(), 0U);
    string->appendString("world"_ns);
    string->insertString("hello "_ns, 0);
    EXPECT_EQ(text(string), "hello world");
    string->deleteCharactersInRange({5, 1});
    string->replaceCharactersInRange({0, 5}, "né"_ns);
    EXPECT_EQ(text(string), "néworld");
    string->appendFormat("-%@"_ns, 7);
    EXPECT_EQ(text(string), "néworld-7");
    string->setString("x"_ns);
    EXPECT_EQ(text(string), "x");
}

TEST(NSMutableString, TakesItselfAsAnArgument) {
    const auto string = mutableStr("ab");
    string->appendString(*string);
    string->insertString(*string, 1);
    string->replaceCharactersInRange({0, 1}, *string);
    string->setString(*string);
    EXPECT_EQ(text(string), "aababbabababbab");
}

TEST(NSMutableString, CopiesAreIndependent) {
    const auto string = mutableStr("ab");
    const id copied = string->copy();
    const id mutableCopied = string->mutableCopy();
    string->appendString("c"_ns);
    EXPECT_EQ(test::description(copied), "ab");
    EXPECT_EQ(test::description(mutableCopied), "ab");
    EXPECT_EQ(objectCast<NSMutableString>(copied), nullptr);
    EXPECT_NE(objectCast<NSMutableString>(mutableCopied), nullptr);
    EXPECT_NE(objectCast<NSMutableString>(str("a")->mutableCopy()), nullptr);
}

TEST(NSString, AnswersMessages) {
    EXPECT_EQ(send<NSUInteger>(str("abc"), "length"_sel), 3U);
    EXPECT_EQ(send<char16_t>(str("abc"), "characterAtIndex:"_sel, NSUInteger{1}), u'b');
    EXPECT_TRUE(send<bool>(str("abc"), "isEqualToString:"_sel, "abc"));
    EXPECT_EQ(test::description(send<id>(NSString::classObject(), "stringWithFormat:"_sel,
                                         "%@-%@"_ns, "a"_ns, "b"_ns)),
              "a-b");
    EXPECT_EQ(test::description(str("abc")->valueForKey("uppercaseString"_ns)), "ABC");
}

}  // namespace
}  // namespace vantorq
