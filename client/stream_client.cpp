#include "client/stream_client.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cerrno>
#include <memory>
#include <nlohmann/json.hpp>
#include <system_error>

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

StreamClient::StreamClient(const std::string& host, std::uint16_t port)
    : socket_(connectTo(host, port)), space_(readBytes) {}

bool StreamClient::sayHello(const std::string& token) {
  return sendText(nlohmann::json{{"type", "hello"}, {"token", token}}.dump() + "\n");
}

bool StreamClient::acknowledge(std::uint64_t frameID) {
  return sendText("{\"type\":\"ack\",\"frame_id\":" + std::to_string(frameID) + "}\n");
}

bool StreamClient::sendText(const std::string& text) {
  std::size_t sent = 0;
  while (sent < text.size()) {
    const ssize_t count = send(socket_.get(), text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    sent += static_cast<std::size_t>(count);
  }
  return true;
}

std::optional<Packet> StreamClient::receive(double timeoutSeconds) {
  const Deadline deadline(timeoutSeconds);
  for (;;) {
    if (auto packet = parser_.next()) return packet;
    if (closed_ || !waitReadable(socket_.get(), deadline)) return std::nullopt;
    const ssize_t count = recv(socket_.get(), space_.data(), space_.size(), 0);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0)
      closed_ = true;
    else
      parser_.feed({space_.data(), static_cast<std::size_t>(count)});
  }
}

}  // namespace lumora::client
