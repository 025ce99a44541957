#pragma once

#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace lumora::viewer {

// The WebSocket of one page. On the thread of its stream's context, as are its handlers.
class PageSocket : public std::enable_shared_from_this<PageSocket> {
 public:
  using Message = std::shared_ptr<const std::vector<std::uint8_t>>;

  explicit PageSocket(boost::beast::tcp_stream stream) : socket_(std::move(stream)) {}

  // Set before `accept`. Each message that the page sends; then, once, that the socket is closed.
  std::function<void(std::string_view)> onMessage;
  std::function<void()> onClosed;

  // Answers the page's request for a socket, then calls `ready`; nothing comes of one that fails.
  void accept(const boost::beast::http::request<boost::beast::http::empty_body>& request,
              std::function<void()> ready);
  // What a page does not read is kept up to a bound; beyond that it gets nothing more.
  void sendText(const std::string& text);
  void sendBytes(Message bytes);
  // After what was sent.
  void close();

 private:
  struct Outgoing {
    Message bytes;
    bool isText;
  };

  void read();
  void send(Outgoing message);
  void writeNext();
  void closed();

  boost::beast::websocket::stream<boost::beast::tcp_stream> socket_;
  boost::beast::flat_buffer received_;
  std::deque<Outgoing> outgoing_;
  std::size_t outgoingBytes_ = 0;
  bool closing_ = false;
  bool closed_ = false;
};

}  // namespace lumora::viewer
