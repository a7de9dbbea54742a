#include "VantorqFoundation/Platform/Class.h"

#include <algorithm>
#include <mutex>
#include <string>

#include <boost/unordered/unordered_flat_map.hpp>

#include "Sources/Platform/Runtime/Published.h"
#include "VantorqFoundation/Platform/Send.h"

namespace vantorq {

constinit const Protocol NSCopying{"NSCopying"};
constinit const Protocol NSMutableCopying{"NSMutableCopying"};

/// What a class answers, its inheritance and categories worked in. Built once, never changed.
struct Class::Tables {
    using Methods = boost::unordered_flat_map<Selector, const ResolvedMethod*, std::hash<Selector>>;
    Methods instanceMethods;
    Methods classMethods;
    boost::unordered_flat_map<std::string_view, const PropertyInfo*> properties;
    std::vector<const PropertyInfo*> declared;
    std::vector<const Protocol*> protocols;
    std::vector<std::string_view> categories;

    void add(const MethodInfo& info, Selector selector) {
        auto& methods = info.isClassMethod ? classMethods : instanceMethods;
        methods[selector] = new ResolvedMethod{selector, &info};
    }
    void add(const ClassTables& own) {
        for (const PropertyInfo& property : own.properties) {
            add(property);
        }
        for (const MethodInfo& method : own.methods) {
            add(method, Selector(method.selector));
        }
        protocols.insert(protocols.end(), own.protocols.begin(), own.protocols.end());
    }
    void add(const PropertyInfo& property) {
        if (!property.getter.isClassMethod) {
            declared.push_back(&property);
            properties[property.name] = &property;
        }
        add(property.getter, Selector(property.getter.selector));
        if (!property.isReadOnly()) {
            std::string name = "set" + std::string(property.name) + ":";
            if (name[3] >= 'a' && name[3] <= 'z') {
                name[3] = static_cast<char>(name[3] - 'a' + 'A');
            }
            add(property.setter, Selector(name));
        }
    }
};

namespace {

struct Registry {
    std::mutex mutex;
    boost::unordered_flat_map<const ClassInfo*, const Class*> byTable;
    boost::unordered_flat_map<std::string_view, const Class*> byName;
};

Registry& registry() {
    static Registry& shared = *new Registry;
    return shared;
}

std::vector<const Class*> lineage(const Class* superclass) {
    std::vector<const Class*> classes;
    for (const Class* cls = superclass; cls != nullptr; cls = cls->superclass()) {
        classes.push_back(cls);
    }
    std::ranges::reverse(classes);
    return classes;
}

bool conforms(const Protocol* adopted, const Protocol& wanted) {
    for (; adopted != nullptr; adopted = adopted->base) {
        if (adopted->name == wanted.name) {
            return true;
        }
    }
    return false;
}

}  // namespace

Class::Class(const ClassInfo& info)
    : info_(info),
      superclass_(info.superclass != nullptr ? &info.superclass() : nullptr),
      ancestors_(lineage(superclass_)) {
    depth_ = ancestors_.size();
    ancestors_.push_back(this);
}

const Class& Class::of(const ClassInfo& info) {
    // Made before the lock is taken: making a class makes its superclass first.
    std::unique_ptr<Class, void (*)(Class*)> fresh(new Class(info),
                                                   [](Class* unused) { unused->release(); });
    Registry& all = registry();
    const std::lock_guard guard(all.mutex);
    const auto [entry, isNew] = all.byTable.emplace(&info, fresh.get());
    if (isNew) {
        all.byName.emplace(info.name, fresh.release());
    }
    return *entry->second;
}

const Class* Class::named(std::string_view name) {
    for (const wire::ClassGetter published : runtime::publishedClasses()) {
        const Class& cls = published();
        if (cls.name() == name) {
            return &cls;
        }
    }
    Registry& all = registry();
    const std::lock_guard guard(all.mutex);
    const auto found = all.byName.find(name);
    return found != all.byName.end() ? found->second : nullptr;
}

std::unique_ptr<Class::Tables> Class::resolve(const Class& cls) {
    auto tables = cls.superclass_ != nullptr ? std::make_unique<Tables>(cls.superclass_->tables())
                                             : std::make_unique<Tables>();
    tables->declared.clear();
    tables->categories.clear();
    tables->add(cls.info_.tables);
    for (const CategoryInfo* category : runtime::publishedCategories()) {
        if (&category->cls() == &cls) {
            tables->categories.push_back(category->name);
            tables->add({category->protocols, category->properties, category->methods});
        }
    }
    return tables;
}

const Class::Tables& Class::tables() const {
    const Tables* current = tables_.load(std::memory_order_acquire);
    if (current == nullptr) {
        static std::recursive_mutex resolving;  // recursive: a class resolves its superclass first
        const std::lock_guard guard(resolving);
        current = tables_.load(std::memory_order_relaxed);
        if (current == nullptr) {
            current = resolve(*this).release();
            tables_.store(current, std::memory_order_release);
        }
    }
    return *current;
}

const ResolvedMethod* Class::methodFor(Selector selector, bool classMethod) const {
    const Tables& all = tables();
    const auto& methods = classMethod ? all.classMethods : all.instanceMethods;
    const auto found = methods.find(selector);
    return found != methods.end() ? found->second : nullptr;
}

bool Class::classConformsToProtocol(const Protocol& protocol) const noexcept {
    return std::ranges::any_of(tables().protocols,
                               [&](const Protocol* own) { return conforms(own, protocol); });
}

bool Class::instancesRespondToSelector(Selector selector) const {
    return methodFor(selector, false) != nullptr;
}

bool Class::respondsToSelector(Selector selector) const {
    return detail::findMethod(this, selector) != nullptr;
}

std::vector<const PropertyInfo*> Class::declaredProperties() const {
    return tables().declared;
}

const PropertyInfo* Class::propertyNamed(std::string_view name) const {
    const auto& properties = tables().properties;
    const auto found = properties.find(name);
    return found != properties.end() ? found->second : nullptr;
}

std::vector<std::string_view> Class::categoryNames() const {
    return tables().categories;
}

id Class::alloc() const {
    return info_.allocate != nullptr ? info_.allocate() : nullptr;
}

Ref<NSString> Class::description() const {
    return NSString::string(name());
}

namespace {

constexpr PropertyInfo kClassProperties[] = {
    property<+[](const Class& cls) { return NSString::string(cls.name()); }>("name"),
};
constexpr MethodInfo kClassMethods[] = {
    method<&Class::instancesRespondToSelector>("instancesRespondToSelector:"),
    method<&Class::isSubclassOf>("isSubclassOfClass:"),
};

}  // namespace

constinit const ClassInfo Class::kClass{"Class",
                                        &NSObject::classObject,
                                        nullptr,
                                        {.properties = kClassProperties, .methods = kClassMethods}};

const Class& Class::classObject() {
    static const Class& cls = Class::of(kClass);
    return cls;
}

}  // namespace vantorq
