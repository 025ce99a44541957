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
#include <lumora/uptime.h>

namespace lumora::client {

// Why a connection has ended. The helper sends no reason, so this may be wrong: from another
// machine `noRoom` may look like `refused`, and an end that is read more than a second after the
// hello is `closed`.
enum class StreamEnd {
  none,     // it has not ended
  noRoom,   // the hello was not read: two clients are admitted, or four others wait
  refused,  // because of the hello: the token is wrong, or two others were admitted meanwhile
  closed,   // the helper has ended, or has dropped this client
};

class LUMORA_CLIENT_EXPORT StreamClient {
 public:
  // Connects to `host`, a numeric address. Throws std::system_error, also if that takes too long.
  StreamClient(const std::string& host, std::uint16_t port, Seconds limit = Seconds(5));
  ~StreamClient();
  StreamClient(StreamClient&& other) noexcept;
  StreamClient& operator=(StreamClient&& other) noexcept;

  // False when the connection is gone. The helper answers with packets once there are frames, or
  // closes the connection (see `end`).
  bool sayHello(const std::string& token);
  // A helper drops a client that leaves a frame unacknowledged for half a second.
  bool acknowledge(std::uint64_t frameID);
  bool sendText(const std::string& text);

  // The next packet. Empty if none arrived in time, or if the helper has closed the connection (see
  // `end`). If that comes before the first packet, `receive` waits up to 50 ms more to learn why.
  // Throws std::runtime_error for bytes that no helper sends.
  [[nodiscard]] std::optional<Packet> receive(Seconds limit);
  StreamEnd end() const;
  bool isClosed() const { return end() != StreamEnd::none; }
  // Can be read when bytes have arrived, or the helper has closed the connection. Then call
  // `receive` with a limit of 0 until it returns no packet.
  int descriptor() const;
  // Receives packets until the helper closes the connection (see `end`) or `goesOn` returns false.
  // Passes each packet to `handle`, which has to return within 80 ms, and then acknowledges the
  // frame. Calls `goesOn` before each packet and ten times a second. Throws what `receive` and
  // `handle` throw.
  void watch(
      const std::function<void(Packet)>& handle,
      const std::function<bool()>& goesOn = [] { return true; });

 private:
  struct Connection;
  std::unique_ptr<Connection> connection_;
};

}  // namespace lumora::client
