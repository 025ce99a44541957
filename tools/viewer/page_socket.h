#pragma once

#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace lumora::viewer {

// The WebSocket of one page. Use it on the thread that runs the io_context of its stream. Its
// handlers run there.
class PageSocket : public std::enable_shared_from_this<PageSocket> {
 public:
  explicit PageSocket(boost::beast::tcp_stream stream) : socket_(std::move(stream)) {}

  // Answers the page's request for a socket, then calls `ready`. If answering fails, calls nothing.
  void accept(const boost::beast::http::request<boost::beast::http::empty_body>& request,
              std::function<void()> ready);
  // Messages wait until the system takes them. After `close`, or if too many bytes wait, a message
  // is dropped.
  void sendText(const std::string& text) { send({{text.begin(), text.end()}, true}); }
  void sendBytes(std::vector<std::uint8_t> bytes) { send({std::move(bytes), false}); }
  // Closes the socket once the messages that wait are written. Call it once.
  void close();

  // Called for each message of the page.
  std::function<void(std::string_view)> onMessage;
  // Called once, when the page is gone.
  std::function<void()> onClosed;

 private:
  struct Outgoing {
    std::vector<std::uint8_t> bytes;
    bool isText;
  };

  void read();
  void send(Outgoing message);
  void writeNext();
  void closed();

  boost::beast::websocket::stream<boost::beast::tcp_stream> socket_;
  boost::beast::flat_buffer received_;
  std::deque<Outgoing> outgoing_;  // the first is being written
  std::size_t outgoingBytes_ = 0;
  bool closing_ = false;
};

}  // namespace lumora::viewer
