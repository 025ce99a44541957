#include "system/asio_network.h"

#include <algorithm>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/write.hpp>
#include <chrono>
#include <utility>

namespace lumora {
namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;
namespace {

class AsioConnection final : public TcpConnection,
                             public std::enable_shared_from_this<AsioConnection> {
 public:
  explicit AsioConnection(tcp::socket socket) : socket_(std::move(socket)) {}

  void setEndHandler(EndHandler handler) override { endHandler_ = std::move(handler); }

  // The socket is connected already. Only TCP_NODELAY is left to set.
  void start() override {
    error_code error;
    socket_.set_option(tcp::no_delay(true), error);
    if (error) reportEnd();
  }

  void receive(std::size_t maximum, ReceiveHandler handler) override {
    received_.resize(maximum);
    socket_.async_read_some(
        asio::buffer(received_), [self = shared_from_this(), handler = std::move(handler)](
                                     const error_code& error, std::size_t count) {
          const bool complete = error == asio::error::eof;
          const std::error_code failure = complete ? std::error_code() : std::error_code(error);
          handler(ByteView(self->received_).first(count), complete, failure);
        });
  }

  void send(std::vector<SharedBytes> parts, SendHandler handler) override {
    std::vector<asio::const_buffer> buffers;
    buffers.reserve(parts.size());
    for (const SharedBytes& part : parts) buffers.push_back(asio::buffer(*part));
    asio::async_write(
        socket_, buffers,
        [self = shared_from_this(), parts = std::move(parts), handler = std::move(handler)](
            const error_code& error, std::size_t) { handler(std::error_code(error)); });
  }

  void cancel() override {
    error_code ignored;
    socket_.close(ignored);
    reportEnd();
  }

  void reset() override {
    error_code ignored;
    socket_.set_option(tcp::socket::linger(true, 0), ignored);
    cancel();
  }

 private:
  void reportEnd() {
    asio::post(socket_.get_executor(), [self = shared_from_this()] {
      if (self->endHandler_) self->endHandler_();
    });
  }

  tcp::socket socket_;
  Bytes received_;
  EndHandler endHandler_;
};

class AsioListener final : public TcpListener, public std::enable_shared_from_this<AsioListener> {
 public:
  AsioListener(asio::io_context& context, std::string host, std::uint16_t port)
      : resolver_(context),
        acceptor_(context),
        retry_(context),
        host_(std::move(host)),
        requestedPort_(port) {}

  void setStateHandler(StateHandler handler) override { stateHandler_ = std::move(handler); }
  void setConnectionHandler(ConnectionHandler handler) override {
    connectionHandler_ = std::move(handler);
  }

  void start() override {
    resolver_.async_resolve(
        host_, std::to_string(requestedPort_),
        tcp::resolver::passive | tcp::resolver::numeric_service,
        [self = shared_from_this()](const error_code& error,
                                    const tcp::resolver::results_type& results) {
          if (error == asio::error::operation_aborted) return;
          self->report(self->listenOnFirst(results) ? ListenerState::ready : ListenerState::failed);
        });
  }

  void acceptConnections() override {
    acceptor_.async_accept(
        [self = shared_from_this()](const error_code& error, tcp::socket socket) {
          if (error == asio::error::operation_aborted) return;
          if (error) return self->acceptFailed(error);
          if (self->connectionHandler_) {
            self->connectionHandler_(std::make_shared<AsioConnection>(std::move(socket)));
          }
          self->acceptConnections();
        });
  }

  std::uint16_t port() const override {
    error_code error;
    const tcp::endpoint endpoint = acceptor_.local_endpoint(error);
    return error ? std::uint16_t{0} : endpoint.port();
  }

  void cancel() override {
    error_code ignored;
    resolver_.cancel();
    acceptor_.close(ignored);
    retry_.cancel();
  }

 private:
  // Binds the first resolved address that this machine has. Fails if that address is in use, and
  // does not try the next one.
  bool listenOnFirst(const tcp::resolver::results_type& results) {
    for (const auto& entry : results) {
      try {
        acceptor_ = tcp::acceptor(acceptor_.get_executor(), entry.endpoint());
        return true;
      } catch (const boost::system::system_error& refused) {
        if (refused.code() != asio::error::address_family_not_supported &&
            refused.code() != boost::system::errc::address_not_available) {
          return false;
        }
      }
    }
    return false;
  }

  // Retries, since the client may be gone already, or the machine may have run short of descriptors
  // or memory for a moment. If the listening socket itself is unusable, reports failure.
  void acceptFailed(const error_code& error) {
    if (error == asio::error::bad_descriptor || error == asio::error::invalid_argument) {
      return report(ListenerState::failed);
    }
    retry_.expires_after(std::chrono::milliseconds(100));
    retry_.async_wait([self = shared_from_this()](const error_code& cancelled) {
      if (!cancelled) self->acceptConnections();
    });
  }

  void report(ListenerState state) {
    if (stateHandler_) stateHandler_(state);
  }

  tcp::resolver resolver_;
  tcp::acceptor acceptor_;
  asio::steady_timer retry_;
  std::string host_;
  std::uint16_t requestedPort_;
  StateHandler stateHandler_;
  ConnectionHandler connectionHandler_;
};

bool isNameCharacter(char character) {
  const auto byte = static_cast<unsigned char>(character);
  return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
         (byte >= '0' && byte <= '9') || byte == '-' || byte == '.' || byte == '_' || byte >= 0x80;
}

bool canBeHost(const std::string& host) {
  error_code error;
  asio::ip::make_address(host, error);
  return !error || std::ranges::all_of(host, isNameCharacter);
}

}  // namespace

AsioNetwork::AsioNetwork(std::shared_ptr<AsioQueue> stateQueue)
    : stateQueue_(std::move(stateQueue)) {}

std::shared_ptr<TcpListener> AsioNetwork::makeListener(const std::string& host,
                                                       std::uint16_t port) {
  if (!canBeHost(host)) {
    throw std::system_error(std::make_error_code(std::errc::invalid_argument), host);
  }
  return std::make_shared<AsioListener>(stateQueue_->context(), host, port);
}

}  // namespace lumora
