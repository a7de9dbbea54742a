#include "VantorqFoundation/Platform/Selector.h"

#include <memory>
#include <mutex>
#include <string>

#include <boost/unordered/unordered_flat_map.hpp>

namespace vantorq {

namespace {

/// A name with its text, at an address that does not change.
struct InternedName {
    explicit InternedName(std::string_view name) : text(name), view(text) {}
    std::string text;
    std::string_view view;
};

struct InternTable {
    std::mutex mutex;
    boost::unordered_flat_map<std::string_view, std::unique_ptr<InternedName>> names;
};

InternTable& internTable() {
    static InternTable& table = *new InternTable;
    return table;
}

}  // namespace

Selector::Selector(std::string_view name) {
    InternTable& table = internTable();
    const std::lock_guard guard(table.mutex);
    auto found = table.names.find(name);
    if (found == table.names.end()) {
        auto fresh = std::make_unique<InternedName>(name);
        const std::string_view key = fresh->view;
        found = table.names.emplace(key, std::move(fresh)).first;
    }
    name_ = &found->second->view;
}

}  // namespace vantorq
