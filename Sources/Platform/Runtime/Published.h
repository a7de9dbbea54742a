#pragma once

#include <span>

#include "VantorqFoundation/Platform/Class.h"

namespace vantorq::runtime {

/// Every class and category of the library, in the one list of PublishedInterface.cpp.
std::span<const wire::ClassGetter> publishedClasses();
std::span<const CategoryInfo* const> publishedCategories();

}  // namespace vantorq::runtime
