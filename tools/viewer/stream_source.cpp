#include "tools/viewer/stream_source.h"

#include <chrono>
#include <condition_variable>
#include <exception>
#include <utility>

namespace lumora::viewer {
namespace {

constexpr std::chrono::milliseconds pauseBetweenAttempts{500};

void pauseUnlessStopped(const std::stop_token& stop) {
  std::mutex unshared;
  std::unique_lock hold(unshared);
  std::condition_variable_any stopped;
  stopped.wait_for(hold, stop, pauseBetweenAttempts, [] { return false; });
}

}  // namespace

StreamSource::StreamSource(HelperAddress from, Handlers handlers)
    : from_(std::move(from)),
      handlers_(std::move(handlers)),
      thread_([this](const std::stop_token& stop) { run(stop); }) {}

StreamSource::~StreamSource() = default;

void StreamSource::run(const std::stop_token& stop) {
  while (!stop.stop_requested()) {
    try {
      client::StreamClient stream(from_.host, from_.port);
      stream.sayHello(from_.token);
      const std::string why = watch(stream, stop);
      setCurrent(nullptr);
      handlers_.failed(why);
    } catch (const std::exception& error) {
      handlers_.failed("There is no helper at " + from_.host + ", port " +
                       std::to_string(from_.port) + " (" + error.what() + ").");
    }
    pauseUnlessStopped(stop);
  }
}

std::string StreamSource::watch(client::StreamClient& stream, const std::stop_token& stop) {
  setCurrent(&stream);
  bool connected = false;  // once something comes: who is not admitted is closed without a word
  try {
    while (!stop.stop_requested() && !stream.isClosed()) {
      auto packet = stream.receive(0.1);
      if (!packet) continue;
      if (!std::exchange(connected, true)) handlers_.connected();
      handlers_.packet(std::move(*packet));
    }
  } catch (const std::exception&) {
    return "What answers there is no helper.";
  }
  return connected ? "The helper has closed the stream."
                   : "The helper does not admit us: is the token right, are two others watching?";
}

void StreamSource::setCurrent(client::StreamClient* stream) {
  const std::lock_guard hold(mutex_);
  current_ = stream;
}

void StreamSource::acknowledge(std::uint64_t frameID) {
  const std::lock_guard hold(mutex_);
  if (current_ != nullptr) current_->acknowledge(frameID);
}

}  // namespace lumora::viewer
