// Opening a listening TCP socket.
#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <boost/system/error_code.hpp>

namespace kalvo {

// Opens `acceptor` on `endpoint`'s protocol, allows the address to be reused, binds it and
// starts listening with the system's largest backlog. Gives the first error, in which case
// `acceptor` is closed again; an empty error code when it is listening. `acceptor` must be
// closed when called.
boost::system::error_code OpenListener(boost::asio::ip::tcp::acceptor& acceptor,
                                       const boost::asio::ip::tcp::endpoint& endpoint);

}  // namespace kalvo
