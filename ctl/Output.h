// Standard output, line by line. Main thread only.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace kx::ctl {

/// @brief Writes lines at once, without a buffer. Waits while the reader takes nothing, unless it is told to stop.
class Output {
public:
    enum class Result {
        Written,
        Stopped,  ///< told to stop; the line may have been written in part
        Closed,   ///< nobody reads any more
    };

    /// @param descriptor where to write
    /// @param stop a descriptor that becomes readable when writing is to end; -1: none
    Output(int descriptor, int stop) : descriptor_(descriptor), stop_(stop) {}

    /// @brief Writes a text as it is.
    /// @throws Failure when it cannot be written: a full disk
    Result write(std::string_view text);

    /// @brief Writes a line and its end.
    /// @throws Failure when it cannot be written: a full disk
    Result writeLine(std::string line);

    /// @brief Writes several, until one of them is not written.
    Result writeLines(const std::vector<std::string>& lines);

    int descriptor() const { return descriptor_; }

private:
    Result waitUntilWritable() const;

    const int descriptor_;
    const int stop_;
};

}  // namespace kx::ctl
