// Fuzzes standard input, in reads of any size, with and without frame memory, in several formats.

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "fuzz/fuzzed_service.h"
#include "system/inherited_frame_memory.h"

namespace {

using namespace lumora;

constexpr const char* formats[] = {"rgba",        "bgra,top",   "rgb24", "nv12,full",
                                   "i420,bottom", "uyvy,bt709", "mjpeg"};

struct Memory {
  Memory(unsigned bytes, int seals) {
    require(ftruncate(descriptor, bytes) == 0);
    require(fcntl(descriptor, F_ADD_SEALS, seals) == 0);
  }
  ~Memory() { close(descriptor); }
  Memory(const Memory&) = delete;
  Memory& operator=(const Memory&) = delete;

  const int descriptor = memfd_create("frames", MFD_CLOEXEC | MFD_ALLOW_SEALING);
};

}  // namespace

// The first byte gives the size of a read, the second the seals and the size of the memory, the
// last the format of the frames. All other bytes are the input. Memory with F_SEAL_GROW alone must
// be refused. It is shrunk by a page before every read. So if it is used nevertheless, SIGBUS ends
// the fuzzer.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 3) return 0;
  constexpr int kinds[] = {F_SEAL_SHRINK, 0, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL,
                           F_SEAL_GROW};
  const int seals = kinds[data[1] % 4];
  unsigned bytes = data[1] / 4U * 4096 + data[1];  // below two pages: no frame memory
  const Memory memory(bytes, seals);
  FuzzedService service(inheritFrameMemory(memory.descriptor),
                        formats[data[size - 1] % std::size(formats)]);
  service.probe.process->chunk = data[0] + 1U;
  service.probe.process->input.assign(data + 2, data + size - 1);
  service.probe.process->beforeRead = [&] {
    service.step();
    if (seals != F_SEAL_GROW || bytes < 4096) return;
    bytes -= 4096;
    require(ftruncate(memory.descriptor, bytes) == 0);
  };
  service.probe.dispatch->detached.at(0)();
  service.step();
  require(service.hasEnded());  // because the input has ended
  return 0;
}
