#include "platform/picture_memory.h"

#include <sys/mman.h>

#include <cstdlib>

namespace lumora {
namespace {

constexpr std::size_t hugePage = std::size_t{2} << 20;
constexpr std::size_t cacheLine = 64;

}  // namespace

void FreePicture::operator()(std::uint8_t* memory) const { std::free(memory); }

PictureMemory allocatePicture(std::size_t size) {
  const std::size_t alignment = size >= hugePage ? hugePage : cacheLine;
  const std::size_t rounded = (size + alignment - 1) / alignment * alignment;
  PictureMemory memory(static_cast<std::uint8_t*>(std::aligned_alloc(alignment, rounded)));
#ifdef MADV_HUGEPAGE
  if (memory && alignment == hugePage) madvise(memory.get(), rounded, MADV_HUGEPAGE);
#endif
  return memory;
}

}  // namespace lumora
