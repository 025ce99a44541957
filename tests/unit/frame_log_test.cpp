// The log of what became of each frame of a take: order, outcomes. Of failed takes: take_ends_test.

#include "client/records.h"
#include "tests/unit/probe.h"

namespace lumora {
namespace {

struct LoggedTakes : Takes {
  void startLogged(Json keys = Json::object()) {
    keys.update({{"frame_log", true}, {"resolution", "640x360"}, {"target_fps", 30}});
    start(keys);
    frame(1001.0, true);
  }
  // Frames for the reader, from this id on.
  void put(std::uint64_t id, int count = 1) {
    for (; count > 0; --count, ++id) {
      probe.put(client::frameHeader({2, 2}, id));
      probe.put(Bytes(2 * 2 * 4));
    }
  }
};

TEST_F(LoggedTakes, SayWhatBecameOfEachFrameInTheOrderOfReading) {
  startLogged({{"started_at", 1000.0}});
  frame(999.9);
  feed(1001.2);
  probe.answer(nullptr, 0, infoFrameDropped);
  frame(1001.25);  // no key frame
  frame(1001.3, true);
  EXPECT_EQ(writer().takeLines(),
            "id,captured,movie_time,outcome\n"
            "1,1001.000000,0.000000,written\n"
            "2,999.900000,,before start\n"
            "3,1001.200000,,encoder\n"
            "4,1001.250000,,waiting for key frame\n");
  frame(1001.301);
  (*probe).encode({.width = 640, .height = 360, .id = 7, .capturedAt = 1001.31});
  lastID = 7;
  feed(1001.5);
  put(9, 2);
  probe.put(client::commandRecord(R"({"type":"record_stop","id":")" + takeID + "\"}"));
  put(11);
  probe.readAll();
  EXPECT_EQ(writer().takeLines(), "");  // the last sample waits for the next, and all behind it
  probe.answer(deltaSample());
  probe.failures->fail("move", 2);
  expectKeys(
      complete(),
      {{"frames", 2}, {"path", takePath}, {"frame_log_error", "the final name was unavailable"}});
  EXPECT_EQ(writer().takeLines(),
            "5,1001.300000,1.300000,written\n"
            "6,1001.301000,,throttled\n"
            "7,1001.310000,,undecodable\n"
            "8,1001.500000,,after stop\n"
            "9,1001.500000,,busy\n"
            "10,1001.500000,,busy\n"
            "11,1001.500000,,after stop\n");
}

TEST(FrameLog, KeepsTheFirstOutcomeOfEachFrame) {
  FrameLog log;
  log.note({1, 1.0}, std::nullopt);
  log.note({2, 2.0}, std::nullopt);
  log.settle(2, FrameOutcome::written, 0.5);
  log.end(FrameOutcome::disk);
  log.settle(1, FrameOutcome::written, 0);
  log.settle(2, FrameOutcome::encoder);
  EXPECT_EQ(log.takeLines(),
            "id,captured,movie_time,outcome\n"
            "1,1.000000,,disk\n"
            "2,2.000000,0.500000,written\n");
}

TEST_F(LoggedTakes, EndTheirLogWhenTooManyFramesWait) {
  startLogged();
  feed(1001.1);
  put(101, maximumDropsAhead + 50);
  probe.readAll();
  probe.answer(deltaSample());
  expectKeys(complete(), {{"frames", 2}, {"frame_log_error", "too many frames waited"}});
  EXPECT_THAT(writer().takeLines(), testing::EndsWith(",busy\n1100,1001.100000,,busy\n"));
  FrameLog log;
  for (std::uint64_t id = 0; id <= FrameLog::mostFrames; ++id) log.note({id}, {});
  EXPECT_TRUE(log.isIncomplete());
}

}  // namespace
}  // namespace lumora
