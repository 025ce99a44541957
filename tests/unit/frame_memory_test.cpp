// Frames in memory that the parent shares: which memory is accepted, where pixels may lie, when
// frames are given back. The tests use real memory, and the code of both helper and client.

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "client/frame_slots.h"
#include "client/records.h"
#include "system/inherited_frame_memory.h"
#include "tests/unit/probe.h"

namespace lumora {
namespace {

constexpr std::size_t page = 4096;
constexpr int seal = F_SEAL_SHRINK;

void say(int memory, std::uint64_t id) { EXPECT_EQ(pwrite(memory, &id, sizeof id, 0), 8); }

client::Descriptor makeMemory(std::size_t bytes, int seals, unsigned kind = 0) {
  client::Descriptor made(memfd_create("frames", MFD_CLOEXEC | MFD_ALLOW_SEALING | kind));
  EXPECT_EQ(ftruncate(made.get(), static_cast<off_t>(bytes)), 0);
  if (kind == 0) say(made.get(), 99);  // an earlier helper left this id
  EXPECT_EQ(fcntl(made.get(), F_ADD_SEALS, seals), 0);
  return made;
}

std::shared_ptr<FrameMemory> inherit(const client::Descriptor& memory) {
  return inheritFrameMemory(memory.get());
}

TEST(FrameMemory, MapsTwoPagesOrMoreOfWritableMemoryThatNobodyCanShrink) {
  const client::Descriptor memory = makeMemory(2 * page, seal);
  EXPECT_TRUE(inherit(memory));
  EXPECT_FALSE(inherit(makeMemory(2 * page, 0)));
  EXPECT_FALSE(inherit(makeMemory(2 * page - 1, seal)));
  EXPECT_FALSE(inherit(makeMemory(2 * page, seal | F_SEAL_FUTURE_WRITE)));
  EXPECT_FALSE(inherit(makeMemory(page << 10, seal, MFD_HUGETLB)));
  EXPECT_FALSE(inherit(client::Descriptor(open("/dev/zero", O_RDWR))));
  const std::string name = "/proc/self/fd/" + std::to_string(memory.get());
  EXPECT_FALSE(inherit(client::Descriptor(open(name.c_str(), O_RDONLY))));
}

TEST(FrameSlots, ReserveTheirMemoryAndAreNotSharedBeforeAHelperUsesThem) {
  const auto slots = client::FrameSlots::makeShared();
  EXPECT_FALSE(slots->isShared());
  // An access to memory that is not reserved could end the application by a signal.
  const auto frame = slots->acquire({1920, 1080});
  struct stat made {};
  ASSERT_EQ(fstat(slots->descriptor(), &made), 0);
  EXPECT_GE(made.st_blocks * 512, 1920 * 1080 * 4);
}

// The service with a parent that shares memory.
struct SharedFrames : testing::Test {
  void restart(const char* format = "rgba") {
    probe.restart({.frameFormat = parseFrameFormat(format).value()}, inherit(memory));
    EXPECT_EQ(released(), 0u);
  }
  void putFrame(std::uint64_t id, std::uint64_t offset, client::FrameSize size = {32, 32},
                std::optional<std::uint64_t> length = std::nullopt) {
    probe.put(client::frameReference(size, id, offset, length));
  }
  std::uint64_t released() const {
    std::uint64_t word = 1;
    EXPECT_EQ(pread(memory.get(), &word, sizeof word, 0), 8);
    return word;
  }

  const client::Descriptor memory = makeMemory(4 * page, seal);
  VideoEncoderProbe probe;
};

// Ids must grow from frame to frame, whether the frames are in memory or in the pipe.
TEST_F(SharedFrames, EndTheRunForABrokenRecord) {
  // 32 × 32 pixels take a page.
  const auto expectEnd = [&](std::uint64_t offset, client::FrameSize size = {32, 32},
                             std::uint64_t id = 9, std::size_t bytes = 24) {
    SCOPED_TRACE(offset);
    restart();
    putFrame(7, 3 * page);  // released at once: nobody watches or records
    probe.put(client::frameHeader({2, 2}, 8));
    probe.put(Bytes(16));
    putFrame(id, offset, size);
    probe.process->input.resize(24 + 32 + bytes);
    EXPECT_EQ(probe.readAll(), bytes < 24 ? "truncated raw frame" : "invalid raw frame header");
    EXPECT_EQ(released(), 7u);
  };
  for (const auto offset : {0 * page, page - 1, page + 8, 4 * page}) expectEnd(offset);
  expectEnd(3 * page, {32, 34});
  expectEnd(page, {32, 160});
  expectEnd(-page, {32, 64});
  expectEnd(page, {32, 31});
  expectEnd(page, {32, 32}, 8);
  expectEnd(page, {32, 32}, 9, 23);
  for (const std::uint64_t length :
       {std::uint64_t{1}, 3 * page + 1, (std::uint64_t{1} << 32) + 9}) {
    restart("mjpeg");
    putFrame(7, page, {32, 32}, length);
    EXPECT_EQ(probe.readAll(), "invalid raw frame header") << length;
  }
}

TEST_F(SharedFrames, AreReleasedBeforeTheyAreDecoded) {
  restart("mjpeg");
  EXPECT_EQ(pwrite(memory.get(), "\x9\x9", 2, page), 2);
  putFrame(7, page, {32, 32}, 2);
  probe.decoder->onDecode = [&] { EXPECT_EQ(released(), 7u); };
  EXPECT_EQ(probe.readAll(), "");
  EXPECT_EQ(probe.decoder->records, std::vector<Bytes>(1, {9, 9}));
}

}  // namespace
}  // namespace lumora
