// Owner of a file descriptor. Movable, one owner; no thread of its own.
#pragma once

#include <unistd.h>

#include <utility>

namespace kx::agent::lxc {

/// Closes its descriptor when it goes.
class FileDescriptor {
public:
    FileDescriptor() = default;

    /// @param number an open descriptor, which this object owns from now on, or -1 for none
    explicit FileDescriptor(int number) : number_(number) {}

    FileDescriptor(FileDescriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        std::swap(number_, other.number_);
        return *this;
    }
    ~FileDescriptor() { reset(); }

    /// @return the descriptor; -1 when there is none. It stays owned by this object.
    int get() const { return number_; }

    /// @return whether there is a descriptor
    explicit operator bool() const { return number_ >= 0; }

    /// @brief Closes the descriptor now.
    void reset() {
        if (number_ >= 0)
            ::close(number_);
        number_ = -1;
    }

private:
    int number_ = -1;
};

}  // namespace kx::agent::lxc
