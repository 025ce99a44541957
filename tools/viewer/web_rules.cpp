#include "tools/viewer/web_rules.h"

#include <algorithm>

#include "tools/parse_number.h"

namespace lumora::viewer {
namespace {

// Takes equally long wherever the two differ, so that the time reveals nothing about the secret.
bool isSame(std::string_view offered, std::string_view expected) {
  if (offered.size() != expected.size()) return false;
  unsigned difference = 0;
  for (std::size_t i = 0; i < expected.size(); ++i) {
    difference |= static_cast<unsigned char>(offered[i]) ^ static_cast<unsigned char>(expected[i]);
  }
  return difference == 0;
}

}  // namespace

// A browser leaves the default port out of host and origin.
WebRules::WebRules(std::uint16_t port, const std::string& secret)
    : host_(port == 80 ? "127.0.0.1" : "127.0.0.1:" + std::to_string(port)),
      origin_("http://" + host_),
      folder_("/" + secret + "/") {}

std::optional<std::string> WebRules::resource(std::string_view host,
                                              std::optional<std::string_view> origin,
                                              std::string_view target) const {
  if (host != host_ || (origin && *origin != origin_)) return std::nullopt;
  const std::string_view path = target.substr(0, target.find('?'));
  if (!isSame(path.substr(0, folder_.size()), folder_)) return std::nullopt;
  const std::string_view name = path.substr(folder_.size());
  if (name == "socket" && !origin) return std::nullopt;
  return std::string(name);
}

ByteRange parseRange(std::string_view header, std::uint64_t size) {
  constexpr std::string_view unit = "bytes=";
  const ByteRange whole{ByteRange::Kind::whole, 0, size};
  const auto dash = header.find('-');
  if (!header.starts_with(unit) || dash == std::string_view::npos) return whole;
  std::uint64_t first = 0;
  std::uint64_t last = size;
  const std::string_view end = header.substr(dash + 1);  // may be left out
  if (!tools::parseNumber(header.substr(unit.size(), dash - unit.size()), first)) return whole;
  if (!end.empty() && (!tools::parseNumber(end, last) || last < first)) return whole;
  if (first >= size) return {ByteRange::Kind::unsatisfiable};
  return {ByteRange::Kind::part, first, std::min(last, size - 1) - first + 1};
}

}  // namespace lumora::viewer
