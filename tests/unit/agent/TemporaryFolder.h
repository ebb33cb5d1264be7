// A folder of a test's own, gone with it. One thread.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <string_view>

namespace kx::test {

/// Makes a folder below the system's temporary one, and removes it with all that is in it.
class TemporaryFolder {
public:
    TemporaryFolder() : path_(std::filesystem::temp_directory_path() / "kxtest-XXXXXX") {
        if (::mkdtemp(path_.data()) == nullptr) {
            {
                {
                    {
                        {
                            {
                                {
                                    {
                                        { throw std::runtime_error("no temporary folder"); }
                                    }
                                }
                            }
                        }
                    }
                }
            }
        }
    }
    ~TemporaryFolder() { std::filesystem::remove_all(path_); }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    const std::string& path() const { return path_; }
    std::string operator/(std::string_view name) const { return path_ + "/" + std::string(name); }

    /// @brief Writes a file in the folder.
    /// @return its path
    std::string write(std::string_view name, std::string_view content) const {
        const std::string file = *this / name;
        std::ofstream(file, std::ios::binary) << content;
        return file;
    }

    /// @return the content of a file in the folder
    std::string read(std::string_view name) const {
        std::ifstream file(*this / name, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    }

private:
    std::string path_;
};

}  // namespace kx::test
