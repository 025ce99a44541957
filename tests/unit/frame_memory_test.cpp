// Frames in memory that the parent shares: where pixels may lie, when they are given back, what
// memory is taken, all on real memory.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include "client/descriptor.h"
#include "client/records.h"
#include "input/record_header.h"
#include "input/release_order.h"
#include "system/inherited_frame_memory.h"
#include "tests/unit/probe.h"

namespace lumora {
namespace {

constexpr std::size_t page = 4096;
constexpr int seal = F_SEAL_SHRINK;

client::Descriptor makeMemory(std::size_t bytes, int seals) {
  client::Descriptor made(memfd_create("frames", MFD_CLOEXEC | MFD_ALLOW_SEALING));
  EXPECT_EQ(ftruncate(made.get(), static_cast<off_t>(bytes)), 0);
  EXPECT_EQ(fcntl(made.get(), F_ADD_SEALS, seals), 0);
  return made;
}

TEST(FrameMemory, TakesFilesOfTwoPagesThatItMayWrite) {
  EXPECT_TRUE(inheritFrameMemory(makeMemory(2 * page, seal).get()));
  EXPECT_TRUE(inheritFrameMemory(makeMemory(2 * page, 0).get()));
  EXPECT_FALSE(inheritFrameMemory(makeMemory(2 * page - 1, seal).get()));
  EXPECT_FALSE(inheritFrameMemory(-1));
  EXPECT_FALSE(inheritFrameMemory(client::Descriptor(open("/dev/zero", O_RDWR)).get()));
  const client::Descriptor memory = makeMemory(2 * page, seal);
  const std::string name = "/proc/self/fd/" + std::to_string(memory.get());
  EXPECT_FALSE(inheritFrameMemory(client::Descriptor(open(name.c_str(), O_RDONLY)).get()));
  EXPECT_FALSE(inheritFrameMemory(client::Descriptor(open(name.c_str(), O_WRONLY)).get()));
  EXPECT_THROW(inheritFrameMemory(makeMemory(2 * page, seal | F_SEAL_FUTURE_WRITE).get()),
               std::system_error);
}

// A file that may be cut short is never mapped: whoever cut it could end us.
TEST(FrameMemory, IsMappedOnlyWhenNobodyCanShrinkIt) {
  const client::Descriptor sealed = makeMemory(2 * page, seal);
  const auto mapped = inheritFrameMemory(sealed.get());
  const client::Descriptor open = makeMemory(3 * page, F_SEAL_GROW);
  const auto read = inheritFrameMemory(open.get());
  EXPECT_EQ(mapped->size(), 2 * page);
  EXPECT_TRUE(mapped->at(page));
  EXPECT_FALSE(read->at(page));

  Bytes space(page + 8);
  const Bytes pixels(page + 8, 7);
  EXPECT_EQ(pwrite(open.get(), pixels.data(), pixels.size(), page), std::ssize(pixels));
  EXPECT_TRUE(read->read(page, space));
  EXPECT_EQ(space, pixels);
  EXPECT_EQ(ftruncate(open.get(), 2 * page + 7), 0);
  EXPECT_FALSE(read->read(page, space));

  for (const auto& [memory, descriptor] : {std::pair{mapped, sealed.get()}, {read, open.get()}}) {
    memory->release(0x0102030405060708);
    std::uint64_t word = 0;
    EXPECT_EQ(pread(descriptor, &word, sizeof word, 0), 8);
    EXPECT_EQ(word, 0x0102030405060708u);
  }
}

TEST(RecordHeader, PlacesAreWholePagesInsideTheMemory) {
  const std::uint64_t memory = 4 * page;
  EXPECT_FALSE(isValidPlace(0, 16, memory));
  EXPECT_FALSE(isValidPlace(page - 1, 16, memory));
  EXPECT_FALSE(isValidPlace(page + 8, 16, memory));
  EXPECT_TRUE(isValidPlace(page, 3 * page, memory));
  EXPECT_FALSE(isValidPlace(page, 3 * page + 16, memory));
  EXPECT_TRUE(isValidPlace(3 * page, page, memory));
  EXPECT_FALSE(isValidPlace(4 * page, 16, memory));
  EXPECT_FALSE(isValidPlace(0xFFFFFFFFFFFFF000, 8 * page, memory));
  EXPECT_FALSE(isValidPlace(page, 5 * page, memory));
}

TEST(ReleaseOrder, TellsTheLatestFrameBehindWhichNoneIsRead) {
  ReleaseOrder order;
  order.begin(3);
  EXPECT_EQ(order.end(3), 3u);
  for (const std::uint64_t id : {5, 6, 8, 9, 12}) order.begin(id);
  EXPECT_EQ(order.end(8), std::nullopt);
  EXPECT_EQ(order.end(12), std::nullopt);
  EXPECT_EQ(order.end(6), std::nullopt);
  EXPECT_EQ(order.end(5), 8u);
  EXPECT_EQ(order.end(9), 12u);
  order.begin(20);
  EXPECT_EQ(order.end(20), 20u);
}

// The service with a parent that shares memory.
struct SharedFramesTest : testing::TestWithParam<int> {
  void SetUp() override { probe.becomeReady(); }
  void put(std::uint64_t id, std::uint64_t offset, client::FrameSize size = {32, 32}) {
    const auto record = client::frameReference(size, id, offset);
    probe.process->input.insert(probe.process->input.end(), record.begin(), record.end());
  }
  std::string readAll() {
    probe.dispatch->detached.at(0)();
    probe.run();
    return probe.error();
  }
  std::uint64_t released() const {
    std::uint64_t word = 0;
    EXPECT_EQ(pread(memory.get(), &word, sizeof word, 0), 8);
    return word;
  }

