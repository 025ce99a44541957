#pragma once

// The page's web server, for the loopback address alone: the page and its parts, movies that this
// run has saved, and one kind of socket. On the thread of its context, as are its handlers.

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "tools/viewer/web_rules.h"

namespace lumora::viewer {

class Page;

struct WebHandlers {
  std::function<void(std::shared_ptr<Page>)> pageJoined;
  // The movie of this name, if there is one.
  std::function<std::optional<std::filesystem::path>(const std::string& name)> movie;
};

class WebServer {
 public:
  // Port 0: one that the system chooses. Throws boost::system::system_error, a std::system_error.
  WebServer(boost::asio::io_context& context, std::uint16_t port, std::string secret);
  void start(WebHandlers handlers);
  const WebRules& rules() const { return rules_; }

 private:
  void acceptNext();
  void acceptLater();

  boost::asio::ip::tcp::acceptor acceptor_;
  boost::asio::steady_timer retry_;
  const WebRules rules_;
  WebHandlers handlers_;
  std::shared_ptr<const int> sessions_ = std::make_shared<const int>();  // each has a copy
};

}  // namespace lumora::viewer
