// A folder of a test's own, removed with everything in it. One thread.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "agent/backends/lxc/LogSink.h"

namespace kx::agent::lxc {

/// Made under the system's folder for temporary files.
class TestFolder {
public:
    TestFolder() {
        std::string pattern = (std::filesystem::temp_directory_path() / "kxlxc.XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) {
            throw std::runtime_error("no temporary folder");
        }
        path_ = pattern;
    }
    ~TestFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TestFolder(const TestFolder&) = delete;
    TestFolder& operator=(const TestFolder&) = delete;

    /// @return the folder's path, without a slash at the end
    const std::string& path() const { return path_; }

    /// @return the path of something in the folder
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

    /// @brief Writes a file, with the folders it needs.
    void write(const std::string& name, const std::string& text) const {
        std::filesystem::create_directories(std::filesystem::path(*this / name).parent_path());
        std::ofstream(*this / name, std::ios::binary) << text;
    }

    /// @return a file's content
    std::string read(const std::string& name) const {
        std::ostringstream text;
        text << std::ifstream(*this / name, std::ios::binary).rdbuf();
        return text.str();
    }

private:
    std::string path_;
};

/// Keeps log lines for a test to look at.
struct LogLines {
    std::vector<std::pair<Severity, std::string>> lines;

    LogSink sink() {
        return [this](Severity severity, const std::string& line) { lines.emplace_back(severity, line); };
    }
    std::size_t count(Severity severity) const {
        std::size_t result = 0;
        for (const auto& line : lines) {
            result += line.first == severity ? 1U : 0U;
        }
        return result;
    }
};

}  // namespace kx::agent::lxc
