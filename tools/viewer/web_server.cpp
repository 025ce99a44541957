#include "tools/viewer/web_server.h"

#include <fcntl.h>

#include <chrono>
#include <utility>

#include "tools/viewer/http_session.h"

namespace lumora::viewer {
namespace asio = boost::asio;
using asio::ip::tcp;

namespace {

constexpr long maximumSessions =
    32;  // connections that are open at once, but for the page's socket

}  // namespace

WebServer::WebServer(asio::io_context& context, std::uint16_t port, std::string secret)
    : acceptor_(context, {asio::ip::address_v4::loopback(), port}),
      retry_(context),
      rules_(acceptor_.local_endpoint().port(), std::move(secret)) {
  fcntl(acceptor_.native_handle(), F_SETFD, FD_CLOEXEC);  // what we start must not hold the port
}

void WebServer::start(WebHandlers handlers) {
  handlers_ = std::move(handlers);
  acceptNext();
}

void WebServer::acceptNext() {
  acceptor_.async_accept([this](const boost::system::error_code& error, tcp::socket socket) {
    if (error == asio::error::operation_aborted) return;
    if (error) return acceptLater();
    if (sessions_.use_count() <= maximumSessions) {
      std::make_shared<HttpSession>(std::move(socket), rules_, handlers_, sessions_)->start();
    }
    acceptNext();
  });
}

// Without a descriptor to be had the next attempt would fail as this one did.
void WebServer::acceptLater() {
  retry_.expires_after(std::chrono::milliseconds(100));
  retry_.async_wait([this](const boost::system::error_code& error) {
    if (!error) acceptNext();
  });
}

}  // namespace lumora::viewer
