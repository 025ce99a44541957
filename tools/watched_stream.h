#pragma once

#include <mutex>
#include <stop_token>

#include <lumora/stream_client.h>

namespace lumora::tools {

struct HelperAddress {
  std::string host = "127.0.0.1";  // numeric
  std::uint16_t port = 0;
  std::string token = {};
};

// A helper's stream, which is connected again whenever it breaks off.
class WatchedStream {
 public:
  // Called on the thread that watches. All but `packet` are optional.
  struct Handlers {
    std::function<void(client::Packet)> packet;
    std::function<void()> connected = {};                     // before a connection's first packet
    std::function<void(const std::string& why)> failed = {};  // before a retry
  };
  WatchedStream(HelperAddress from, Handlers handlers)
      : from_(std::move(from)), handlers_(std::move(handlers)) {}

  // Watches until `stop` is requested. When a connection fails or ends, retries after 250 ms. But
  // if the last connection that brought packets ended at least `patience` ago, returns instead.
  // Until there is such a connection, `patience` counts from the call. Returns why the last
  // connection failed or ended; after `stop` this reason may be wrong. Throws what the handlers
  // throw.
  std::string watch(const std::stop_token& stop, client::Seconds patience);
  // Acknowledges a frame to the helper. Any thread.
  void acknowledge(std::uint64_t frameID);

 private:
  std::string watchOnce(const std::stop_token& stop);

  const HelperAddress from_;
  const Handlers handlers_;
  // The last time when a connection that brought packets was open. Before the first one, the time
  // when `watch` began.
  client::Uptime::time_point lastReceived_;
  std::mutex mutex_;  // held while `stream_` is replaced, and by `acknowledge`
  std::optional<client::StreamClient> stream_;
};

}  // namespace lumora::tools
