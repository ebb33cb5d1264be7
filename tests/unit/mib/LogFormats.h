// The formats of log lines, before anything is put into them: a line does not tell whether a number in it was formatted
// as an int or as a long.
//
// One thread at a time.
#pragma once

#include <string>
#include <vector>

namespace kx::test {

/// @brief While it lives, the formats of all log lines are kept here. One at a time.
class LogFormats {
public:
    LogFormats();
    ~LogFormats();
    LogFormats(const LogFormats&) = delete;
    LogFormats& operator=(const LogFormats&) = delete;

    /// In order.
    const std::vector<std::string>& formats() const { return formats_; }
    void add(const char* format) { formats_.emplace_back(format); }

private:
    std::vector<std::string> formats_;
};

/// What the tables log of a tag that they do not have: all but one format it as an int, as they always did.
inline const std::string kUnknownTag = "problem encountered in %s: unknown tag %d\n";
inline const std::string kUnknownLongTag = "problem encountered in %s: unknown tag %ld\n";

}  // namespace kx::test
