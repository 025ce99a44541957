#pragma once

// Who may ask the viewer for what. A server on this machine is not private: any web site can make a
// browser send requests to 127.0.0.1, and can point a host name of its own there. So a request must
// name the viewer as its host, come from the viewer's own page, and know a random path. Pure.

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
  // request that is refused. A browser sends no origin when somebody opens the address, or when the
  // page loads a part of itself. It always sends one for a "socket".
  std::optional<std::string> resource(std::string_view host, std::optional<std::string_view> origin,
                                      std::string_view target) const;

  // The address to open. It says 127.0.0.1, because another user of this machine can listen on
  // [::1] with the same port, and a browser that is given "localhost" may connect there and tell
  // that user the secret.
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
// The whole file when the header is malformed, or asks for several parts or for the last bytes,
// which no browser does for a movie.
ByteRange parseRange(std::string_view header, std::uint64_t size);

}  // namespace lumora::viewer
