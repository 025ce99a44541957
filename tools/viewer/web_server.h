#pragma once

// The web server for the page, on the loopback address only. It serves the page and its parts, the
// movies of this run, and the page's socket. It runs, and calls its handlers, on the thread of its
// context.

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <filesystem>
#include <functional>
#include <memory>

#include "tools/viewer/web_rules.h"

namespace lumora::viewer {

class PageSocket;

struct WebHandlers {
  std::function<void(std::shared_ptr<PageSocket>)> pageJoined;
  // Returns the path of the movie with this name, or an empty path if there is none. The names of
  // movies look like "takes/ID.mp4".
  std::function<std::filesystem::path(const std::string& name)> movie;
};

class WebServer {
 public:
  // With port 0 the system chooses a port. Throws boost::system::system_error if it can't listen.
  WebServer(boost::asio::io_context& context, std::uint16_t port, const std::string& secret);
  void start(WebHandlers handlers);
  std::string address() const { return rules_.address(); }

 private:
  void acceptNext();

  boost::asio::ip::tcp::acceptor acceptor_;
  boost::asio::steady_timer retry_;
  const WebRules rules_;
  WebHandlers handlers_;
  // Each HttpSession has a copy, so `use_count` is the number of sessions plus one.
  const std::shared_ptr<const int> sessions_ = std::make_shared<int>();
};

}  // namespace lumora::viewer
