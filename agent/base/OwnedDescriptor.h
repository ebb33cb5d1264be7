// An owned file descriptor. A value that can be moved; no thread of its own.
#pragma once

#include <unistd.h>

#include <utility>

namespace kx::agent {

/// Closes its descriptor when it goes.
class OwnedDescriptor {
public:
    OwnedDescriptor() = default;

    /// @param descriptor taken over; negative: none
    explicit OwnedDescriptor(int descriptor) : descriptor_(descriptor) {}
    ~OwnedDescriptor() { reset(); }
    OwnedDescriptor(OwnedDescriptor&& other) noexcept : descriptor_(other.release()) {}
    OwnedDescriptor& operator=(OwnedDescriptor&& other) noexcept {
        if (this != &other) {
            reset();
            descriptor_ = other.release();
        }
        return *this;
    }

    int get() const { return descriptor_; }

    /// @brief Gives the descriptor to the caller, who closes it from now on.
    int release() { return std::exchange(descriptor_, -1); }
    explicit operator bool() const { return descriptor_ >= 0; }

    /// @brief Closes the descriptor now.
    void reset() {
        if (descriptor_ >= 0) {
            ::close(descriptor_);
        }
        descriptor_ = -1;
    }

private:
    int descriptor_ = -1;
};

}  // namespace kx::agent
