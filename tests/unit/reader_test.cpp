// The record stream on standard input: framing, limits, admission.

#include <gtest/gtest.h>

#include "client/records.h"
#include "input/record_header.h"
#include "tests/unit/probe.h"

namespace lumora {
namespace {

struct Reader : testing::Test {
  void SetUp() override { probe.becomeReady(); }

  void put(std::uint32_t length, std::uint16_t width, std::uint16_t height, std::uint64_t id,
           std::size_t payload) {
    const auto header = client::recordHeader(length, width, height, id);
    Bytes& input = probe.process->input;
    input.insert(input.end(), header.begin(), header.end());
    input.resize(input.size() + payload, ' ');
  }
  void putFrame(std::uint64_t id) { put(16, 2, 2, id, 16); }

  // Reads everything, then runs the queue; the message of the error event, if any.
  std::string readAll() {
    probe.dispatch->detached.at(0)();
    EXPECT_EQ(probe.process->watchdog.first, 2.0);  // even if the queue stands
    probe.run();
    const auto errors = probe.process->takeEvents("error");
    return errors.empty() ? "" : errors.at(0)["message"].get<std::string>();
  }
  std::vector<int> exits() { return probe.process->exitCodes; }

  VideoEncoderProbe probe;
};

TEST_F(Reader, EndsQuietlyInsideAHeader) {
  probe.process->input = {0, 0, 0, 16, 0, 2, 0, 2, 0, 0, 0, 0, 0, 0, 0, 7};  // 2 × 2, frame 7
  probe.process->input.resize(16 + 16 + 10);
  EXPECT_EQ(readAll(), "");
  EXPECT_EQ(exits(), std::vector<int>{0});
  EXPECT_EQ(probe.statistics()["dropped_raw"], 1);
}

TEST_F(Reader, ReportsEachBrokenRecordAndStops) {
  struct Case {
    std::uint32_t length;
    std::uint16_t width, height;
    std::uint64_t id;
    std::size_t payload;
    const char* message;
  };
  const Case cases[] = {{0, 0, 0, 0, 0, "invalid recording command framing"},
                        {4097, 0, 0, 0, 4097, "invalid recording command framing"},
                        {0xFFFFFFFF, 0, 0, 0, 0, "invalid recording command framing"},
                        {9, 0, 0, 0, 8, "invalid recording command framing"},
                        {16, 0, 0, 5, 16, "invalid raw frame header"},
                        {16, 2, 2, 0, 16, "invalid raw frame header"},
                        {16, 2, 2, 1, 15, "truncated raw frame"}};
  for (const Case& broken : cases) {
    probe.restart();
    put(broken.length, broken.width, broken.height, broken.id, broken.payload);
    putFrame(9);
    if (broken.payload == 15 || broken.payload == 8)
      probe.process->input.resize(16 + broken.payload);
    EXPECT_EQ(readAll(), broken.message);
    EXPECT_EQ(exits(), std::vector<int>{1});
    probe.signal(15);  // too late to change the code
    EXPECT_EQ(probe.process->watchdog, (std::pair{2.0, 1}));
  }
}

TEST_F(Reader, ReassemblesRecordsFromSmallAndInterruptedReads) {
  probe.process->chunk = 3;
  probe.process->interruptions = 4;
  putFrame(1);
  putFrame(2);
  putFrame(2);  // what it says of this one shows that it has read the others
  EXPECT_EQ(readAll(), "invalid raw frame header");
  EXPECT_EQ(probe.statistics()["dropped_raw"], 2);
}

TEST_F(Reader, DropsFramesWhileOneIsInFlightButRemembersTheirIds) {
  const auto client = probe.connectClient();
  putFrame(3);
  putFrame(7);
  putFrame(7);  // repeated: the dropped 7 counts
  EXPECT_EQ(readAll(), "invalid raw frame header");
  probe.expectStatistics({{"dropped_raw", 1}, {"encode_inflight", 1}});
  EXPECT_EQ(probe.lastSession().submitted.size(), 1u);
}

TEST(RecordHeader, FrameLimits) {
  const auto valid = [](std::uint16_t width, std::uint16_t height, std::uint32_t length) {
    return isValidFrame({length, width, height, 8}, 7);
  };
  EXPECT_TRUE(valid(2, 2, 16));
  EXPECT_TRUE(valid(1920, 1080, 8294400));
  EXPECT_TRUE(valid(1080, 1920, 8294400));
  EXPECT_FALSE(valid(1440, 1440, 8294400));  // shorter side above 1080
  EXPECT_FALSE(valid(1920, 1082, 1920 * 1082 * 4));
  EXPECT_FALSE(valid(1922, 2, 1922 * 2 * 4));
  EXPECT_FALSE(valid(3, 2, 24));
  EXPECT_FALSE(valid(2, 0, 0));
  EXPECT_FALSE(valid(2, 2, 12));
  EXPECT_TRUE(isValidFrame({16, 2, 2, 0xFFFFFFFFFFFFFFFF}, 0xFFFFFFFFFFFFFFFE));
  EXPECT_FALSE(isValidFrame({16, 2, 2, 7}, 7));
}

TEST(PicturePool, RecyclesPicturesOfTheSameSizeOnly) {
  const auto pool = PicturePool::make();
  PictureMemory picture = pool->allocate(4000);
  const std::uint8_t* memory = picture.get();
  picture.reset();
  const PictureMemory larger = pool->allocate(5000);
  EXPECT_NE(larger.get(), memory);
  EXPECT_EQ(pool->allocate(4000).get(), memory);
}

}  // namespace
}  // namespace lumora
