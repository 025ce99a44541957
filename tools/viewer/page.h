#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace lumora::viewer {

// A page that has joined, at the other end of its socket. On the thread of its context, as are its
// handlers.
class Page {
 public:
  using Bytes = std::shared_ptr<const std::vector<std::uint8_t>>;

  virtual ~Page() = default;
  // What a page does not read is kept up to a bound; beyond that it gets nothing more.
  virtual void sendText(const std::string& text) = 0;
  virtual void sendBytes(Bytes bytes) = 0;
  // After what was sent.
  virtual void close() = 0;

  // Each message that the page sends; then, once, that it is gone.
  std::function<void(std::string_view)> onMessage;
  std::function<void()> onClosed;
};

}  // namespace lumora::viewer
