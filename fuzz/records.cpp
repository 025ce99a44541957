// Whatever arrives on standard input, in reads of whatever size.

#include "fuzz/fuzzed_service.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace lumora;
  if (size == 0) return 0;
  FuzzedService service;
  service.probe.process->chunk = data[0] + 1U;
  service.probe.process->input.assign(data + 1, data + size);
  service.probe.process->beforeRead = [&service] { service.step(); };
  service.probe.dispatch->detached.at(0)();
  service.step();
  require(service.hasEnded());  // the input has
  return 0;
}
