// The record stream on standard input: framing, limits, admission.

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

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

TEST_F(Reader, TheFirstCauseOfAnEndDecidesItsCode) {
  putFrame(1);
  probe.process->input.pop_back();
  probe.process->signals.at(15)();
  probe.dispatch->detached.at(0)();
  EXPECT_EQ(probe.process->watchdog, (std::pair{2.0, 0}));
  probe.run();
  EXPECT_EQ(exits(), std::vector<int>{0});
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

// A state queue that handles one work item at a time, when the test says so.
struct SteppedQueue final : SerialQueue {
  void async(Work item) override {
    const std::lock_guard hold(mutex);
    work.push_back(std::move(item));
    ++taken;
    changed.notify_all();
  }
  void asyncAfter(double, Work) override {}
  void setFailureHandler(FailureHandler) override {}
  void handleOne() {
    std::unique_lock hold(mutex);
    ASSERT_FALSE(work.empty());
    const Work next = std::move(work.front());
    work.pop_front();
    hold.unlock();
    next();
  }
  bool reaches(int count, std::chrono::milliseconds within) {
    std::unique_lock hold(mutex);
    return changed.wait_for(hold, within, [&] { return taken >= count; });
  }
  std::mutex mutex;
  std::condition_variable changed;
  std::deque<Work> work;
  int taken = 0;
};

TEST(ReaderBacklog, WaitsWhileSixtyFourCommandsWait) {
  VideoEncoderProbe probe;
  const auto queue = std::make_shared<SteppedQueue>();
  Platform platform{probe.pictures, queue,          probe.clock,  probe.dispatch, probe.process,
                    probe.network,  probe.encoders, probe.images, probe.movies,   probe.files};
  const auto service = std::make_shared<VideoEncoder>(Configuration{}, platform);
  const std::string stop = R"({"type":"record_stop","id":"6f9619ff-8b86-d011-b42d-00cf4fc964ff"})";
  const auto length = static_cast<std::uint32_t>(stop.size());
  for (int i = 0; i < 70; ++i) {
    const auto header = client::recordHeader(length, 0, 0, 0);
    probe.process->input.insert(probe.process->input.end(), header.begin(), header.end());
    probe.process->input.insert(probe.process->input.end(), stop.begin(), stop.end());
  }
  std::jthread reader([&] { service->readFrames(); });
  EXPECT_TRUE(queue->reaches(64, std::chrono::seconds(20)));
  EXPECT_FALSE(queue->reaches(65, std::chrono::milliseconds(50)));
  for (int handled = 1; handled <= 6; ++handled) {
    queue->handleOne();
    EXPECT_TRUE(queue->reaches(64 + handled, std::chrono::seconds(20)));
  }
  EXPECT_TRUE(queue->reaches(71, std::chrono::seconds(20)));  // and the end
}

TEST(RecordHeader, FrameLimits) {
  const auto valid = [](std::uint16_t width, std::uint16_t height, std::uint32_t length) {
    return isValidFrame({length, width, height, 8}, 7);
  };
  EXPECT_TRUE(valid(2, 2, 16));
  EXPECT_TRUE(valid(1920, 1080, 8294400));
  EXPECT_TRUE(valid(1080, 1920, 8294400));
  EXPECT_FALSE(valid(1440, 1440, 8294400));  // shorter side above 1080
  EXPECT_TRUE(valid(1080, 1080, 1080 * 1080 * 4));
  EXPECT_FALSE(valid(1082, 1082, 1082 * 1082 * 4));
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
