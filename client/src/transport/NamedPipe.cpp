#include <kxl/KXLNamedPipePrototype.h>

#include <sys/un.h>

#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/post.hpp>

#include "client/src/transport/Transport.h"

namespace kx::client {

namespace {

using boost::asio::local::stream_protocol;

class NamedPipeTransport : public Transport {
public:
    std::shared_ptr<StreamSocket> connect(boost::asio::io_context& context, const KXLConnectivityInfo& info,
                                          ConnectHandler handler) const override;
};

void failLater(const std::shared_ptr<StreamSocket>& socket, boost::system::error_code error,
               Transport::ConnectHandler handler) {
    boost::asio::post(socket->get_executor(),
                      [socket, error, handler = std::move(handler)] { handler(error, socket); });
}

std::shared_ptr<StreamSocket> NamedPipeTransport::connect(boost::asio::io_context& context,
                                                          const KXLConnectivityInfo& info,
                                                          ConnectHandler handler) const {
    auto socket = std::make_shared<StreamSocket>(context);
    // A longer path would make the endpoint throw.
    if (info.getAddress().size() >= sizeof(sockaddr_un::sun_path)) {
        failLater(socket, boost::asio::error::name_too_long, std::move(handler));
        return socket;
    }
    boost::system::error_code error;
    // Opened by hand, since async_connect would throw away why opening failed (no descriptors left).
    socket->open(stream_protocol(), error);
    if (error) {
        failLater(socket, error, std::move(handler));
        return socket;
    }
    socket->async_connect(
        stream_protocol::endpoint(info.getAddress()),
        [socket, handler = std::move(handler)](boost::system::error_code result) { handler(result, socket); });
    return socket;
}

}  // namespace

}  // namespace kx::client

const char* const KXLNamedPipePrototype::typeName = "NamedPipe";

KXLNamedPipePrototype::KXLNamedPipePrototype() {
    kx::client::registerTransport(typeName, std::make_shared<kx::client::NamedPipeTransport>());
}
