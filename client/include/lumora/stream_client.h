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

// Why a connection has ended. The helper sends no reason, so this may be wrong. A client on another
// machine may get `refused` instead of `noRoom`. A helper that ends within a second of the hello,
// before the first packet, is reported as `refused` or `noRoom`. If the client reads the end of
// the stream more than a second after the hello, the reason is always `closed`.
enum class StreamEnd {
  none,     // it has not ended
  noRoom,   // the hello was not read: two clients are admitted, or four others have not said hello
  refused,  // the hello was read: the token is wrong, or two others were admitted meanwhile
  closed,   // the helper ended or dropped this client, the hello was late, or the network is gone
};

class LUMORA_CLIENT_EXPORT StreamClient {
 public:
  // Connects to `host`, a numeric address. Throws std::system_error if that fails or takes longer
  // than `limit`.
  StreamClient(const std::string& host, std::uint16_t port, Seconds limit = Seconds(5));
  ~StreamClient();
  StreamClient(StreamClient&& other) noexcept;
  StreamClient& operator=(StreamClient&& other) noexcept;

  // Must be called within a second of connecting. False when the connection is gone. The helper
  // answers with packets once there are frames, or closes the connection (see `end`).
  bool sayHello(const std::string& token);
  // A helper drops a client that leaves a frame unacknowledged for half a second.
  bool acknowledge(std::uint64_t frameID);
  bool sendText(const std::string& text);

  // The next packet. Empty if none arrived in time, or if the helper has closed the connection (see
  // `end`). If no packet came before the end, `receive` waits up to 50 ms more to learn the reason.
  // Throws std::runtime_error for bytes that no helper sends.
  [[nodiscard]] std::optional<Packet> receive(Seconds limit);
  StreamEnd end() const;
  bool isClosed() const { return end() != StreamEnd::none; }
  // Becomes readable when bytes arrive or the helper closes the connection. Then call `receive`
  // with a limit of 0 until it returns no packet. Stays readable after the end (see `isClosed`).
  int descriptor() const;
  // Receives packets until the helper closes the connection (see `end`) or `goesOn` returns false.
  // Passes each packet to `handle`, which has to return within 80 ms, and then acknowledges the
  // frame. Calls `goesOn` before each packet, and every 100 ms while none arrives. Throws what
  // `receive` and `handle` throw.
  void watch(
      const std::function<void(Packet)>& handle,
      const std::function<bool()>& goesOn = [] { return true; });

 private:
  struct Connection;
  std::unique_ptr<Connection> connection_;
};

}  // namespace lumora::client
