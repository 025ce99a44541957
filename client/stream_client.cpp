#include <lumora/stream_client.h>

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <memory>
#include <nlohmann/json.hpp>
#include <system_error>
#include <vector>

#include "client/descriptor.h"

namespace lumora::client {
namespace {

constexpr std::size_t readBytes = 256 * 1024;

std::system_error failure(int error, const char* what) {
  return {error, std::generic_category(), what};
}

// Returns and clears the socket's pending error; 0: none.
int takeError(const Descriptor& socket) {
  int error = 0;
  socklen_t size = sizeof error;
  getsockopt(socket.get(), SOL_SOCKET, SO_ERROR, &error, &size);
  return error;
}

Descriptor connectTo(const std::string& host, std::uint16_t port, Seconds limit) {
  addrinfo hints{};
  hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found) != 0) {
    throw std::system_error(std::make_error_code(std::errc::invalid_argument), host);
  }
  const std::unique_ptr<addrinfo, void (*)(addrinfo*)> address(found, freeaddrinfo);
  Descriptor socket(::socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket.isOpen()) throw failure(errno, "socket");
  if (connect(socket.get(), found->ai_addr, found->ai_addrlen) != 0) {
    if (errno != EINPROGRESS) throw failure(errno, "connect");
    if (!awaitEvents(socket.get(), POLLOUT, Deadline(limit))) throw failure(ETIMEDOUT, "connect");
    if (const int error = takeError(socket)) throw failure(error, "connect");
  }
  fcntl(socket.get(), F_SETFL, 0);  // from now on `send` blocks
  const int on = 1;
  setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  // Without these, a client on another machine learns late or never that the network is gone.
  setsockopt(socket.get(), SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
  const int seconds = 5;
  setsockopt(socket.get(), IPPROTO_TCP, TCP_KEEPIDLE, &seconds, sizeof seconds);
  setsockopt(socket.get(), IPPROTO_TCP, TCP_KEEPINTVL, &seconds, sizeof seconds);
  const unsigned milliseconds = 20'000;
  setsockopt(socket.get(), IPPROTO_TCP, TCP_USER_TIMEOUT, &milliseconds, sizeof milliseconds);
  return socket;
}

}  // namespace

struct StreamClient::Connection {
  // `error` is the errno of the last read; 0: it found the end of the stream.
  void close(int error) {
    // A helper waits a second for the hello.
    const bool isLate = asked - connectedAt > Seconds(1);
    if (wasAdmitted || isLate || Uptime::now() - asked > Seconds(1)) {
      end = StreamEnd::closed;
      return;
    }
    // A helper without room closes the connection at once. If it closes before it has read the
    // hello, its kernel sends a reset, which may come a little after the end of the stream.
    const Deadline patience(Seconds(0.05));
    const bool isUnread = !saidHello || error != 0 || awaitEvents(socket.get(), 0, patience);
    end = isUnread ? StreamEnd::noRoom : StreamEnd::refused;
  }

  Descriptor socket;
  PacketParser parser{};
  std::vector<std::uint8_t> space = std::vector<std::uint8_t>(readBytes);
  StreamEnd end = StreamEnd::none;
  Uptime::time_point connectedAt = Uptime::now();
  Uptime::time_point asked = connectedAt;  // when we said hello; before that, when we connected
  bool saidHello = false;
  bool wasAdmitted = false;
};

StreamClient::StreamClient(const std::string& host, std::uint16_t port, Seconds limit)
    : connection_(std::make_unique<Connection>(Connection{connectTo(host, port, limit)})) {}
StreamClient::~StreamClient() = default;
StreamClient::StreamClient(StreamClient&& other) noexcept = default;
StreamClient& StreamClient::operator=(StreamClient&& other) noexcept = default;

StreamEnd StreamClient::end() const { return connection_->end; }

int StreamClient::descriptor() const { return connection_->socket.get(); }

bool StreamClient::sayHello(const std::string& token) {
  connection_->saidHello = true;
  connection_->asked = Uptime::now();
  const nlohmann::json hello = {{"type", "hello"}, {"token", token}};
  return sendText(hello.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n");
}

bool StreamClient::acknowledge(std::uint64_t frameID) {
  return sendText("{\"type\":\"ack\",\"frame_id\":" + std::to_string(frameID) + "}\n");
}

bool StreamClient::sendText(const std::string& text) {
  std::size_t sent = 0;
  while (sent < text.size()) {
    const ssize_t count =
        send(connection_->socket.get(), text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    sent += static_cast<std::size_t>(count);
  }
  return true;
}

std::optional<Packet> StreamClient::receive(Seconds limit) {
  Connection& from = *connection_;
  const Deadline deadline(limit);
  for (;;) {
    if (auto packet = from.parser.next()) return packet;
    if (isClosed() || !awaitEvents(from.socket.get(), POLLIN, deadline)) return std::nullopt;
    const ssize_t count = recv(from.socket.get(), from.space.data(), from.space.size(), 0);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) {
      from.close(count < 0 ? errno : 0);
    } else {
      from.wasAdmitted = true;
      from.parser.feed({from.space.data(), static_cast<std::size_t>(count)});
    }
  }
}

void StreamClient::watch(const std::function<void(Packet)>& handle,
                         const std::function<bool()>& goesOn) {
  while (goesOn() && !isClosed()) {
    auto packet = receive(Seconds(0.1));
    if (!packet) continue;
    const bool isFrame = packet->type == Packet::Type::frame;
    const std::uint64_t id = packet->frameID;
    handle(*std::move(packet));
    if (isFrame) acknowledge(id);
  }
}

}  // namespace lumora::client
