#include "VantorqFoundation/Platform/NSArray.h"

#include <algorithm>
#include <memory>
#include <new>

#include "Sources/Platform/Objects/TextBuilder.h"
#include "VantorqFoundation/Platform/Class.h"
#include "VantorqFoundation/Platform/Hasher.h"
#include "VantorqFoundation/Platform/NSNull.h"
#include "VantorqFoundation/Platform/Send.h"

namespace vantorq {

namespace {

void checkElement(const id& element) {
    if (element == nullptr) [[unlikely]] {
        VNTQ_TRAP("NSArray: nil cannot be an element");
    }
}

void checkRange(NSRange range, NSUInteger count) {
    if (range.location > count || range.length > count - range.location) [[unlikely]] {
        VNTQ_TRAP("NSArray: range out of bounds");
    }
}

/// A merge sort: unlike the standard's, it stays within the array whatever the comparator says.
std::vector<id> sortedElements(const NSArray& array, const NSComparator& comparator) {
    const NSBlock* block = comparator.object().get();
    if (block == nullptr) {
        VNTQ_TRAP("NSArray: sorted without a comparator");
    }
    const auto isBefore = [block](const id& a, const id& b) {
        return NSComparator::call(*block, *a, *b) == NSComparisonResult::ascending;
    };
    const auto elements = array.elements();
    std::vector<id> sorted(elements.begin(), elements.end());
    std::vector<id> merged(sorted.size());
    for (std::size_t run = 1; run < sorted.size(); run *= 2) {
        for (std::size_t start = 0; start < sorted.size(); start += 2 * run) {
            const auto place = [&](std::size_t index) {
                return std::make_move_iterator(
                    sorted.begin() + static_cast<std::ptrdiff_t>(std::min(index, sorted.size())));
            };
            std::merge(place(start), place(start + run), place(start + run), place(start + 2 * run),
                       merged.begin() + static_cast<std::ptrdiff_t>(start), isBefore);
        }
        sorted.swap(merged);
    }
    return sorted;
}

}  // namespace

// Making arrays.

NSArray::~NSArray() {
    std::destroy_n(elements_, count_);
}

Ref<NSArray> NSArray::allocate(NSUInteger capacity) {
    void* memory = ::operator new(sizeof(NSArray) + capacity * sizeof(id));
    auto array = Ref<NSArray>::adopt(::new (memory) NSArray);
    array->elements_ = static_cast<id*>(static_cast<void*>(array.get() + 1));
    return array;
}

void NSArray::append(id element) {
    checkElement(element);
    ::new (static_cast<void*>(elements_ + count_)) id(std::move(element));
    ++count_;
}

Ref<NSArray> NSArray::array() {
    static NSArray& empty = immortal(Ref<NSArray>::adopt(new NSArray));
    return empty;
}

Ref<NSArray> NSArray::array(std::initializer_list<id> elements) {
    return array(std::span(elements.begin(), elements.size()));
}

Ref<NSArray> NSArray::array(std::span<const id> elements) {
    if (elements.empty()) {
        return array();
    }
    auto made = allocate(elements.size());
    for (const id& element : elements) {
        made->append(element);
    }
    return made;
}

Ref<NSArray> NSArray::array(std::vector<id>&& elements) {
    if (elements.empty()) {
        return array();
    }
    auto made = allocate(elements.size());
    for (id& element : elements) {
        made->append(std::move(element));
    }
    return made;
}

Ref<NSArray> NSArray::arrayWithObject(id object) {
    auto made = allocate(1);
    made->append(std::move(object));
    return made;
}

Ref<NSArray> NSArray::arrayWithArray(const NSArray& other) {
    return objectCast<NSArray>(other.copy());
}

// Reading and searching.

void NSArray::enumerateObjects(const Block<void(NSObject&, NSUInteger)>& visit) const {
    NSUInteger index = 0;
    for (const id& element : *this) {
        visit(*element, index++);
    }
}

bool NSArray::containsObject(const NSObject& object) const {
    return indexOfObject(object) != NSNotFound;
}

NSUInteger NSArray::indexOfObject(const NSObject& object) const {
    NSUInteger index = 0;
    for (const id& element : *this) {
        if (element.get() == &object || object.isEqual(element.get())) {
            return index;
        }
        ++index;
    }
    return NSNotFound;
}

NSUInteger NSArray::indexOfObjectIdenticalTo(const NSObject& object) const noexcept {
    const auto found = std::ranges::find(elements(), &object, &id::get);
    return found != elements().end() ? static_cast<NSUInteger>(found - elements().begin())
                                     : NSNotFound;
}

// Deriving.

Ref<NSArray> NSArray::arrayByAddingObject(id object) const {
    auto made = allocate(count_ + 1);
    for (const id& element : elements()) {
        made->append(element);
    }
    made->append(std::move(object));
    return made;
}

Ref<NSArray> NSArray::arrayByAddingObjectsFromArray(const NSArray& other) const {
    auto made = allocate(count_ + other.count_);
    for (const auto& part : {elements(), other.elements()}) {
        for (const id& element : part) {
            made->append(element);
        }
    }
    return made;
}

Ref<NSArray> NSArray::subarrayWithRange(NSRange range) const {
    checkRange(range, count_);
    return array(elements().subspan(range.location, range.length));
}

Ref<NSArray> NSArray::reversedArray() const {
    return array(std::vector<id>(std::make_reverse_iterator(elements_ + count_),
                                 std::make_reverse_iterator(elements_)));
}

Ref<NSArray> NSArray::sortedArrayUsingComparator(const NSComparator& comparator) const {
    return array(sortedElements(*this, comparator));
}

Ref<NSArray> NSArray::sortedArrayUsingSelector(Selector selector) const {
    return sortedArrayUsingComparator([selector](const NSObject& a, const NSObject& b) {
        return send<NSComparisonResult>(a, selector, b);
    });
}

Ref<NSString> NSArray::componentsJoinedByString(const NSString& separator) const {
    objects::TextBuilder text;
    bool isFirst = true;
    for (const id& element : *this) {
        if (!isFirst) {
            text.append(separator);
        }
        isFirst = false;
        text.appendDescription(element.get());
    }
    return text.finish();
}

id NSArray::valueForKey(const NSString& key) const {
    std::vector<id> values;
    values.reserve(count_);
    for (const id& element : *this) {
        values.push_back(NSNull::orNull(element->valueForKey(key)));
    }
    return array(std::move(values));
}

void NSArray::setValueForKey(const id& value, const NSString& key) {
    for (const id& element : *this) {
        element->setValueForKey(value, key);
    }
}

// Equality, description, copying.

bool NSArray::isEqual(const NSObject* other) const {
    return this == other || isEqualToArray(objectCast<NSArray>(other));
}

bool NSArray::isEqualToArray(const NSArray* other) const {
    return other != nullptr &&
           std::ranges::equal(elements(), other->elements(), [](const id& a, const id& b) {
               return vantorq::isEqual(a.get(), b.get());
           });
}

NSUInteger NSArray::hash() const {
    Hasher hasher;
    hasher.combine(count_);
    for (const id& element : elements()) {
        hasher.combine(element->hash());
    }
    return hasher.finish();
}

Ref<NSString> NSArray::description() const {
    objects::TextBuilder text;
    text.appendAscii("(");
    for (NSUInteger index = 0; index < count_; ++index) {
        text.appendAscii(index == 0 ? "\n    " : ",\n    ");
        text.appendIndented(*elements_[index]);
    }
    text.appendAscii("\n)");
    return text.finish();
}

id NSArray::copyWithZone(void*) const {
    return const_cast<NSArray&>(*this);
}

id NSArray::mutableCopyWithZone(void*) const {
    return NSMutableArray::array(elements());
}

// Arrays that change. What is taken out goes only after the array is in order again, because an
// object that goes may run code that uses the array.

NSMutableArray::~NSMutableArray() {
    elements_ = nullptr;
    count_ = 0;
}

void NSMutableArray::update() noexcept {
    elements_ = buffer_.data();
    count_ = buffer_.size();
    ++mutations_;
}

void NSMutableArray::checkIndex(NSUInteger index) const {
    if (index >= count_) [[unlikely]] {
        VNTQ_TRAP("NSMutableArray: index out of bounds");
    }
}

Ref<NSMutableArray> NSMutableArray::array() {
    return make<NSMutableArray>();
}

Ref<NSMutableArray> NSMutableArray::array(std::initializer_list<id> elements) {
    return array(std::span(elements.begin(), elements.size()));
}

Ref<NSMutableArray> NSMutableArray::array(std::span<const id> elements) {
    std::ranges::for_each(elements, checkElement);
    auto made = make<NSMutableArray>();
    made->buffer_.assign(elements.begin(), elements.end());
    made->update();
    return made;
}

Ref<NSMutableArray> NSMutableArray::arrayWithCapacity(NSUInteger capacity) {
    auto made = make<NSMutableArray>();
    made->buffer_.reserve(capacity);
    made->update();
    return made;
}

void NSMutableArray::addObject(id object) {
    checkElement(object);
    buffer_.push_back(std::move(object));
    update();
}

void NSMutableArray::addObjectsFromArray(const NSArray& other) {
    // By way of a copy: the other array may be this one.
    std::vector<id> added(other.elements().begin(), other.elements().end());
    buffer_.insert(buffer_.end(), std::make_move_iterator(added.begin()),
                   std::make_move_iterator(added.end()));
    update();
}

void NSMutableArray::insertObjectAtIndex(id object, NSUInteger index) {
    checkElement(object);
    checkRange({index, 0}, count_);
    buffer_.insert(buffer_.begin() + static_cast<std::ptrdiff_t>(index), std::move(object));
    update();
}

void NSMutableArray::removeObjectAtIndex(NSUInteger index) {
    checkIndex(index);
    const id removed = std::move(buffer_[index]);
    buffer_.erase(buffer_.begin() + static_cast<std::ptrdiff_t>(index));
    update();
}

void NSMutableArray::removeObjectsInRange(NSRange range) {
    checkRange(range, count_);
    const auto first = buffer_.begin() + static_cast<std::ptrdiff_t>(range.location);
    const auto last = first + static_cast<std::ptrdiff_t>(range.length);
    const std::vector<id> removed(std::make_move_iterator(first), std::make_move_iterator(last));
    buffer_.erase(first, last);
    update();
}

void NSMutableArray::removeLastObject() {
    if (count_ > 0) {
        removeObjectAtIndex(count_ - 1);
    }
}

void NSMutableArray::removeAllObjects() {
    removeObjectsInRange({0, count_});
}

void NSMutableArray::removeObject(const NSObject& object) {
    const id held(const_cast<NSObject&>(object));  // it may be an element, and its last owner
    std::vector<id> kept;
    for (const id& element : *this) {
        if (element.get() != &object && !object.isEqual(element.get())) {
            kept.push_back(element);
        }
    }
    buffer_.swap(kept);
    update();
}

void NSMutableArray::replaceObjectAtIndex(NSUInteger index, id object) {
    checkElement(object);
    checkIndex(index);
    buffer_[index].swap(object);
    update();
}

void NSMutableArray::exchangeObjects(NSUInteger first, NSUInteger second) {
    checkIndex(first);
    checkIndex(second);
    buffer_[first].swap(buffer_[second]);
    update();
}

void NSMutableArray::setArray(const NSArray& other) {
    std::vector<id> elements(other.elements().begin(), other.elements().end());
    buffer_.swap(elements);
    update();
}

void NSMutableArray::sortUsingComparator(const NSComparator& comparator) {
    std::vector<id> elements = sortedElements(*this, comparator);
    buffer_.swap(elements);
    update();
}

id NSMutableArray::copyWithZone(void*) const {
    return NSArray::array(elements());
}

namespace {

constexpr const Protocol* kProtocols[] = {&NSCopying, &NSMutableCopying};

constexpr PropertyInfo kProperties[] = {
    property<&NSArray::count>("count"),
    property<&NSArray::firstObject>("firstObject"),
    property<&NSArray::lastObject>("lastObject"),
};

constexpr MethodInfo kMethods[] = {
    classMethod<+[] { return NSArray::array(); }>("array"),
    classMethod<&NSArray::arrayWithObject>("arrayWithObject:"),
    classMethod<&NSArray::arrayWithArray>("arrayWithArray:"),
    method<&NSArray::objectAtIndex>("objectAtIndex:"),
    method<&NSArray::objectAtIndex>("objectAtIndexedSubscript:"),
    method<+[](const NSArray& self, const NSObject* object) {
        return object != nullptr && self.containsObject(*object);
    }>("containsObject:"),
    method<+[](const NSArray& self, const NSObject* object) {
        return object != nullptr ? self.indexOfObject(*object) : NSNotFound;
    }>("indexOfObject:"),
    method<&NSArray::enumerateObjects>("enumerateObjectsUsingBlock:"),
    method<&NSArray::arrayByAddingObject>("arrayByAddingObject:"),
    method<&NSArray::arrayByAddingObjectsFromArray>("arrayByAddingObjectsFromArray:"),
    method<&NSArray::subarrayWithRange>("subarrayWithRange:"),
    method<&NSArray::sortedArrayUsingComparator>("sortedArrayUsingComparator:"),
    method<&NSArray::sortedArrayUsingSelector>("sortedArrayUsingSelector:"),
    method<&NSArray::componentsJoinedByString>("componentsJoinedByString:"),
    method<&NSArray::isEqualToArray>("isEqualToArray:"),
};

constexpr MethodInfo kMutableMethods[] = {
    classMethod<+[] { return NSMutableArray::array(); }>("array"),
    classMethod<+[](id object) { return NSMutableArray::array({std::move(object)}); }>(
        "arrayWithObject:"),
    classMethod<+[](const NSArray& other) { return NSMutableArray::array(other.elements()); }>(
        "arrayWithArray:"),
    classMethod<&NSMutableArray::arrayWithCapacity>("arrayWithCapacity:"),
    method<&NSMutableArray::addObject>("addObject:"),
    method<&NSMutableArray::addObjectsFromArray>("addObjectsFromArray:"),
    method<&NSMutableArray::insertObjectAtIndex>("insertObject:atIndex:"),
    method<&NSMutableArray::removeObjectAtIndex>("removeObjectAtIndex:"),
    method<&NSMutableArray::removeObjectsInRange>("removeObjectsInRange:"),
    method<&NSMutableArray::removeLastObject>("removeLastObject"),
    method<&NSMutableArray::removeAllObjects>("removeAllObjects"),
    method<&NSMutableArray::removeObject>("removeObject:"),
    method<+[](NSMutableArray& self, NSUInteger index, id object) {
        self.replaceObjectAtIndex(index, std::move(object));
    }>("replaceObjectAtIndex:withObject:"),
    method<&NSMutableArray::exchangeObjects>("exchangeObjectAtIndex:withObjectAtIndex:"),
    method<&NSMutableArray::setArray>("setArray:"),
    method<&NSMutableArray::sortUsingComparator>("sortUsingComparator:"),
};

}  // namespace

VNTQ_DEFINE_CLASS(NSArray,
                  {.protocols = kProtocols, .properties = kProperties, .methods = kMethods})
VNTQ_DEFINE_CLASS(NSMutableArray, {.methods = kMutableMethods})

}  // namespace vantorq
