#pragma once

#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>
#include <deque>
#include <functional>
#include <memory>
#include <string>

#include "tools/viewer/page.h"

namespace lumora::viewer {

// The WebSocket of one page.
class PageSocket final : public Page, public std::enable_shared_from_this<PageSocket> {
 public:
  explicit PageSocket(boost::beast::tcp_stream stream) : socket_(std::move(stream)) {}

  // Answers the page's request for a socket, then calls `ready`; nothing comes of one that fails.
  void accept(const boost::beast::http::request<boost::beast::http::empty_body>& request,
              std::function<void()> ready);
  void sendText(const std::string& text) override;
  void sendBytes(Bytes bytes) override;
  void close() override;

 private:
  struct Outgoing {
    Bytes bytes;
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
