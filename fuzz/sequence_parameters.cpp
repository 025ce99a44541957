// Fuzzes sequence parameter sets, valid and broken.

#include "h264/sequence_parameters.h"
#include "fuzz/fuzzed_service.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace lumora;
  const ByteView unit(data, size);
  const Bytes once = withUsabilityInformation(unit, {1, 13, 1, false});
  require(std::ranges::equal(once, unit) ||
          (once.size() >= 4 && std::equal(once.begin(), once.begin() + 2, data)));
  require(withUsabilityInformation(once, {1, 13, 1, false}) == once);
  return 0;
}
