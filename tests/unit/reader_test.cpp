// The record stream on standard input: framing, limits, admission.

#include <mutex>
#include <semaphore>
#include <thread>

#include "client/records.h"
#include "input/record_header.h"
#include "tests/unit/probe.h"

namespace lumora {
namespace {

struct Reader : ServiceTest {
  void put(const RecordHeader& header, std::size_t payload) {
    probe.put(client::recordHeader(header.length, header.width, header.height, header.id));
    probe.put(std::string(payload, ' '));
  }
  void putFrame(std::uint64_t id) { put({16, 2, 2, id}, 16); }

  std::string readAll() {
    probe.dispatch->detached.at(0)();
    EXPECT_EQ(probe.process->watchdog.first, 2.2);  // even if the queue stands
    probe.run();
    return probe.error();
  }
};

TEST_F(Reader, EndsQuietlyInsideAHeader) {
  probe.process->input = {0, 0, 0, 16, 0, 2, 0, 2, 0, 0, 0, 0, 0, 0, 0, 7};  // 2 × 2, frame 7
  probe.process->input.resize(16 + 16 + 10);
  EXPECT_EQ(readAll(), "");
  EXPECT_EQ(probe.process->exitCodes, std::vector<int>{0});
  EXPECT_EQ(probe.statistics()["dropped_raw"], 1);
}

TEST_F(Reader, ReportsEachBrokenRecordAndStops) {
  const char* framing = "invalid recording command framing";
  const std::tuple<RecordHeader, std::size_t, const char*> cases[] = {
      {{0, 0, 0, 0}, 0, framing},
      {{4097, 0, 0, 0}, 4097, framing},
      {{0xFFFFFFFF, 0, 0, 0}, 0, framing},
      {{9, 0, 0, 0}, 8, framing},
      {{16, 0, 0, 5}, 16, "invalid raw frame header"},
      {{16, 2, 2, 0}, 16, "invalid raw frame header"},
      {{16, 2, 2, 1}, 15, "truncated raw frame"}};
  for (const auto& [header, payload, message] : cases) {
    probe.restart();
    put(header, payload);
    putFrame(9);
    if (payload == 15 || payload == 8) probe.process->input.resize(16 + payload);
    EXPECT_EQ(readAll(), message);
    EXPECT_EQ(probe.process->exitCodes, std::vector<int>{1});
    probe.signal(15);  // too late to change the code
    EXPECT_EQ(probe.process->watchdog, (std::pair{2.2, 1}));
  }
}

TEST_F(Reader, TheFirstCauseOfAnEndDecidesItsCode) {
  putFrame(1);
  probe.process->input.pop_back();
  probe.process->signals.at(15)();
  probe.dispatch->detached.at(0)();
  EXPECT_EQ(probe.process->watchdog, (std::pair{2.2, 0}));
  probe.run();
  EXPECT_EQ(probe.process->exitCodes, std::vector<int>{0});
}

// The code is decided where the causes arrive in turn, not where the first of them was noticed.
TEST_F(Takes, TheStateQueueDecidesTheCodeAndTheWatchdogFollows) {
  startWithFrame();  // and no disk that ever finishes it
  probe.put(client::commandRecord("{}"));
  EXPECT_EQ(probe.readAll(), "invalid recording command");
  EXPECT_EQ(probe.process->watchdog, (std::pair{2.2, 1}));
  probe.clock->now += 2.0;
  probe.run();
  EXPECT_EQ(probe.process->exitCodes, std::vector<int>{1});

  probe.restart();
  startWithFrame();
  probe.process->input = {0, 0, 0, 16, 0, 2, 0, 2, 0, 0, 0, 0, 0, 0, 0, 7, 0};  // and it is gone
  probe.failures->fail(Call::writeOutput, 1, -EPIPE, /*more=*/9);
  probe.readAll();
  EXPECT_EQ(probe.process->watchdog, (std::pair{2.2, 0}));
  probe.clock->now += 2.0;
  probe.run();
  EXPECT_EQ(probe.process->exitCodes, std::vector<int>{0});
}

TEST_F(Reader, DropsFramesWhileOneIsInFlightHoweverTheReadsAreCut) {
  probe.process->chunk = 3;  // the reads are small, and some are interrupted
  probe.process->interruptions = 4;
  const auto client = probe.connectClient();
  putFrame(3);
  putFrame(7);
  putFrame(7);  // repeated: the dropped 7 counts
  EXPECT_EQ(readAll(), "invalid raw frame header");
  expectKeys(probe.statistics(), {{"dropped_raw", 1}, {"encode_inflight", 1}});
  EXPECT_EQ(probe.lastSession().submitted.size(), 1u);
}

// A state queue that handles one work item at a time, when the test says so.
struct SteppedQueue final : SerialQueue {
  void async(Work item) override {
    const std::lock_guard hold(mutex);
    work.push_back(std::move(item));
    arrivals.release();
  }
  void asyncAfter(double, Work) override {}
  void setFailureHandler(FailureHandler) override {}
  void handleOne() {
    const std::lock_guard hold(mutex);  // which the reader may wait for, and nothing else
    ASSERT_FALSE(work.empty());
    work.front()();
    work.pop_front();
  }
  // Whether another item comes.
  bool grows(std::chrono::milliseconds within = std::chrono::seconds(20)) {
    return arrivals.try_acquire_for(within);
  }
  std::mutex mutex;
  std::deque<Work> work;
  std::counting_semaphore<> arrivals{0};
};

TEST(ReaderBacklog, WaitsWhileSixtyFourCommandsWaitButNotForEver) {
  VideoEncoderProbe probe;
  const auto queue = std::make_shared<SteppedQueue>();
  Platform platform{probe.pictures, queue,          probe.clock,  probe.dispatch, probe.process,
                    probe.network,  probe.encoders, probe.images, probe.movies,   probe.files};
  const auto service = std::make_shared<VideoEncoder>(Configuration{}, platform);
  const std::string stop = client::commandRecord(
      R"({"type":"record_stop","id":"6f9619ff-8b86-d011-b42d-00cf4fc964ff"})");
  Bytes& input = probe.process->input;
  constexpr int many = 140;  // so many that a wait for each would last minutes
  for (int i = 0; i < many; ++i) input.insert(input.end(), stop.begin(), stop.end());
  std::jthread reader([&] { service->readFrames(); });
  for (int i = 0; i < 64; ++i) EXPECT_TRUE(queue->grows());
  EXPECT_FALSE(queue->grows(std::chrono::milliseconds(50)));
  for (int i = 64; i < 67; ++i) {
    queue->handleOne();
    EXPECT_TRUE(queue->grows());
  }
  // The last ones and the end, two seconds later, though none is handled.
  for (int i = 67; i < many + 1; ++i) EXPECT_TRUE(queue->grows());
  reader.join();
  for (int i = 3; i < many; ++i) queue->handleOne();
  // As many may wait as before.
  for (int i = 0; i < 65; ++i) input.insert(input.end(), stop.begin(), stop.end());
  reader = std::jthread([&] { service->readFrames(); });
  for (int i = 0; i < 64; ++i) EXPECT_TRUE(queue->grows());
  EXPECT_FALSE(queue->grows(std::chrono::milliseconds(50)));
  queue->handleOne();  // the end of the first input
  queue->handleOne();
  for (int i = 0; i < 2; ++i) EXPECT_TRUE(queue->grows());
}

TEST(RecordHeader, FrameLimits) {
  using client::FrameSize;
  const auto valid = [](FrameSize size) {
    return isValidFrame(decodeRecordHeader(client::frameHeader(size, 8)), 7);
  };
  for (const FrameSize size : {FrameSize{2, 2}, {1920, 1080}, {1080, 1920}, {1080, 1080}})
    EXPECT_TRUE(valid(size)) << size.width;
  // The shorter side above 1080, the longer one above 1920, odd, empty.
  for (const FrameSize size : {FrameSize{1440, 1440}, {1082, 1082}, {1922, 2}, {3, 2}, {2, 0}})
    EXPECT_FALSE(valid(size)) << size.width;
  EXPECT_FALSE((RecordHeader{12, 2, 2, 8}.carriesPixels()));
  EXPECT_TRUE(isValidFrame({16, 2, 2, 0xFFFFFFFFFFFFFFFF}, 0xFFFFFFFFFFFFFFFE));
  EXPECT_FALSE(isValidFrame({16, 2, 2, 7}, 7));
}

TEST(PicturePool, RecyclesPicturesOfTheSameSizeOnly) {
  const auto pool = PicturePool::make();
  const std::uint8_t* memory = pool->allocate(4000).get();
  const PictureMemory larger = pool->allocate(5000);
  EXPECT_NE(larger.get(), memory);
  EXPECT_EQ(pool->allocate(4000).get(), memory);
}

}  // namespace
}  // namespace lumora