  const client::Descriptor memory = makeMemory(4 * page, GetParam());
  std::shared_ptr<FrameMemory> inherited = inheritFrameMemory(memory.get());
  VideoEncoderProbe probe{Configuration{.token = "0123456789abcdef"}, inherited};
};
INSTANTIATE_TEST_SUITE_P(BothWays, SharedFramesTest, testing::Values(0, seal));

TEST_P(SharedFramesTest, EndForPlacesOutsideAndRecordsCutShort) {
  put(7, 3 * page);  // nobody needs it
  put(8, 0);
  EXPECT_EQ(readAll(), "invalid raw frame header");
  EXPECT_EQ(probe.process->exitCodes, std::vector<int>{1});
  EXPECT_EQ(released(), 7u);
  EXPECT_EQ(probe.statistics()["dropped_raw"], 1);
}

TEST_P(SharedFramesTest, EndForAnOffsetCutShort) {
  put(7, page);
  probe.process->input.pop_back();
  EXPECT_EQ(readAll(), "truncated raw frame");
}

TEST_P(SharedFramesTest, EndForAHeaderThatBreaksTheOtherRules) {
  put(7, page, {32, 31});
  EXPECT_EQ(readAll(), "invalid raw frame header");
}

// The pipe still takes pixels; the ids go on across both.
TEST_P(SharedFramesTest, GoTogetherWithPixelsAndCommands) {
  put(7, page);
  const auto header = client::frameHeader({2, 2}, 8);
  Bytes& input = probe.process->input;
  input.insert(input.end(), header.begin(), header.end());
  input.resize(input.size() + 16);
  put(9, 2 * page);
  put(9, 3 * page);
  EXPECT_EQ(readAll(), "invalid raw frame header");
  EXPECT_EQ(released(), 9u);
  EXPECT_EQ(probe.statistics()["dropped_raw"], 3);
}

using MappedFrames = SharedFramesTest;
INSTANTIATE_TEST_SUITE_P(Sealed, MappedFrames, testing::Values(seal));

// The session takes the picture where it lies; one that was dropped meanwhile has to wait for it.
TEST_P(MappedFrames, AreReadWhereTheyLieAndBelongToTheHelperUntilThen) {
  const auto client = probe.connectClient();
  PictureMemory idle = probe.pictures->allocate(page);
  const std::uint8_t* onlyPicture = idle.get();
  idle.reset();
  put(7, 2 * page);
  put(8, page);
  probe.dispatch->detached.at(0)();
  EXPECT_EQ(released(), 0u);
  while (probe.queue->runNext() && probe.encoders->sessions.empty()) {
  }
  FakeSession& session = probe.lastSession();
  ASSERT_EQ(session.pending.size(), 1u);
  auto& buffer = session.pending[0].first;
  EXPECT_EQ(buffer->picture().view.pixels, inherited->at(2 * page) + 31 * 128);
  EXPECT_EQ(probe.pictures->allocate(page).get(), onlyPicture);  // nobody has taken it
  EXPECT_EQ(released(), 0u);
  buffer.reset();  // the encoder has its own copy, and has not answered yet
  EXPECT_EQ(released(), 8u);
  expectKeys(probe.statistics(), {{"dropped_raw", 1}, {"encode_inflight", 1}});
}

TEST(FrameMemoryReader, IsUnknownUnlessAskedFor) {
  VideoEncoderProbe probe;
  probe.becomeReady();
  const auto record = client::frameReference({32, 32}, 7, page);
  probe.process->input.assign(record.begin(), record.end());
  probe.dispatch->detached.at(0)();
  probe.run();
  EXPECT_EQ(probe.error(), "invalid raw frame header");
}

}  // namespace
}  // namespace lumora
