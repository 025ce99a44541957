// Whatever arrives on standard input, in reads of whatever size, with memory for frames and
// without.

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "client/descriptor.h"
#include "fuzz/fuzzed_service.h"
#include "system/inherited_frame_memory.h"

namespace {

using namespace lumora;

client::Descriptor makeMemory(unsigned pages, bool sealed) {
  client::Descriptor made(memfd_create("frames", MFD_CLOEXEC | MFD_ALLOW_SEALING));
  require(ftruncate(made.get(), pages * 4096) == 0);
  if (sealed) require(fcntl(made.get(), F_ADD_SEALS, F_SEAL_SHRINK) == 0);
  return made;
}

}  // namespace

// The first byte is the size of a read, the second the kind and the size of the memory.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  const client::Descriptor memory = makeMemory(data[1] / 4U, data[1] % 2 == 0);
  FuzzedService service(data[1] % 4 < 2 ? inheritFrameMemory(memory.get()) : nullptr);
  service.probe.process->chunk = data[0] + 1U;
  service.probe.process->input.assign(data + 2, data + size);
  service.probe.process->beforeRead = [&service] { service.step(); };
  service.probe.dispatch->detached.at(0)();
  service.step();
  require(service.hasEnded());  // the input has
  return 0;
}
