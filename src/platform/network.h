#pragma once

// Plain TCP: a listener and its connections. Every handler runs on the state queue, never inside a
// call of this interface.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <system_error>

#include "base/bytes.h"

namespace lumora {

class TcpConnection {
 public:
  // `bytes` are valid during the call only. `complete` is set when the peer closed its side.
  using ReceiveHandler = std::function<void(ByteView bytes, bool complete, std::error_code error)>;
  using SendHandler = std::function<void(std::error_code error)>;
  using EndHandler = std::function<void()>;

  virtual ~TcpConnection() = default;
  // `handler` runs after `cancel`, `reset` or a failed `start`. If `handler` is empty, none runs.
  virtual void setEndHandler(EndHandler handler) = 0;
  virtual void start() = 0;
  // Starts one read of 1 to `maximum` bytes.
  virtual void receive(std::size_t maximum, ReceiveHandler handler) = 0;
  // Sends `parts` back to back as one message. The handler runs once the network stack has taken
  // all bytes, or the send has failed. At most one send at a time.
  virtual void send(std::vector<SharedBytes> parts, SendHandler handler) = 0;
  // Closes the connection. Outstanding handlers run with an error.
  virtual void cancel() = 0;
  // Closes the connection and discards what the network stack has not sent yet.
  virtual void reset() = 0;
};

enum class ListenerState { ready, failed };

class TcpListener {
 public:
  using StateHandler = std::function<void(ListenerState)>;
  using ConnectionHandler = std::function<void(std::shared_ptr<TcpConnection>)>;

  virtual ~TcpListener() = default;
  virtual void setStateHandler(StateHandler handler) = 0;
  virtual void setConnectionHandler(ConnectionHandler handler) = 0;
  // Binds and listens. The state handler gets the outcome.
  virtual void start() = 0;
  // The connection handler gets connections from now on. Earlier connections wait for this call.
  virtual void acceptConnections() = 0;
  // The bound port, or 0 while there is none.
  virtual std::uint16_t port() const = 0;
  virtual void cancel() = 0;
};

class Network {
 public:
  virtual ~Network() = default;
  // Makes a listener for `host` (address or name) and `port` (0: any) without starting it. Throws
  // std::system_error when no listener can be made.
  virtual std::shared_ptr<TcpListener> makeListener(const std::string& host,
                                                    std::uint16_t port) = 0;
};

}  // namespace lumora
