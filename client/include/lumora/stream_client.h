#pragma once

// One stream client of the helper: connects, says hello, receives packets, acknowledges frames.
// One thread at a time.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <lumora/export.h>
#include <lumora/packets.h>

namespace lumora::client {

class LUMORA_CLIENT_EXPORT StreamClient {
 public:
  // Connects to `host` (a numeric address); throws std::system_error.
  StreamClient(const std::string& host, std::uint16_t port);
  ~StreamClient();
  StreamClient(StreamClient&& other) noexcept;
  StreamClient& operator=(StreamClient&& other) noexcept;

  // False when the connection is gone.
  bool sayHello(const std::string& token);
  // A helper drops a client that leaves a frame unacknowledged for half a second.
  bool acknowledge(std::uint64_t frameID);
  bool sendText(const std::string& text);

  // The next packet, or nothing when none came in time or the helper closed the connection (see
  // `isClosed`). Throws std::runtime_error on bytes that no helper sends.
  std::optional<Packet> receive(double timeoutSeconds);
  bool isClosed() const;
  // Receives until the helper closes the connection (see `isClosed`) or `goesOn`, asked after every
  // packet and ten times a second, says no. A frame is acknowledged when `handle` returns: up to
  // six wait for it, none longer than half a second, so 80 ms a frame are too long. Throws as
  // `receive`, and what `handle` throws.
  void watch(
      const std::function<void(const Packet&)>& handle,
      const std::function<bool()>& goesOn = [] { return true; });

 private:
  struct Connection;
  std::unique_ptr<Connection> connection_;
};

}  // namespace lumora::client
