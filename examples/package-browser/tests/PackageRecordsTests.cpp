#include "PackageRecords.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ParsedRecords.h"
#include "TemporaryDatabase.h"

namespace package_browser {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using vantorq::Async;
using vantorq::make;
using vantorq::NSErrorException;
using vantorq::syncWait;

static_assert(vantorq::AsyncSequence<PackageRecords>);

/// All records of a sequence.
template <class Sequence>
Async<ParsedRecords> all(Sequence& sequence) {
    ParsedRecords records;
    auto iterator = sequence.makeAsyncIterator();
    for (;;) {
        auto reading = iterator.next();
        const auto record = co_await std::move(reading);
        if (!record) {
            co_return records;
        }
        records.add(*record);
    }
}

class PackageRecordsTest : public testing::Test {
protected:
    ParsedRecords read(std::string_view text,
                       std::size_t chunkSize = DatabaseFile::kUsualChunkSize) const {
        database_.write("status", text);
        PackageRecords records(make<DatabaseFile>(database_.file(), chunkSize));
        return syncWait(all(records));
    }
    std::string complaint(std::string_view text) const {
        try {
            read(text);
            return "";
        } catch (const NSErrorException& exception) {
            return exception.error()->localizedFailureReason()->utf8();
        }
    }

    const TemporaryDatabase database_;
};

TEST_F(PackageRecordsTest, AreReadInTheOrderOfTheFile) {
    const auto records = read(TemporaryDatabase::record("b") + "Package: a\n\nnonsense\n");
    EXPECT_THAT(records.names(), ElementsAre("b", "a"));
    EXPECT_THAT(records.rejected, ElementsAre("8: a line without a colon"));
}

TEST_F(PackageRecordsTest, AreTheSameWhateverTheSizeOfTheChunks) {
    const std::string text = TemporaryDatabase::record("a", "x", "Description: Vesterø\n") +
                             "nonsense\n\n" + TemporaryDatabase::record("b");
    for (std::size_t size = 1; size <= text.size() + 1; ++size) {
        const auto records = read(text, size);
        EXPECT_THAT(records.names(), ElementsAre("a", "b")) << "in chunks of " << size;
        EXPECT_EQ(records.packages.at(0).summary->utf8(), "Vesterø") << "in chunks of " << size;
        EXPECT_THAT(records.rejected, ElementsAre("7: a line without a colon"));
    }
}

TEST_F(PackageRecordsTest, OnePackageIsEnough) {
    EXPECT_EQ(complaint("nonsense\n\nPackage: a\n"), "");
}

TEST_F(PackageRecordsTest, EmptyFileIsNoDatabase) {
    EXPECT_EQ(complaint(""), database_.file().native() + ": no package database (nothing in it)");
}

TEST_F(PackageRecordsTest, FileWithoutAPackageIsNoDatabase) {
    EXPECT_EQ(complaint("\nnonsense\n\n\n: more\n"),
              database_.file().native() + ": no package database (line 2: a line without a colon)");
}

TEST_F(PackageRecordsTest, EndStaysTheEnd) {
    database_.write("status", TemporaryDatabase::record("a"));
    auto iterator = PackageRecords(make<DatabaseFile>(database_.file())).makeAsyncIterator();
    EXPECT_TRUE(syncWait(iterator.next()));
    EXPECT_FALSE(syncWait(iterator.next()));
    EXPECT_FALSE(syncWait(iterator.next()));
}

TEST_F(PackageRecordsTest, SharedOnesReachEveryConsumerAlsoALateOne) {
    std::string text;
    std::vector<std::string> names;
    for (int count = 0; count < 2000; ++count) {
        names.push_back("p" + std::to_string(count));
        text += TemporaryDatabase::record(names.back());
    }
    const auto records = database_.records(text);
    const auto begin = [&] {
        return vantorq::Task<ParsedRecords>::start([records] { return all(*records); });
    };
    const auto first = begin();
    const auto second = begin();
    EXPECT_EQ(syncWait(first).names(), names);
    EXPECT_EQ(syncWait(second).names(), names);
    EXPECT_EQ(syncWait(begin()).names(), names);
}

}  // namespace
}  // namespace package_browser
