// Addresses of a container: an IP address with its mask, an IPv6 address with its prefix length.
#pragma once

#include <cstdint>
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

/// @brief An IPv6 address and the length of its network's prefix.
class KXLInet6Address {
public:
    KXLInet6Address() = default;
    KXLInet6Address(std::string address, std::uint32_t prefixLength)
        : address_(std::move(address)), prefixLength_(prefixLength) {}

    /// @return the address as text; usually its shortest form (RFC 5952), but nothing here checks that
    const std::string& getAddress() const { return address_; }

    /// @return bits, 0 to 128
    std::uint32_t getPrefixLength() const { return prefixLength_; }

private:
    std::string address_;
    std::uint32_t prefixLength_ = 0;
};
