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
};

TEST_F(Reader, EndsQuietlyInsideAHeader) {
  probe.process->input = {0, 0, 0, 16, 0, 2, 0, 2, 0, 0, 0, 0, 0, 0, 0, 7};  // 2 × 2, frame 7
  probe.process->input.resize(16 + 16 + 10);
  EXPECT_EQ(probe.readAll(), "");
  EXPECT_EQ(probe.process->exitCodes, std::vector<int>{0});
  EXPECT_EQ(probe.statistics()["dropped_raw"], 1);
}

TEST_F(Reader, StopsAtABrokenRecord) {
  const char* framing = "invalid recording command framing";
  const std::tuple<RecordHeader, std::size_t, const char*> cases[] = {
      {{0, 0, 0, 0}, 0, framing},
      {{4097, 0, 0, 0}, 4097, framing},
      {{0xFFFFFFFF, 0, 0, 0}, 0, framing},
      {{9, 0, 0, 0}, 8, framing},
      {{16, 0, 0, 5}, 16, "invalid raw frame header"},
      {{16, 2, 2, 0}, 16, "invalid raw frame header"},
      {{8, 2, 2, 1}, 16, "invalid raw frame header"},  // an offset, without memory for it
      {{16, 2, 2, 1}, 15, "truncated raw frame"}};
  for (const auto& [header, payload, message] : cases) {
    probe.restart();
    put(header, payload);
    putFrame(9);
    if (payload == 15 || payload == 8) probe.process->input.resize(16 + payload);
    EXPECT_EQ(probe.readAll(), message);
    EXPECT_EQ(probe.process->exitCodes, std::vector<int>{1});
    probe.signal(15);  // too late to change the code
    EXPECT_EQ(probe.process->watchdog, (std::pair{2.2, 1}));
  }
}

TEST_F(Reader, LeavesTheExitStatusToTheFirstCause) {
  putFrame(1);
  probe.process->input.pop_back();
  probe.process->signals.at(15)();
  probe.readAll();
  EXPECT_EQ(probe.process->watchdog, (std::pair{2.2, 0}));
  EXPECT_EQ(probe.process->exitCodes, std::vector<int>{0});
}

TEST_F(Reader, DropsFramesWhileOneIsInFlightHoweverTheReadsAreCut) {
  probe.process->chunk = 3;  // the reads are small, and some are interrupted
  probe.process->interruptions = 4;
  const auto client = probe.connectClient();
  putFrame(3);
  putFrame(7);
  putFrame(7);  // repeated: the dropped 7 counts
  EXPECT_EQ(probe.readAll(), "invalid raw frame header");
  expectKeys(probe.statistics(), {{"dropped_raw", 1}, {"encode_inflight", 1}});
  EXPECT_EQ(probe.lastSession().submitted.size(), 1u);
}

// A state queue that handles work items when the test says so.
struct SteppedQueue final : SerialQueue {
  void async(Work item) override {
    const std::lock_guard hold(mutex);
    work.push_back(std::move(item));
    arrivals.release();
  }
  void asyncAfter(double, Work) override {}
  void setFailureHandler(FailureHandler) override {}
  void handle(int count) {
    const std::lock_guard hold(mutex);  // which the reader may wait for, and nothing else
    for (; count > 0; --count) {
      ASSERT_FALSE(work.empty());
      work.front()();
      work.pop_front();
    }
  }
  // Whether that many items come, and no more at once.
  bool gets(int count) {
    for (; count > 0; --count)
      if (!arrivals.try_acquire_for(std::chrono::seconds(20))) return false;
    return !arrivals.try_acquire_for(std::chrono::milliseconds(50));
  }
  std::mutex mutex;
  std::deque<Work> work;
  std::counting_semaphore<> arrivals{0};
};

TEST(ReaderBacklog, WaitsWhileSixtyFourCommandsWaitButNotForEver) {
  VideoEncoderProbe probe;
  const auto queue = std::make_shared<SteppedQueue>();
  Platform platform{probe.pictures, queue,         probe.clock,    probe.dispatch,
                    probe.process,  probe.network, probe.encoders, probe.images,
                    probe.images,   probe.movies,  probe.files,    probe.decoder};
  const auto service = std::make_shared<VideoEncoder>(Configuration{}, platform);
  const auto read = [&](int commands) {
    for (int i = 0; i < commands; ++i)
      probe.put(client::commandRecord(R"({"type":"record_stop","id":")" + takeID + "\"}"));
    return std::jthread([&] { service->readFrames(); });
  };
  constexpr int many = 140;  // so many that a wait for each would last minutes
  std::jthread reader = read(many);
  EXPECT_TRUE(queue->gets(64));
  queue->handle(3);
  EXPECT_TRUE(queue->gets(3));
  // The last ones and the end, two seconds later, though none is handled.
  EXPECT_TRUE(queue->gets(many + 1 - 67));
  reader.join();
  queue->handle(many - 3);
  // As many may wait as before.
  reader = read(65);
  EXPECT_TRUE(queue->gets(64));
  queue->handle(2);  // the end of the first input, and a command
  EXPECT_TRUE(queue->gets(2));
}

TEST(RecordHeader, LimitsFramesTo1920By1080) {
  using client::FrameSize;
  const auto isValid = [](FrameSize size) {
    return isValidFrame(decodeRecordHeader(client::frameHeader(size, 8)), 7);
  };
  for (const FrameSize size : {FrameSize{2, 2}, {1920, 1080}, {1080, 1920}, {1080, 1080}})
    EXPECT_TRUE(isValid(size)) << size.width;
  // The shorter side above 1080, the longer one above 1920, odd, empty.
  for (const FrameSize size : {FrameSize{1440, 1440}, {1082, 1082}, {1922, 2}, {3, 2}, {2, 0}})
    EXPECT_FALSE(isValid(size)) << size.width;
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
