#include <lumora/stream_client.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
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

std::system_error lastError(const char* what) { return {errno, std::generic_category(), what}; }

Descriptor connectTo(const std::string& host, std::uint16_t port) {
  addrinfo hints{};
  hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found) != 0) {
    throw std::system_error(std::make_error_code(std::errc::invalid_argument), host);
  }
  const std::unique_ptr<addrinfo, void (*)(addrinfo*)> address(found, freeaddrinfo);
  Descriptor socket(::socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!socket.isOpen()) throw lastError("socket");
  if (connect(socket.get(), found->ai_addr, found->ai_addrlen) != 0) throw lastError("connect");
  const int on = 1;
  setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  return socket;
}

}  // namespace

struct StreamClient::Connection {
  Descriptor socket;
  PacketParser parser{};
  std::vector<std::uint8_t> space = std::vector<std::uint8_t>(readBytes);
  bool isClosed = false;
};

StreamClient::StreamClient(const std::string& host, std::uint16_t port)
    : connection_(std::make_unique<Connection>(Connection{connectTo(host, port)})) {}
StreamClient::~StreamClient() = default;
StreamClient::StreamClient(StreamClient&& other) noexcept = default;
StreamClient& StreamClient::operator=(StreamClient&& other) noexcept = default;

bool StreamClient::isClosed() const { return connection_->isClosed; }

bool StreamClient::sayHello(const std::string& token) {
  return sendText(nlohmann::json{{"type", "hello"}, {"token", token}}.dump() + "\n");
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

std::optional<Packet> StreamClient::receive(double timeoutSeconds) {
  auto& [socket, parser, space, isClosed] = *connection_;
  const Deadline deadline(timeoutSeconds);
  for (;;) {
    if (auto packet = parser.next()) return packet;
    if (isClosed || !waitReadable(socket.get(), deadline)) return std::nullopt;
    const ssize_t count = recv(socket.get(), space.data(), space.size(), 0);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0)
      isClosed = true;
    else
      parser.feed({space.data(), static_cast<std::size_t>(count)});
  }
}

void StreamClient::watch(const std::function<void(Packet)>& handle,
                         const std::function<bool()>& goesOn) {
  while (goesOn() && !isClosed()) {
    auto packet = receive(0.1);
    if (!packet) continue;
    const bool isFrame = packet->type == Packet::Type::frame;
    const std::uint64_t id = packet->frameID;
    handle(*std::move(packet));
    if (isFrame) acknowledge(id);
  }
}

}  // namespace lumora::client
