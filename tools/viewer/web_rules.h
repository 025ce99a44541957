#pragma once

// Who may ask the viewer for what. Local does not mean private: any page of the web may send
// requests to 127.0.0.1, and a name of its own may be made to point there. So a request has to name
// us as its host, come from our own page, and know a random path. Pure.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace lumora::viewer {

class WebRules {
 public:
  // `secret` is the first part of every path.
  WebRules(std::uint16_t port, std::string secret);

  // What is asked for, behind the secret and without a query: "" is the page itself. Nothing when
  // it is not for this asker. A request without an origin is one that a person typed, or that the
  // page made for a part of itself.
  std::optional<std::string> resource(std::string_view host, std::optional<std::string_view> origin,
                                      std::string_view target) const;
  // Whether a socket may be opened: only by our own page, which says so.
  bool allowsSocket(std::optional<std::string_view> origin) const;

  std::string address() const { return "http://" + hosts_[0] + "/" + secret_ + "/"; }

 private:
  bool isOurOrigin(std::string_view origin) const;

  std::string hosts_[2];
  std::string secret_;
};

// Which bytes of a file of `size` a "Range" header asks for (RFC 9110, 14.2).
struct ByteRange {
  enum class Kind { whole, part, unsatisfiable };
  Kind kind = Kind::whole;
  std::uint64_t first = 0;
  std::uint64_t length = 0;  // bytes
};
// A header that is malformed, or asks for several parts, is as good as none.
ByteRange parseRange(std::string_view header, std::uint64_t size);

// For a file's name on the page: its MIME type.
std::string_view mimeType(std::string_view name);

}  // namespace lumora::viewer
