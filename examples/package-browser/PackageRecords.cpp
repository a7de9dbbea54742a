#include "PackageRecords.h"

#include <optional>
#include <string>
#include <utility>
#include <variant>

#include <VantorqFoundation/VantorqFoundation.h>

namespace package_browser {

using namespace vantorq;

PackageRecords::Iterator PackageRecords::makeAsyncIterator() const {
    return Iterator(file_);
}

Async<std::optional<Record>> PackageRecords::Iterator::next() {
    if (auto record = takeParsed()) {
        return Async<std::optional<Record>>::ready(std::move(record));
    }
    return readOn();
}

std::optional<Record> PackageRecords::Iterator::takeParsed() {
    auto record = parser_.next();
    if (record) {
        if (const auto* rejected = std::get_if<RejectedRecord>(&*record)) {
            firstRejected_ = firstRejected_ ? firstRejected_ : *rejected;
        } else {
            hasPackages_ = true;
        }
    }
    return record;
}

Async<std::optional<Record>> PackageRecords::Iterator::readOn() {
    std::optional<Record> record;
    while (!record && !isAtEnd_) {
        auto reading = file_->nextChunk();
        const std::string chunk = co_await std::move(reading);
        if (chunk.empty()) {
            parser_.end();
            isAtEnd_ = true;
        } else {
            parser_.take(chunk);
        }
        record = takeParsed();
    }
    if (!record) {
        checkForPackages();
    }
    co_return record;
}

void PackageRecords::Iterator::checkForPackages() const {
    if (hasPackages_) {
        return;
    }
    const std::string reason = firstRejected_ ? "line " + std::to_string(firstRejected_->line) +
                                                    ": " + firstRejected_->reason
                                              : "nothing in it";
    throw file_->error("no package database (" + reason + ")");
}

Ref<SharedRecords> sharedRecords(Ref<DatabaseFile> file) {
    return broadcast(PackageRecords(std::move(file)), BufferingPolicy::unbounded());
}

}  // namespace package_browser
