#include "Report.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <VantorqFoundation/VantorqFoundation.h>

#include "Columns.h"
#include "SizeText.h"
#include "Terminal.h"

namespace package_browser {

using namespace vantorq;

namespace {

using Outcome = MeasuredPackage::Outcome;

// A line is a size, aligned to the right in this many columns, and what has that size.
constexpr std::size_t kSizeWidth = 9;
constexpr const char* kGap = "  ";
constexpr std::size_t kGapWidth = 2;
// Longer names push their summaries to the right.
constexpr std::size_t kMaximumNameWidth = 30;
// A summary that is cut shorter tells nothing.
constexpr std::size_t kMinimumSummaryWidth = 16;

std::string counted(std::size_t count, std::string_view noun) {
    return std::to_string(count) + " " + std::string(noun) + (count == 1 ? "" : "s");
}

std::string sizeColumn(const MeasuredPackage& measured) {
    switch (measured.outcome) {
        case Outcome::timedOut:
            return "timed out";
        case Outcome::withoutFileList:
            return "no list";
        case Outcome::measured:
            break;
    }
    return sizeText(measured.size);
}

/// Largest first, then by name. Those that were not measured come last, after the empty ones.
bool isListedBefore(const MeasuredPackage& a, const MeasuredPackage& b) {
    if (a.size != b.size) {
        return a.size > b.size;
    }
    if (a.outcome != b.outcome) {
        return a.outcome < b.outcome;
    }
    const auto byName = a.package.name->compare(*b.package.name);
    if (byName != NSComparisonResult::same) {
        return byName == NSComparisonResult::ascending;
    }
    return a.package.architecture->compare(*b.package.architecture) ==
           NSComparisonResult::ascending;
}

bool isSectionListedBefore(const Section& a, const Section& b) {
    return a.size != b.size ? a.size > b.size : a.name < b.name;
}

/// "all 243, amd64 612", the names in order.
std::string architecturesText(const Statistics& statistics) {
    std::string text;
    for (const auto& [name, count] : statistics.architectures) {
        text += (text.empty() ? "" : ", ") + (name.empty() ? "(none)" : name) + " " +
                std::to_string(count);
    }
    return text;
}

/// Writes a listing, line by line.
class ListingWriter {
public:
    ListingWriter(const std::vector<Section>& sections, const Statistics& statistics,
                  const ListingStyle& style)
        : sections_(sections), statistics_(statistics), style_(style) {}

    std::string write() {
        measureNames();
        for (const Section& section : sections_) {
            writeSection(section);
        }
        if (sections_.size() != 1) {
            writeTotals();
            writeStatistics();
        }
        writeNote("Timed out", Outcome::timedOut);
        writeNote("No file list", Outcome::withoutFileList);
        return std::move(text_);
    }

private:
    std::size_t shownCount(const Section& section) const {
        return std::min(section.packages.size(), style_.top.value_or(section.packages.size()));
    }

    void measureNames() {
        for (const Section& section : sections_) {
            for (const MeasuredPackage& one : section.packages) {
                ++nameCounts_[one.package.name->utf8()];
            }
        }
        for (const Section& section : sections_) {
            for (std::size_t index = 0; index < shownCount(section); ++index) {
                nameWidth_ =
                    std::max(nameWidth_, displayWidth(label(section.packages[index].package)));
            }
        }
        nameWidth_ = std::min(nameWidth_, kMaximumNameWidth);
    }

    /// The name, with the architecture where the same package is there for several.
    std::string label(const Package& package) const {
        std::string name = package.name->utf8();
        return nameCounts_.at(name) > 1 ? name + ":" + package.architecture->utf8() : name;
    }

    void writeSection(const Section& section) {
        writeLine(sizeText(section.size),
                  section.name + ", " + counted(section.packages.size(), "package"), kBold);
        const std::size_t shown = shownCount(section);
        if (shown == 0) {
            return;
        }
        std::uint64_t hiddenSize = section.size;
        for (std::size_t index = 0; index < shown; ++index) {
            const MeasuredPackage& one = section.packages[index];
            writeLine(sizeColumn(one), kGap + label(one.package), kPlain,
                      one.package.summary->utf8());
            hiddenSize -= one.size;
        }
        if (shown < section.packages.size()) {
            writeLine(sizeText(hiddenSize),
                      kGap + std::to_string(section.packages.size() - shown) + " more", kDim);
        }
        text_ += '\n';
    }

