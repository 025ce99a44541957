#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include <lumora/stream_client.h>

namespace lumora::viewer {

struct HelperAddress {
  std::string host = "127.0.0.1";  // numeric
  std::uint16_t port = 0;
  std::string token;
};

// The helper's stream on a thread of its own, connected again when it breaks off.
class StreamSource {
 public:
  // Called on that thread.
  struct Handlers {
    std::function<void(client::Packet)> packet;
    std::function<void()> connected;
    std::function<void(const std::string& why)> failed;  // or broken off; tried again
  };
  StreamSource(HelperAddress from, Handlers handlers);
  ~StreamSource();
  StreamSource(const StreamSource&) = delete;
  StreamSource& operator=(const StreamSource&) = delete;

  // Any thread.
  void acknowledge(std::uint64_t frameID);

 private:
  void run(const std::stop_token& stop);
  // Until it breaks off; why it has. Nothing escapes.
  std::string watch(client::StreamClient& stream, const std::stop_token& stop);
  void setCurrent(client::StreamClient* stream);

  const HelperAddress from_;
  const Handlers handlers_;
  std::mutex mutex_;  // guards the next
  client::StreamClient* current_ = nullptr;
  std::jthread thread_;
};

}  // namespace lumora::viewer
