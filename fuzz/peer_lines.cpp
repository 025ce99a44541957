// Fuzzes what a new peer sends, in pieces of any size, while another client gets frames.

#include <sstream>

#include "base/json.h"
#include "fuzz/fuzzed_service.h"

namespace {

constexpr const char* token = "0123456789abcdef";

// Whether a line of `said` is a JSON object with the token.
bool saysToken(const std::string& said) {
  std::istringstream lines(said);
  for (std::string line; std::getline(lines, line);) {
    const auto json = lumora::parseJson(
        lumora::ByteView(reinterpret_cast<const std::uint8_t*>(line.data()), line.size()));
    if (json && json->is_object() && json->value("token", lumora::Json()) == token) return true;
  }
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace lumora;
  if (size == 0) return 0;
  FuzzedService service;
  const auto stranger = service.probe.connect();
  std::string said;
  const std::size_t piece = data[0] + 1U;
  for (std::size_t at = 1; at < size && stranger->onReceive; at += piece) {
    const auto* from = reinterpret_cast<const char*>(data + at);
    const std::string text(from, std::min(piece, size - at));
    said += text;
    stranger->deliver(text);
    service.frame();
    service.step();
    if (stranger->onSent) stranger->finishSend();
    require(stranger->sent.empty() || saysToken(said));
    require(stranger->onReceive || stranger->cancelled);
  }
  return 0;
}
