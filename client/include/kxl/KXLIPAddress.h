// An IP address of a container with its mask.
#pragma once

#include <string>
#include <utility>

/// @brief Two texts, as the configuration gives them: usually dotted quads, but nothing here checks that.
class KXLIPAddress {
public:
    KXLIPAddress() = default;
    KXLIPAddress(std::string address, std::string mask) : address_(std::move(address)), mask_(std::move(mask)) {}

    const std::string& getAddress() const { return address_; }
    const std::string& getMask() const { return mask_; }

    /// @return 0 when address and mask are equal; otherwise the sign of the first difference, address first
    int compare(const KXLIPAddress& other) const {
        const int byAddress = address_.compare(other.address_);
        return byAddress != 0 ? byAddress : mask_.compare(other.mask_);
    }

private:
    std::string address_;
    std::string mask_;
};
