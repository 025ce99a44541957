#pragma once

// A client of the helper's stream: connects, says hello, receives packets, acknowledges frames. One
// thread at a time.

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
  // Connects to `host`, a numeric address. Throws std::system_error.
  StreamClient(const std::string& host, std::uint16_t port);
  ~StreamClient();
  StreamClient(StreamClient&& other) noexcept;
  StreamClient& operator=(StreamClient&& other) noexcept;

  // False when the connection is gone.
  bool sayHello(const std::string& token);
  // A helper drops a client that leaves a frame unacknowledged for half a second.
  bool acknowledge(std::uint64_t frameID);
  bool sendText(const std::string& text);

  // The next packet. Empty if none arrived in time, or if the helper has closed the connection (see
  // `isClosed`). Throws std::runtime_error for bytes that no helper sends.
  std::optional<Packet> receive(double timeoutSeconds);
  bool isClosed() const;
  // Receives packets until the helper closes the connection (see `isClosed`) or `goesOn` returns
  // false. Passes each packet to `handle`, which has to return within 80 ms, and then acknowledges
  // the frame. Calls `goesOn` before each packet and ten times a second. Throws what `receive` and
  // `handle` throw.
  void watch(
      const std::function<void(Packet)>& handle,
      const std::function<bool()>& goesOn = [] { return true; });

 private:
  struct Connection;
  std::unique_ptr<Connection> connection_;
};

}  // namespace lumora::client
