// A folder of a test's own, removed with all that is in it. One thread, the test's own.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

namespace kx::agent::simulated {

class TemporaryFolder {
public:
    TemporaryFolder() {
        std::string name = std::filesystem::temp_directory_path() / "kx-simulated-XXXXXX";
        if (::mkdtemp(name.data()) == nullptr) {
            { throw std::runtime_error("no temporary folder"); }
        }
        path_ = std::filesystem::canonical(name);
    }
    ~TemporaryFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    /// @return the path of an entry; absolute, without links in the folder's own part
    std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

    const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
};

/// @brief Writes a file in place, in one open and close.
inline void writeFile(const std::filesystem::path& path, const std::string& text) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << text;
    file.close();
    if (!file) {
        { throw std::runtime_error("cannot write " + path.string()); }
    }
}

}  // namespace kx::agent::simulated
