#include "tools/watched_stream.h"

#include <chrono>
#include <system_error>
#include <thread>
#include <utility>

namespace lumora::tools {

std::string WatchedStream::watch(const std::stop_token& stop, client::Seconds patience) {
  lastReceived_ = client::Uptime::now();
  for (;;) {
    std::string why = watchOnce(stop);
    {
      const std::lock_guard hold(mutex_);
      stream_.reset();
    }
    if (stop.stop_requested() || client::Uptime::now() - lastReceived_ >= patience) return why;
    if (handlers_.failed) handlers_.failed(why);
    std::this_thread::sleep_for(std::chrono::milliseconds(250));
    if (stop.stop_requested()) return why;
  }
}

// Connects, and watches until the connection ends or `stop` is requested. Returns why the
// connection failed or ended.
std::string WatchedStream::watchOnce(const std::stop_token& stop) {
  const std::string place = from_.host + ", port " + std::to_string(from_.port);
  try {
    client::StreamClient made(from_.host, from_.port);
    made.sayHello(from_.token);
    const std::lock_guard hold(mutex_);
    stream_ = std::move(made);
  } catch (const std::system_error& error) {
    return "There is no helper at " + place + " (" + error.what() + ").";
  }
  bool connected = false;
  while (!stop.stop_requested() && !stream_->isClosed()) {
    std::optional<client::Packet> packet;
    try {
      packet = stream_->receive(client::Seconds(0.1));
    } catch (const std::runtime_error&) {
      return "The program at " + place + " is not a helper.";
    }
    if (!packet) continue;
    lastReceived_ = client::Uptime::now();
    if (!std::exchange(connected, true) && handlers_.connected) handlers_.connected();
    handlers_.packet(*std::move(packet));
  }
  if (connected) lastReceived_ = client::Uptime::now();
  if (stream_->end() == client::StreamEnd::noRoom)
    return "The helper has no room: two clients watch already, or too many are connecting.";
  if (stream_->end() == client::StreamEnd::refused)
    return "The helper closed the connection at once. Is the token wrong, or do two clients watch "
           "already?";
  return "The helper has closed the stream.";
}

void WatchedStream::acknowledge(std::uint64_t frameID) {
  const std::lock_guard hold(mutex_);
  if (stream_) stream_->acknowledge(frameID);
}

}  // namespace lumora::tools
