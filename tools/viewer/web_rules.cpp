#include "tools/viewer/web_rules.h"

#include <algorithm>
#include <charconv>
#include <utility>

namespace lumora::viewer {
namespace {

// In a time that does not tell where the difference is.
bool isSame(std::string_view offered, std::string_view secret) {
  if (offered.size() != secret.size()) return false;
  unsigned difference = 0;
  for (std::size_t i = 0; i < secret.size(); ++i) {
    difference |= static_cast<unsigned char>(offered[i]) ^ static_cast<unsigned char>(secret[i]);
  }
  return difference == 0;
}

std::optional<std::uint64_t> number(std::string_view digits) {
  std::uint64_t value = 0;
  const char* last = digits.data() + digits.size();
  const auto [end, error] = std::from_chars(digits.data(), last, value);
  if (digits.empty() || error != std::errc{} || end != last) return std::nullopt;
  return value;
}

ByteRange part(std::uint64_t first, std::uint64_t last) {
  return {ByteRange::Kind::part, first, last - first + 1};
}

// A browser leaves the default port out.
std::string suffix(std::uint16_t port) { return port == 80 ? "" : ":" + std::to_string(port); }

}  // namespace

WebRules::WebRules(std::uint16_t port, std::string secret)
    : hosts_{"127.0.0.1" + suffix(port), "localhost" + suffix(port)}, secret_(std::move(secret)) {}

std::optional<std::string> WebRules::resource(std::string_view host,
                                              std::optional<std::string_view> origin,
                                              std::string_view target) const {
  if (std::ranges::find(hosts_, host) == std::end(hosts_)) return std::nullopt;
  if (origin && !isOurOrigin(*origin)) return std::nullopt;
  if (!target.starts_with('/')) return std::nullopt;
  target = target.substr(1, target.find('?') - 1);
  const auto slash = target.find('/');
  if (slash == std::string_view::npos || !isSame(target.substr(0, slash), secret_)) {
    return std::nullopt;
  }
  return std::string(target.substr(slash + 1));
}

bool WebRules::allowsSocket(std::optional<std::string_view> origin) const {
  return origin && isOurOrigin(*origin);
}

bool WebRules::isOurOrigin(std::string_view origin) const {
  return std::ranges::any_of(hosts_, [&](const auto& host) { return origin == "http://" + host; });
}

ByteRange parseRange(std::string_view header, std::uint64_t size) {
  constexpr std::string_view unit = "bytes=";
  const ByteRange whole{ByteRange::Kind::whole, 0, size};
  if (!header.starts_with(unit)) return whole;
  header.remove_prefix(unit.size());
  const auto dash = header.find('-');
  if (dash == std::string_view::npos) return whole;
  const auto first = number(header.substr(0, dash));
  const auto last = number(header.substr(dash + 1));
  if (dash == 0) {  // the last so many
    if (!last) return whole;
    if (*last == 0 || size == 0) return {ByteRange::Kind::unsatisfiable};
    return part(size - std::min(*last, size), size - 1);
  }
  if (!first || (!last && dash + 1 < header.size()) || (last && *last < *first)) return whole;
  if (*first >= size) return {ByteRange::Kind::unsatisfiable};
  return part(*first, last ? std::min(*last, size - 1) : size - 1);
}

std::string_view mimeType(std::string_view name) {
  if (name.ends_with(".js")) return "text/javascript; charset=utf-8";
  if (name.ends_with(".css")) return "text/css; charset=utf-8";
  return "text/html; charset=utf-8";
}

}  // namespace lumora::viewer
