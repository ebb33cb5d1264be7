// How an access point reaches its agent. Plain values.
#pragma once

#include <cstdint>
#include <string>

#include <kxl/KXLGUID.h>

/// @brief Where the agent is: a transport type, an address in that transport's form, and a number of its own.
class KXLConnectivityInfo {
public:
    const std::string& getType() const { return type_; }
    const std::string& getAddress() const { return address_; }
    int getNumber() const { return number_; }

    /// @param type name of a registered transport, e.g. "NamedPipe"
    void setType(std::string type) { type_ = std::move(type); }
    /// @param address for "NamedPipe" the path of the socket, at most 107 bytes (unix(7))
    void setAddress(std::string address) { address_ = std::move(address); }
    void setNumber(int number) { number_ = number; }

private:
    std::string type_;
    std::string address_;
    int number_ = 0;
};

/// @brief Credentials. Default-made it carries none; local agents look at the socket's peer instead.
struct KXLAuthName {
    std::string name;
    std::string realm;
    std::uint32_t flags = 0;
    std::uint32_t kind = 0;
    KXLGUID id;
};

/// @brief Everything a connection needs.
struct KXLConnectionInfo {
    KXLConnectivityInfo connectivity;
    KXLAuthName authName;
    std::string options;
};
