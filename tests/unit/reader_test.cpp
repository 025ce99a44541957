// The record stream on standard input: framing, limits, admission, decoding.

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

TEST_F(Reader, EndsWithoutAnErrorIfTheInputEndsInsideAHeader) {
  probe.process->input = {0, 0, 0, 16, 0, 2, 0, 2, 0, 0, 0, 0, 0, 0, 0, 7};  // 2 × 2, frame 7
  probe.process->input.resize(16 + 16 + 10);
  EXPECT_EQ(probe.readAll(), "");
  EXPECT_EQ(probe.process->exitCodes, std::vector<int>{0});
  EXPECT_EQ(probe.statistics()["dropped_raw"], 1);
}

TEST_F(Reader, StopsAtABrokenRecord) {
  const char *framing = "invalid recording command framing", *invalid = "invalid raw frame header";
  const std::tuple<RecordHeader, std::size_t, const char*> cases[] = {
      {{0, 0, 0, 0}, 0, framing},
      {{4097, 0, 0, 0}, 4097, framing},
      {{9, 0, 0, 0}, 8, framing},
      {{16, 0, 0, 5}, 16, invalid},
      {{16, 2, 2, 0}, 16, invalid},
      {{8, 2, 2, 1}, 16, invalid},                     // an offset, but no shared memory
      {{4 * 1082 * 1082, 1082, 1082, 1}, 0, invalid},  // the shorter side is too long
      {{4 * 1922 * 2, 1922, 2, 1}, 0, invalid},        // the longer side is too long
      {{24, 3, 2, 1}, 0, invalid},
      {{0, 2, 0, 1}, 0, invalid},
      {{16, 2, 2, 1}, 15, "truncated raw frame"}};
  for (const auto& [header, payload, message] : cases) {
    probe.restart();
    put(header, payload);
    EXPECT_EQ(probe.readAll(), message);
    EXPECT_EQ(probe.process->exitCodes, std::vector<int>{1});
    probe.signal(15);  // too late to change the exit code
    EXPECT_EQ(probe.process->watchdog, (std::pair{2.2, 1}));
  }
}

TEST_F(Reader, ReadsSoundAmongFramesDropsUntimelySoundAndStopsAtBrokenSound) {
  constexpr std::uint64_t second = 1'000'000, now = 1000 * second;
  const Configuration mono{.sound = SoundFormat{8000, 1}};
  const auto putSound = [this](std::uint64_t id, std::uint32_t bytes) {
    put({bytes, 0, 0, id}, bytes);
  };
  probe.restart(mono);
  putFrame(now);
  for (const std::uint64_t id : {now - 31 * second, now - 29 * second, now, now + 51'000})
    putSound(id, 4000);
  putFrame(now + 1);
  EXPECT_EQ(probe.readAll(), "");
  EXPECT_EQ(probe.process->exitCodes, std::vector<int>{0});
  expectKeys(probe.statistics(), {{"dropped_raw", 2}, {"dropped_sound", 2}});
  probe.restart(mono);
  // The queue for sound runs nothing meanwhile. Two seconds of sound may wait, the rest is dropped.
  for (std::uint64_t id = now; id < now + 10; ++id) putSound(id, 4000);
  EXPECT_EQ(probe.readAll(), "");
  EXPECT_EQ(probe.statistics()["dropped_sound"], 2);
  for (const std::uint64_t id : {now, now + 1}) {  // an id that repeats; then a payload cut off
    probe.restart(mono);
    putSound(now, 2);
    put({4, 0, 0, id}, 3);
    EXPECT_EQ(probe.readAll(), "invalid sound record");
    EXPECT_EQ(probe.process->exitCodes, std::vector<int>{1});
  }
}

TEST_F(Reader, DropsFramesWhileOneIsInFlightHoweverTheReadsAreCut) {
  probe.process->chunk = 3;  // the reads are small, and some are interrupted
  probe.process->interruptions = 4;
  const auto client = probe.connectClient();
  putFrame(3);
  // An id of 33 bits. The second frame with this id is refused, although the first one is dropped.
  for (int i = 0; i < 2; ++i) putFrame(0x100000001);
  EXPECT_EQ(probe.readAll(), "invalid raw frame header");
  expectKeys(probe.statistics(), {{"dropped_raw", 1}, {"encode_inflight", 1}});
}

TEST_F(Reader, WaitsWhileSixtyFourCommandsWaitButForTwoSecondsAtMost) {
  const auto read = [this](int commands) {
    std::string command = R"({"type":"record_stop","id":")" + takeID + "\"}";
    command.resize(4096, ' ');  // as long as it may be
    for (int i = 0; i < commands; ++i) probe.put(client::commandRecord(command));
    probe.dispatch->detached.at(0)();
  };
  // Whether the reader passes on one more command only after a waiting command was handled.
  const auto waits = [&] {
    std::atomic<bool> isHandled = false;
    const std::jthread later([&] {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
      isHandled = true;
      probe.queue->runNext();
    });
    read(1);
    return isHandled.load();
  };
  read(64);
  EXPECT_TRUE(waits());
  read(75);  // waits two seconds once; to wait for each command would take minutes
  probe.run();
  read(64);  // as many may wait as before
  EXPECT_TRUE(waits());
}

TEST_F(Reader, DecodesOnlyWhatMayBeNeededAndDropsWhatItCannotDecode) {
  const Bytes good = {0xFF, 0xD8}, bad = {0, 0xD8};
  const Json start = {{"type", "record_start"}, {"id", takeID}, {"path", takePath}};
  for (const bool isForTake : {false, true}) {
    probe.restart({.frameFormat = parseFrameFormat("mjpeg").value()});
    const auto feed = [&](std::uint64_t id, const Bytes& picture) {
      probe.put(client::frameHeader({4, 2}, id, picture.size()));
      probe.put(picture);
    };
    const auto need = [&] {
      if (!isForTake) probe.connectClient();
      // Frame 3 is read before this command is handled.
      if (isForTake) probe.put(client::commandRecord(start.dump()));
    };
    // Each step: the input to put once all earlier input has been read, and how many pictures the
    // decoder has been given by that time.
    const std::pair<Work, std::size_t> steps[] = {
        {[&] { feed(1, good); }, 0},
        {[&] { feed(2, good); }, 1},  // frame 1 was decoded: at first, frames count as needed
        {[&] { need(), feed(3, bad), feed(4, good); }, 1},
        {[&] { feed(5, good); }, 2}};  // frames 1 and 3: frame 4 came while frame 3 was in flight
    probe.process->beforeRead = [&, next = steps]() mutable {
      if (!probe.process->input.empty() || next == std::end(steps)) return;
      probe.run();
      EXPECT_EQ(probe.decoder->records.size(), next->second);
      EXPECT_TRUE(probe.encoders->sessions.empty());
      (next++)->first();
    };
    EXPECT_EQ(probe.readAll(), "");
    expectKeys(probe.statistics(), {{"dropped_raw", 4}, {"encode_inflight", 1}});
    EXPECT_EQ(probe.lastSession().submitted.size(), 1u);
  }
}

}  // namespace
}  // namespace lumora
