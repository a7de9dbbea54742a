#pragma once

#include <ostream>
#include <string>

#include "VantorqFoundation/Platform/NSObject.h"
#include "VantorqFoundation/Platform/NSString.h"

/// Objects in the messages of failed tests, and short names for what tests read most.
namespace vantorq {

template <class T>
void PrintTo(const Ref<T>& object, std::ostream* out) {
    *out << (object != nullptr ? object->description()->utf8() : "nil");
}

}  // namespace vantorq

namespace vantorq::test {

/// UTF-8 of a string; "nil" for nil.
inline std::string text(const Ref<NSString>& string) {
    return string != nullptr ? string->utf8() : "nil";
}
inline std::string description(const NSObject& object) {
    return text(object.description());
}
template <class T>
std::string description(const Ref<T>& object) {
    return object != nullptr ? description(*object) : "nil";
}

}  // namespace vantorq::test
