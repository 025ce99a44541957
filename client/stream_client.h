#pragma once

// One stream client of the helper: connects, says hello, receives packets, acknowledges frames.
// One thread at a time.

#include <string>

#include "client/descriptor.h"
#include "client/packet_parser.h"

namespace lumora::client {

class StreamClient {
 public:
  // Connects to `host` (a numeric address); throws std::system_error.
  StreamClient(const std::string& host, std::uint16_t port);

  // False when the connection is gone.
  bool sayHello(const std::string& token);
  bool acknowledge(std::uint64_t frameID);
  bool sendText(const std::string& text);

  // The next packet, or nothing when none came in time or the helper closed the connection (see
  // `isClosed`). Throws std::runtime_error on bytes that no helper sends.
  std::optional<Packet> receive(double timeoutSeconds);
  bool isClosed() const { return closed_; }

 private:
  Descriptor socket_;
  PacketParser parser_;
  std::vector<std::uint8_t> space_;
  bool closed_ = false;
};

}  // namespace lumora::client
