// Whatever a stranger sends, in pieces of whatever size, while frames are encoded for somebody
// else.

#include "fuzz/fuzzed_service.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace lumora;
  if (size == 0) return 0;
  FuzzedService service;
  const auto stranger = service.probe.connect();
  const std::string token = "0123456789abcdef";
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
    // Nothing goes to whoever has not said the token.
    require(stranger->sent.empty() || said.find(token) != std::string::npos ||
            said.find('\\') != std::string::npos);
    require(stranger->onReceive || stranger->cancelled);
  }
  return 0;
}
