// A folder of a test's own, gone with it. One thread.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>

namespace kx::test {

/// @brief Writes a file, in place, in one open and close.
inline void writeFile(const std::string& path, std::string_view content) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << content;
    file.close();
    if (!file) {
        throw std::runtime_error("cannot write " + path);
    }
}

/// Makes a folder below another one, and removes it with all that is in it.
class TemporaryFolder {
public:
    explicit TemporaryFolder(const std::filesystem::path& parent = std::filesystem::temp_directory_path()) {
        std::string pattern = parent / "kxtest-XXXXXX";
        if (::mkdtemp(pattern.data()) == nullptr) {
            throw std::runtime_error("no temporary folder");
        }
        path_ = std::filesystem::canonical(pattern);
    }
    ~TemporaryFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    /// @return its path: absolute, without links, without a slash at the end
    const std::string& path() const { return path_; }

    /// @return the path of something in it
    std::string operator/(std::string_view name) const { return path_ + "/" + std::string(name); }

    /// @brief Writes a file in it, with the folders that it needs.
    /// @return its path
    std::string write(std::string_view name, std::string_view content) const {
        const std::string file = *this / name;
        std::filesystem::create_directories(std::filesystem::path(file).parent_path());
        writeFile(file, content);
        return file;
    }

    /// @return the content of a file in it; empty when there is none
    std::string read(std::string_view name) const {
        std::ifstream file(*this / name, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    }

private:
    std::string path_;
};

}  // namespace kx::test
