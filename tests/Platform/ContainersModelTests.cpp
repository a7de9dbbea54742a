#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include "Support/Print.h"
#include "VantorqFoundation/Platform/NSArray.h"
#include "VantorqFoundation/Platform/NSDictionary.h"
#include "VantorqFoundation/Platform/NSNumber.h"
#include "VantorqFoundation/Platform/NSSet.h"
#include "VantorqFoundation/Platform/NSString.h"

// Random commands against a container of the standard library. A command is a few small numbers, so
// that a failing run shrinks to few and small ones.

namespace vantorq {
namespace {

struct Command {
    int kind;
    NSUInteger place;
    int value;
};

std::ostream& operator<<(std::ostream& out, const Command& command) {
    return out << "{" << command.kind << ", " << command.place << ", " << command.value << "}";
}

rc::Gen<std::vector<Command>> commands(int kinds) {
    return rc::gen::container<std::vector<Command>>(rc::gen::construct<Command>(
        rc::gen::inRange(0, kinds), rc::gen::inRange<NSUInteger>(0, 64), rc::gen::inRange(0, 16)));
}

RC_GTEST_PROP(ContainersModel, MutableArrayIsAVector, ()) {
    const auto array = make<NSMutableArray>();
    std::vector<int> model;
    for (const auto& [kind, place, value] : *commands(9)) {
        const id object = NSNumber::number(value);
        const NSUInteger gap = place % (model.size() + 1);
        const auto at = model.begin() + static_cast<std::ptrdiff_t>(gap);
        const bool isElement = gap < model.size();
        if (kind <= 1) {
            array->addObject(object);
            model.push_back(value);
        } else if (kind == 2) {
            array->insertObjectAtIndex(object, gap);
            model.insert(at, value);
        } else if (kind == 3 && isElement) {
            array->removeObjectAtIndex(gap);
            model.erase(at);
        } else if (kind == 4 && isElement) {
            array->replaceObjectAtIndex(gap, object);
            *at = value;
        } else if (kind == 5) {
            array->removeObject(*object);
            std::erase(model, value);
        } else if (kind == 6 && isElement) {
            array->exchangeObjects(gap, 0);
            std::swap(*at, model[0]);
        } else if (kind == 7) {
            array->sortUsingComparator([](const NSObject& a, const NSObject& b) {
                return objectCast<NSNumber>(&a)->compare(*objectCast<NSNumber>(&b));
            });
            std::ranges::sort(model);
        } else if (kind == 8 && place == 0) {
            array->removeAllObjects();
            model.clear();
        }
        RC_ASSERT(unbridge<std::vector<int>>(array) == model);
        const auto found = std::ranges::find(model, value);
        RC_ASSERT(
            array->indexOfObject(*object) ==
            (found == model.end() ? NSNotFound : static_cast<NSUInteger>(found - model.begin())));
    }
    RC_ASSERT(array->isEqual(bridge(model).get()));
    RC_ASSERT(array->hash() == bridge(model)->hash());
}

/// Keys of both kinds: text for even numbers, numbers for odd ones.
id keyOf(int value) {
    return value % 2 == 0 ? id(NSString::string("key " + std::to_string(value)))
                          : id(NSNumber::number(value));
}

RC_GTEST_PROP(ContainersModel, MutableDictionaryIsAMap, ()) {
    const auto dictionary = make<NSMutableDictionary>();
    std::map<int, NSUInteger> model;
    for (const auto& [kind, place, value] : *commands(5)) {
        const id key = keyOf(value);
        if (kind <= 2) {
            dictionary->setObjectForKey(NSNumber::number(place), *key);
            model[value] = place;
        } else if (kind == 3) {
            dictionary->removeObjectForKey(*key);
            model.erase(value);
        } else if (place == 0) {
            dictionary->removeAllObjects();
            model.clear();
        }
        RC_ASSERT(dictionary->count() == model.size());
        for (int probe = 0; probe < 16; ++probe) {
            const auto found = model.find(probe);
            RC_ASSERT(unbridge<NSUInteger>(dictionary->objectForKey(*keyOf(probe))) ==
                      (found != model.end() ? std::optional(found->second) : std::nullopt));
        }
    }
    const auto copied = dictionary->copy();
    RC_ASSERT(copied->isEqual(dictionary.get()));
    RC_ASSERT(copied->hash() == dictionary->hash());
}

RC_GTEST_PROP(ContainersModel, MutableSetIsASet, ()) {
    const auto set = make<NSMutableSet>();
    std::set<int> model;
    for (const auto& [kind, place, value] : *commands(4)) {
        const auto other = NSSet::set({keyOf(value), keyOf(static_cast<int>(place % 16))});
        const std::set<int> otherModel{value, static_cast<int>(place % 16)};
        if (kind == 0) {
            set->addObject(keyOf(value));
            model.insert(value);
        } else if (kind == 1) {
            set->removeObject(*keyOf(value));
            model.erase(value);
        } else if (kind == 2) {
            set->unionSet(*other);
            model.insert(otherModel.begin(), otherModel.end());
        } else {
            set->minusSet(*other);
            std::erase_if(model, [&](int member) { return otherModel.contains(member); });
        }
        RC_ASSERT(set->count() == model.size());
        for (int probe = 0; probe < 16; ++probe) {
            RC_ASSERT(set->containsObject(*keyOf(probe)) == model.contains(probe));
        }
    }
}

RC_GTEST_PROP(ContainersModel, MutableStringIsAString, ()) {
    const std::u16string pieces[] = {u"", u"a", u"bc", u"é", u"日本", u"\xD800"};
    const auto string = make<NSMutableString>();
    std::u16string model;
    for (const auto& [kind, place, value] : *commands(4)) {
        const std::u16string& piece = pieces[static_cast<std::size_t>(value) % 6];
        const auto text = NSString::string(piece);
        const NSUInteger start = place % (model.size() + 1);
        const NSUInteger length =
            std::min<NSUInteger>(static_cast<NSUInteger>(value), model.size() - start);
        if (kind == 0) {
            string->appendString(*text);
            model += piece;
        } else if (kind == 1) {
            string->insertString(*text, start);
            model.insert(start, piece);
        } else if (kind == 2) {
            string->deleteCharactersInRange({start, length});
            model.erase(start, length);
        } else {
            string->replaceCharactersInRange({start, length}, *text);
            model.replace(start, length, piece);
        }
        RC_ASSERT(string->utf16() == model);
        RC_ASSERT(string->length() == model.size());
        const auto immutable = NSString::string(model);
        RC_ASSERT(string->isEqual(immutable.get()));
        RC_ASSERT(string->hash() == immutable->hash());
        const auto found = piece.empty() ? model.npos : model.find(piece, start);
        RC_ASSERT(immutable->rangeOfString(*text, start).location ==
                  (found == model.npos ? NSNotFound : found));
    }
}

RC_GTEST_PROP(ContainersModel, WellFormedTextSurvivesUtf8, (const std::vector<char16_t>& drawn)) {
    std::u16string units(drawn.begin(), drawn.end());
    std::erase_if(units, [](char16_t unit) { return unit >= 0xD800 && unit < 0xE000; });
    const auto string = NSString::string(units);
    RC_ASSERT(NSString::stringWithUTF8(string->utf8())->utf16() == units);
}

}  // namespace
}  // namespace vantorq
