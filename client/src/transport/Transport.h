// Transports by name, and what a connection over any of them looks like.
//
// Thread promise: the registry may be used from any thread; a transport's connect() belongs to the loop thread.
#pragma once

#include <boost/asio/generic/stream_protocol.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/system/error_code.hpp>
#include <functional>
#include <memory>
#include <string>

#include <kxl/KXLConnectionInfo.h>

namespace kx::client {

/// A connected byte stream, whatever the address family.
using StreamSocket = boost::asio::generic::stream_protocol::socket;

/// @brief A way to reach an agent.
class Transport {
public:
    /// Called once, on the loop thread, never inside connect(), with the socket that connect() returned. Without
    /// an error it is connected.
    using ConnectHandler = std::function<void(boost::system::error_code, std::shared_ptr<StreamSocket>)>;

    virtual ~Transport() = default;

    /// @brief Starts to connect.
    /// @return the socket, by which the caller may cancel
    virtual std::shared_ptr<StreamSocket> connect(boost::asio::io_context& context, const KXLConnectivityInfo& info,
                                                  ConnectHandler handler) const = 0;
};

/// @brief Registers a transport under a type name for the life of the process, replacing one of the same name.
void registerTransport(const std::string& typeName, std::shared_ptr<const Transport> transport);

/// @return null when no transport has that name
std::shared_ptr<const Transport> findTransport(const std::string& typeName);

}  // namespace kx::client
