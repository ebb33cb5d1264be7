// Runs kxctl within the test, and tells how it ended and what it wrote.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <kxl/KXLLog.h>

#include "ctl/Program.h"

namespace kx::test {

struct Ended {
    ctl::ExitCode code;
    std::string out;
    std::string err;
};

/// @brief Runs it with these arguments, its streams going to files.
inline Ended runKxctl(const std::vector<std::string>& arguments) {
    std::vector<const char*> argv{"kxctl"};
    for (const std::string& argument : arguments) {
        argv.push_back(argument.c_str());
    }
    setKXLLogHandler([](int, const char*) {});
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const ctl::ExitCode code = ctl::runProgram(static_cast<int>(argv.size()), argv.data());
    setKXLLogHandler(nullptr);
    return {code, testing::internal::GetCapturedStdout(), testing::internal::GetCapturedStderr()};
}

/// @brief The lines of a text, without their ends.
inline std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    for (std::size_t from = 0; from < text.size();) {
        const std::size_t end = std::min(text.find('\n', from), text.size());
        lines.push_back(text.substr(from, end - from));
        from = end + 1;
    }
    return lines;
}

}  // namespace kx::test
