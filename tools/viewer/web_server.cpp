#include "tools/viewer/web_server.h"

#include <fcntl.h>

#include <chrono>
#include <utility>

#include "tools/viewer/http_session.h"

namespace lumora::viewer {
namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;

WebServer::WebServer(asio::io_context& context, std::uint16_t port, const std::string& secret)
    : acceptor_(context, {asio::ip::address_v4::loopback(), port}),
      retry_(context),
      rules_(acceptor_.local_endpoint().port(), secret) {
  fcntl(acceptor_.native_handle(), F_SETFD, FD_CLOEXEC);  // a child must not keep the port in use
}

void WebServer::start(WebHandlers handlers) {
  handlers_ = std::move(handlers);
  acceptNext();
}

void WebServer::acceptNext() {
  constexpr long maximumSessions = 32;  // connections open at once, without the page's socket
  acceptor_.async_accept([this](const error_code& error, tcp::socket socket) {
    if (error == asio::error::operation_aborted) return;
    if (error) {  // descriptors have run out, so the next attempt has to wait
      retry_.expires_after(std::chrono::milliseconds(100));
      return retry_.async_wait([this](const error_code& aborted) {
        if (!aborted) acceptNext();
      });
    }
    if (sessions_.use_count() <= maximumSessions) {
      std::make_shared<HttpSession>(std::move(socket), rules_, handlers_, sessions_)->readRequest();
    }
    acceptNext();
  });
}

}  // namespace lumora::viewer
