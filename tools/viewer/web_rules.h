#pragma once

// Who may ask the viewer for what. A server on this machine is not private: any web site can make a
// browser send requests to 127.0.0.1, and can point a host name of its own there. So a request must
// name the viewer as its host and know a random path. If it names an origin, that must be the
// viewer's. Pure.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace lumora::viewer {

class WebRules {
 public:
  // `secret` is the first part of every path.
  WebRules(std::uint16_t port, const std::string& secret);

  // The part of `target` after the secret, without a query; "" is the page itself. Nothing for a
  // request that is refused. `origin` may be missing, because a browser sends none when somebody
  // opens the address, or when the page loads one of its files. Only a request for "socket" needs
  // an origin: a browser always sends one for a WebSocket.
  std::optional<std::string> resource(std::string_view host, std::optional<std::string_view> origin,
                                      std::string_view target) const;

  // The address to open. It says 127.0.0.1, because for "localhost" a browser may connect to [::1].
  // Another user of this machine can listen there on the same port, and would learn the secret.
  std::string address() const { return origin_ + folder_; }

 private:
  std::string host_;
  std::string origin_;
  std::string folder_;  // "/secret/"
};

// The bytes of a file that a "Range" header asks for (RFC 9110, 14.2).
struct ByteRange {
  enum class Kind { whole, part, unsatisfiable };
  Kind kind = Kind::whole;
  std::uint64_t first = 0;
  std::uint64_t length = 0;  // bytes

  bool operator==(const ByteRange&) const = default;
};
// Returns the whole file if the header is empty or malformed. Also returns it if the header asks
// for several parts or for the last N bytes ("bytes=-N"), because no browser does so for a movie.
ByteRange parseRange(std::string_view header, std::uint64_t size);

}  // namespace lumora::viewer
