#pragma once

#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "tools/viewer/web_server.h"

namespace lumora::viewer {

// One connection to the web server. It answers one request after the other, until one asks for a
// socket.
class HttpSession : public std::enable_shared_from_this<HttpSession> {
 public:
  HttpSession(boost::asio::ip::tcp::socket socket, const WebRules& rules,
              const WebHandlers& handlers, std::shared_ptr<const int> slot);
  // Goes on until the connection ends.
  void readRequest();

 private:
  using Status = boost::beast::http::status;

  void answer();
  void openSocket();
  void sendMovie(const std::filesystem::path& path);
  void sendMoviePart(std::uint64_t left);
  void send(Status status, std::string_view type, std::string_view body);
  bool wantsBody() const { return parser_->get().method() != boost::beast::http::verb::head; }

  boost::beast::tcp_stream stream_;
  const WebRules& rules_;
  const WebHandlers& handlers_;
  const std::shared_ptr<const int> slot_;  // the server counts its copies
  boost::beast::flat_buffer received_;
  std::optional<boost::beast::http::request_parser<boost::beast::http::empty_body>> parser_;
  std::ifstream movie_;
  std::vector<char> moviePart_;
};

}  // namespace lumora::viewer
