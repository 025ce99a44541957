#pragma once

#include <limits>
#include <thread>
#include <utility>

#include "tools/watched_stream.h"

namespace lumora::viewer {

using tools::HelperAddress;

// A helper's stream, watched on a thread of its own until this is destroyed.
class StreamSource {
 public:
  using Handlers = tools::WatchedStream::Handlers;  // called on that thread
  StreamSource(HelperAddress from, Handlers handlers)
      : stream_(std::move(from), std::move(handlers)), thread_([this](const std::stop_token& stop) {
          stream_.watch(stop, std::numeric_limits<double>::infinity());
        }) {}

  // Any thread.
  void acknowledge(std::uint64_t frameID) { stream_.acknowledge(frameID); }

 private:
  tools::WatchedStream stream_;
  std::jthread thread_;
};

}  // namespace lumora::viewer