    std::size_t count(Outcome outcome) const {
        std::size_t count = 0;
        for (const Section& section : sections_) {
            count += static_cast<std::size_t>(
                std::ranges::count(section.packages, outcome, &MeasuredPackage::outcome));
        }
        return count;
    }

    void writeTotals() {
        std::size_t packages = 0;
        std::uint64_t size = 0;
        for (const Section& section : sections_) {
            packages += section.packages.size();
            size += section.size;
        }
        writeLine(sizeText(size),
                  counted(packages, "package") + " in " + counted(sections_.size(), "section"),
                  kBold);
        if (const std::size_t measured = count(Outcome::measured); measured > 0) {
            writeLine(sizeText(size / measured), "a package on average", kPlain);
        }
    }

    void writeStatistics() {
        if (!statistics_.architectures.empty()) {
            writeLine("", "Architectures: " + architecturesText(statistics_), kPlain);
        }
        if (const auto& package = statistics_.mostDependent) {
            writeLine("",
                      "Most dependencies: " + package->name->utf8() + ", " +
                          std::to_string(package->dependencyCount),
                      kPlain);
        }
        if (statistics_.notInstalledCount > 0) {
            writeLine(
                "", "Known but not installed: " + counted(statistics_.notInstalledCount, "package"),
                kPlain);
        }
    }

    /// Says how many packages the totals lack.
    void writeNote(std::string_view what, Outcome outcome) {
        if (const std::size_t packages = count(outcome); packages > 0) {
            writeLine("", std::string(what) + ": " + counted(packages, "package") + ", as 0 B",
                      kPlain);
        }
    }

    void writeLine(std::string_view size, const std::string& name, const char* look,
                   std::string_view summary = {}) {
        text_ += std::string(kSizeWidth - size.size(), ' ') + std::string(size) + kGap;
        const std::string aligned = padded(name, kGapWidth + nameWidth_) + kGap;
        const std::size_t room = roomAfter(aligned);
        if (!summary.empty() && room >= kMinimumSummaryWidth) {
            text_ += aligned + styled(kDim, fitted(summary, room));
        } else {
            text_ += styled(look, fitted(name, roomAfter("")));
        }
        text_ += '\n';
    }

    /// The columns that are left on a line after its size and `text`.
    std::size_t roomAfter(std::string_view text) const {
        const std::size_t used = kSizeWidth + kGapWidth + displayWidth(text);
        const std::size_t columns = style_.columns.value_or(std::string_view::npos);
        return columns - std::min(columns, used);
    }

    std::string styled(const char* look, const std::string& text) const {
        return style_.columns ? look + text + kPlain : text;
    }

    const std::vector<Section>& sections_;
    const Statistics& statistics_;
    const ListingStyle& style_;
    std::map<std::string, std::size_t> nameCounts_;
    std::size_t nameWidth_ = 0;
    std::string text_;
};

}  // namespace

std::vector<Section> sections(const SectionIndex& index,
                              const std::vector<MeasuredPackage>& packages) {
    std::vector<Section> sorted;
    for (const auto& [name, places] : index) {
        Section section;
        section.name = name;
        for (const std::size_t place : places) {
            const MeasuredPackage& package = packages.at(place);
            section.size += package.size;
            section.packages.push_back(package);
        }
        std::ranges::sort(section.packages, isListedBefore);
        sorted.push_back(std::move(section));
    }
    std::ranges::sort(sorted, isSectionListedBefore);
    return sorted;
}

std::string listing(const std::vector<Section>& sections, const Statistics& statistics,
                    const ListingStyle& style) {
    return ListingWriter(sections, statistics, style).write();
}

}  // namespace package_browser
