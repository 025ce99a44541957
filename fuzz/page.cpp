// Fuzzes the input that the viewer gets from a browser: page messages and web requests.

#include <cstdlib>

#include "tools/viewer/page_messages.h"
#include "tools/viewer/web_rules.h"

namespace {

void require(bool holds) {
  if (!holds) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace lumora::viewer;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  parsePageMessage(text);
  const WebRules rules(1, "0123456789abcdef");
  const std::string_view host = "127.0.0.1:1";
  const std::string_view page = "/0123456789abcdef/";
  require(!rules.resource(text, {}, page) || text == host);
  require(!rules.resource(host, text, page) || text == "http://127.0.0.1:1");
  require(!rules.resource(host, {}, text) || text.starts_with(page));
  const ByteRange range = parseRange(text, 1000);
  require(range.first <= 1000 && range.length <= 1000 - range.first);
  return 0;
}
