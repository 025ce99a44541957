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
  // Hands each packet to `handle` and acknowledges a frame when it returns, which has to take less
  // than 80 ms, until the helper closes the connection (see `isClosed`) or `goesOn`, asked before
  // each packet and ten times a second, says no. Throws as `receive` and `handle` do.
  void watch(
      const std::function<void(Packet)>& handle,
      const std::function<bool()>& goesOn = [] { return true; });

 private:
  struct Connection;
  std::unique_ptr<Connection> connection_;
};

}  // namespace lumora::client
