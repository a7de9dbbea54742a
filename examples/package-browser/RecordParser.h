#pragma once

#include <cstddef>
#include <deque>
#include <optional>
#include <string>
#include <string_view>

#include <VantorqFoundation/VantorqFoundation.h>

#include "Package.h"

namespace package_browser {

/// Makes records of the text of a package database, which comes in chunks.
///
/// The text is a row of records, parted by blank lines. A record is a row of fields, `Name: value`,
/// whose names differ without regard to case; a line that begins with a blank continues the field
/// above it. A record that breaks these rules is rejected, and costs none of the others. Nothing
/// fails, whatever the text: at worst all records are rejected.
///
/// The borders of the chunks mean nothing. What is kept between them is a line of bounded length
/// and the fields of one record.
class RecordParser {
public:
    void take(std::string_view chunk);
    /// The text is over. Nothing may be taken any more.
    void end();

    /// The next record that is complete, in the order of the text.
    [[nodiscard]] std::optional<Record> next();

private:
    void takeLine(std::string_view line);
    void beginField(std::string_view line);
    void continueField(std::string_view line);
    void append(std::string_view text);
    void endField();
    void endRecord();
    void takeRecord();
    void reject(std::size_t line, std::string reason);

    std::deque<Record> complete_;

    // The line at hand.
    std::string line_;  // what has come of it
    std::size_t lineNumber_ = 1;

    // The record at hand.
    vantorq::Ref<vantorq::NSMutableDictionary> record_ = vantorq::NSMutableDictionary::dictionary();
    std::size_t firstLine_ = 0;  // 0: between records
    bool isRejected_ = false;
    vantorq::Ref<vantorq::NSString> fieldName_;  // in lower case; nil: no field yet
    std::string fieldValue_;
};

}  // namespace package_browser
