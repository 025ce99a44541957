// Frames in memory that the parent shares: which memory is taken, where pixels may lie, when they
// are given back. On real memory, seen from both sides.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "client/child_process.h"
#include "client/frame_slots.h"
#include "client/records.h"
#include "input/record_header.h"
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
  if (kind == 0) say(made.get(), 99);  // of a helper before
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
  for (const int flags : {O_RDONLY, O_WRONLY})
    EXPECT_FALSE(inherit(client::Descriptor(open(name.c_str(), flags)))) << flags;
  EXPECT_FALSE(inheritFrameMemory(-1));
  const client::Descriptor input(dup(STDIN_FILENO));
  dup2(memory.get(), STDIN_FILENO);
  EXPECT_FALSE(inheritFrameMemory(STDIN_FILENO));
  dup2(input.get(), STDIN_FILENO);
}

TEST(RecordHeader, TakesOffsetsOfWholePagesInsideTheMemory) {
  const auto isValid = [](std::uint64_t at, std::uint32_t bytes) {
    return isValidOffset(at, bytes, 4 * page);
  };
  EXPECT_TRUE(isValid(page, 3 * page) && isValid(3 * page, page));
  for (const auto at : {0 * page, page - 1, page + 8, 4 * page})
    EXPECT_FALSE(isValid(at, 16)) << at;
  EXPECT_FALSE(isValid(page, 3 * page + 16) || isValid(page, 5 * page));
  EXPECT_FALSE(isValid(0xFFFFFFFFFFFFF000, 8 * page));
}

TEST(ReleaseOrder, TellsTheLatestFrameBehindWhichNoneIsRead) {
  ReleaseOrder order;
  order.begin(3);
  EXPECT_EQ(order.end(3), 3u);
  for (const std::uint64_t id : {5, 6, 8, 9, 12}) order.begin(id);
  for (const std::uint64_t id : {8, 12, 6}) EXPECT_EQ(order.end(id), std::nullopt) << id;
  EXPECT_EQ(order.end(5), 8u);
  EXPECT_EQ(order.end(9), 12u);
}

std::vector<client::Frame> acquireAll(client::FrameSlots& from, client::FrameSize size = {64, 64}) {
  std::vector<client::Frame> all;
  while (auto frame = from.acquire(size)) all.push_back(*std::move(frame));
  return all;
}

TEST(FrameSlots, LendsASlotAgainOnceTheHelperHasReleasedIt) {
  const auto slots = client::FrameSlots::makeShared();
  EXPECT_FALSE(slots->isShared());
  say(slots->descriptor(), 0);
  EXPECT_TRUE(slots->isShared());
  client::ChildProcess helper({"/bin/cat", "", {}, {}, slots->descriptor()});
  for (std::uint64_t id = 1; const auto& frame : acquireAll(*slots, {1920, 1080}))
    EXPECT_TRUE(helper.writeFrame(frame, id++));
  // Without memory that is reserved, a touch would end the application.
  struct stat made {};
  ASSERT_EQ(fstat(slots->descriptor(), &made), 0);
  EXPECT_GE(made.st_blocks * 512, 4 * 1920 * 1080 * 4);
  EXPECT_EQ(acquireAll(*slots).size(), 0u);
  say(slots->descriptor(), 2);
  EXPECT_EQ(acquireAll(*slots).size(), 2u);
  EXPECT_EQ(acquireAll(*slots).size(), 2u);  // given back unpublished
  // Pixels in the slots of another helper go through the pipe.
  const auto others = client::FrameSlots::makeShared();
  say(others->descriptor(), 0);
  EXPECT_TRUE(helper.writeFrame(*others->acquire({2, 2}), 9));
  EXPECT_EQ(acquireAll(*others).size(), 4u);
}

// The service with a parent that shares memory.
struct SharedFrames : testing::Test {
  void restart() {
    probe = VideoEncoderProbe({.token = "0123456789abcdef"}, inherit(memory));
    probe.becomeReady();
    EXPECT_EQ(released(), 0u);
  }
  void putFrame(std::uint64_t id, std::uint64_t offset, client::FrameSize size = {32, 32}) {
    probe.put(client::frameReference(size, id, offset));
  }
  std::uint64_t released() const {
    std::uint64_t word = 1;
    EXPECT_EQ(pread(memory.get(), &word, sizeof word, 0), 8);
    return word;
  }

  const client::Descriptor memory = makeMemory(4 * page, seal);
  VideoEncoderProbe probe;
};

// Among frames of pixels, with which they share growing ids.
TEST_F(SharedFrames, EndTheRunForABrokenRecord) {
  using Case = std::tuple<client::FrameSize, std::uint64_t, std::uint64_t, std::size_t>;
  for (const auto& [size, id, offset, bytes] : {Case{{32, 32}, 9, 0, 24},
                                                {{32, 31}, 9, page, 24},
                                                {{32, 32}, 8, page, 24},
                                                {{32, 32}, 9, page, 23}}) {
    restart();
    putFrame(7, 3 * page);  // nobody needs it
    probe.put(client::frameHeader({2, 2}, 8));
    probe.put(Bytes(16));
    putFrame(id, offset, size);
    probe.process->input.resize(24 + 32 + bytes);
    EXPECT_EQ(probe.readAll(), bytes < 24 ? "truncated raw frame" : "invalid raw frame header");
    EXPECT_EQ(probe.process->exitCodes, std::vector<int>{1});
    EXPECT_EQ(released(), 7u);
    EXPECT_EQ(probe.statistics()["dropped_raw"], 2);
  }
}

// A take and a client at once: one session takes the picture where it lies, the other converts it.
TEST_F(SharedFrames, AreReleasedOnceBothSessionsHaveReadThem) {
  restart();
  const auto client = probe.connectClient();
  probe.command({{"type", "record_start"}, {"id", takeID}, {"path", takePath}});
  const Bytes pixels(page, 77);
  EXPECT_EQ(pwrite(memory.get(), pixels.data(), page, 2 * page), std::ssize(pixels));
  putFrame(7, 2 * page);
  putFrame(8, page);
  probe.dispatch->detached.at(0)();
  while (probe.encoders->sessions.size() < 2 && probe.queue->runNext()) continue;
  FakeSession& session = probe.lastSession();
  ASSERT_EQ(session.pending.size(), 1u);
  auto& buffer = session.pending[0].first;
  EXPECT_EQ(*buffer->picture().planes[0].samples, 77);
  buffer.reset();  // the encoder has its own copy, and has not answered yet
  EXPECT_EQ(released(), 0u);
  EXPECT_TRUE(probe.encoders->sessions[0]->pending.at(0).first->fill());
  EXPECT_EQ(probe.images->lastByte, 77);
  EXPECT_EQ(released(), 8u);
  expectKeys(probe.statistics(), {{"dropped_raw", 1}, {"encode_inflight", 1}});
  for (const auto& each : probe.encoders->sessions) each->answer(0, keySample());
  probe.run();
  expectKeys(probe.statistics(), {{"encode_inflight", 0}});
}

}  // namespace
}  // namespace lumora
