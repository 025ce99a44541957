#include "base/process_heap.h"

#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <mutex>
#include <vector>

#if defined(__GLIBC__)
#include <malloc.h>
#endif

namespace lumora {
namespace {

constexpr std::size_t page = 4096;
constexpr std::size_t blockBytes = std::size_t{8} << 20;
constexpr std::chrono::milliseconds pause{5};

struct Free {
  void operator()(std::uint8_t* block) const { std::free(block); }
};

}  // namespace

void useHugePages(std::uint8_t* from, std::size_t bytes) {
  void* aligned = from;
  if (std::align(hugePage, hugePage, aligned, bytes) == nullptr) return;
  madvise(aligned, bytes / hugePage * hugePage, MADV_HUGEPAGE);
}

void keepFreedMemory() {
#if defined(__GLIBC__)
  constexpr int largestBlock = 32 << 20;  // bytes; the C library maps each larger block separately
  constexpr int mostFree = 1 << 30;       // bytes; beyond it the C library trims the heap
  // NOLINTBEGIN(concurrency-mt-unsafe): before other threads start
  mallopt(M_ARENA_MAX, 1);
  mallopt(M_MMAP_THRESHOLD, largestBlock);
  mallopt(M_TRIM_THRESHOLD, mostFree);
  // NOLINTEND(concurrency-mt-unsafe)
#endif
}

void touchMemoryAhead(std::size_t bytes, const std::stop_token& stop) {
  std::vector<std::unique_ptr<std::uint8_t, Free>> blocks;
  std::mutex unshared;                  // only because `wait_for` needs a mutex
  std::condition_variable_any stopped;  // its wait ends at once when a stop is requested
  std::unique_lock hold(unshared);
  for (std::size_t touched = 0; touched < bytes; touched += blockBytes) {
    const auto& block = blocks.emplace_back(static_cast<std::uint8_t*>(std::malloc(blockBytes)));
    if (!block) return;
    useHugePages(block.get(), blockBytes);
    for (std::size_t at = 0; at < blockBytes; at += page) {
      if (at % hugePage == 0) stopped.wait_for(hold, stop, pause, [] { return false; });
      if (stop.stop_requested()) return;
      block.get()[at] = 0;
    }
  }
}

void trimHeap() {
#if defined(__GLIBC__)
  malloc_trim(0);
#endif
}

void trimHeapBeyondNeed() {
  constexpr std::size_t mostBytes = std::size_t{150} << 20;
  std::size_t allPages = 0;
  std::size_t residentPages = 0;
  std::ifstream statm("/proc/self/statm");
  if (!(statm >> allPages >> residentPages)) return;
  if (residentPages * static_cast<std::size_t>(sysconf(_SC_PAGESIZE)) > mostBytes) trimHeap();
}

}  // namespace lumora
