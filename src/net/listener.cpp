#include "net/listener.h"

namespace kalvo {

boost::system::error_code OpenListener(boost::asio::ip::tcp::acceptor& acceptor,
                                       const boost::asio::ip::tcp::endpoint& endpoint) {
  using boost::asio::ip::tcp;
  boost::system::error_code ec;
  acceptor.open(endpoint.protocol(), ec);
  // A restarted server must get its port back while old connections are in TIME_WAIT.
  if (!ec) acceptor.set_option(tcp::acceptor::reuse_address(true), ec);
  if (!ec) acceptor.bind(endpoint, ec);
  if (!ec) acceptor.listen(boost::asio::socket_base::max_listen_connections, ec);
  if (ec) {
    boost::system::error_code ignored;
    acceptor.close(ignored);
  }
  return ec;
}

}  // namespace kalvo
