/// The one list of everything that the untyped side can find by name.

#include "Sources/Platform/Runtime/Published.h"
#include "VantorqFoundation/VantorqFoundation.h"

namespace vantorq {

extern const CategoryInfo kNSErrorVNTQFoundation;
extern const CategoryInfo kVNTQResultStandard;

namespace runtime {

std::span<const wire::ClassGetter> publishedClasses() {
    static constexpr wire::ClassGetter classes[] = {
        &NSObject::classObject,
        &Class::classObject,
        &NSBlock::classObject,
        &NSString::classObject,
        &NSMutableString::classObject,
        &NSNumber::classObject,
        &NSNull::classObject,
        &NSArray::classObject,
        &NSMutableArray::classObject,
        &NSDictionary::classObject,
        &NSMutableDictionary::classObject,
        &NSSet::classObject,
        &NSMutableSet::classObject,
        &NSHashTable<>::classObject,
        &NSMapTable::classObject,
        &NSDate::classObject,
        &NSData::classObject,
        &NSMutableData::classObject,
        &NSError::classObject,
        &NSIndexPath::classObject,
        &DispatchQueue::classObject,
        &DispatchWorkItem::classObject,
        &NSRecursiveLock::classObject,
        &NSRunLoop::classObject,
        &NSTimer::classObject,
        &NSPredicate::classObject,
        &NSOperation::classObject,
        &NSBlockOperation::classObject,
        &NSOperationQueue::classObject,
        &VNTQResult::classObject,
        &VNTQOperation::classObject,
        &VNTQBlockOperation::classObject,
        &VNTQRunLoopOperation::classObject,
        &VNTQRunLoopBlockOperation::classObject,
        &ReadWriteLock::classObject,
    };
    return classes;
}

std::span<const CategoryInfo* const> publishedCategories() {
    static constexpr const CategoryInfo* categories[] = {
        &kNSErrorVNTQFoundation,
        &kVNTQResultStandard,
    };
    return categories;
}

}  // namespace runtime

}  // namespace vantorq
