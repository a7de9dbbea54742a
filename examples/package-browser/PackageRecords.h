#pragma once

#include <optional>
#include <utility>

#include <VantorqFoundation/VantorqFoundation.h>

#include "DatabaseFile.h"
#include "Package.h"
#include "RecordParser.h"

namespace package_browser {

/// The records of a database as an async sequence, in the order of the file, which is read once and
/// as it is asked for.
///
/// Ends with an error when the file cannot be read, and when nothing in it is a package; the
/// error's failure reason is one line.
class PackageRecords {
public:
    class Iterator;

    explicit PackageRecords(vantorq::Ref<DatabaseFile> file) noexcept : file_(std::move(file)) {}

    [[nodiscard]] Iterator makeAsyncIterator() const;

private:
    vantorq::Ref<DatabaseFile> file_;
};

class PackageRecords::Iterator {
public:
    explicit Iterator(vantorq::Ref<DatabaseFile> file) noexcept : file_(std::move(file)) {}

    [[nodiscard]] vantorq::Async<std::optional<Record>> next();

private:
    std::optional<Record> takeParsed();
    vantorq::Async<std::optional<Record>> readOn();
    void checkForPackages() const;

    vantorq::Ref<DatabaseFile> file_;
    RecordParser parser_;
    bool isAtEnd_ = false;
    bool hasPackages_ = false;
    std::optional<RejectedRecord> firstRejected_;
};

/// The same for several consumers, each of which gets all records in the same order.
using SharedRecords = vantorq::AsyncBroadcast<PackageRecords>;

/// Keeps all records for consumers that are behind: a database is small, and none may miss one.
[[nodiscard]] vantorq::Ref<SharedRecords> sharedRecords(vantorq::Ref<DatabaseFile> file);

}  // namespace package_browser
