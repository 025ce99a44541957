// Fuzzes commands, one per line, with a frame after each.

#include "fuzz/fuzzed_service.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace lumora;
  FuzzedService service;
  ByteView rest(data, size);
  while (!rest.empty() && !service.hasEnded()) {
    const auto end = std::ranges::find(rest, std::uint8_t{'\n'});
    const auto length = static_cast<std::size_t>(end - rest.begin());
    (*service.probe).recordingCommand(rest.first(length));
    rest = rest.subspan(std::min(length + 1, rest.size()));
    service.frame();
    service.step();
  }
  return 0;
}
