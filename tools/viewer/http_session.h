#pragma once

#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/viewer/web_server.h"

namespace lumora::viewer {

// One connection to the web server: requests one after the other, until one asks for a socket.
class HttpSession : public std::enable_shared_from_this<HttpSession> {
 public:
  HttpSession(boost::asio::ip::tcp::socket socket, const WebRules& rules,
              const WebHandlers& handlers, std::shared_ptr<const void> slot);
  void start() { readRequest(); }

 private:
  using Request = boost::beast::http::request<boost::beast::http::empty_body>;
  using Status = boost::beast::http::status;

  void readRequest();
  void answer();
  void answerSocket();
  void answerMovie(const std::filesystem::path& path);
  void sendMovie(const std::string& range);
  void sendMoviePart(std::uint64_t left);
  void send(Status status, std::string_view type, std::string_view body);
  template <typename Response>
  void addUsualFields(Response& response, std::string_view type) const;

  boost::beast::tcp_stream stream_;
  const WebRules& rules_;
  const WebHandlers& handlers_;
  std::shared_ptr<const void> slot_;  // while it lives it counts as a session
  boost::beast::flat_buffer received_;
  std::optional<boost::beast::http::request_parser<boost::beast::http::empty_body>> parser_;
  Request request_;
  std::ifstream movie_;
  std::vector<char> moviePart_;
};

}  // namespace lumora::viewer
