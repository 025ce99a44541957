// Parts of the client library that need no helper.

#include <gtest/gtest.h>
#include <lumora/helper.h>

#include <csignal>
#include <numeric>

#include "client/feeder.h"
#include "client/frame_slots.h"
#include "client/take_command.h"
#include "client/takes.h"
#include "input/frame_format.h"
#include "record/take_options.h"

namespace lumora::client {
namespace {

// A program that counts its input stands in for the helper.
TEST(Feeder, AFrameBehindTheEndIsDroppedAndNotTheOneThatWaits) {
  const auto counter = std::make_shared<ChildProcess>(LaunchOptions{"wc", "", {"-c"}, {}});
  const auto slots = FrameSlots::makePrivate();
  const FrameSize size{64, 36};
  const std::string command(1 << 20, 'x');  // more than fits into the pipe
  counter->sendSignal(SIGSTOP);
  {
    Feeder feeder(counter);
    EXPECT_TRUE(feeder.write(command));
    feeder.write(slots->acquire(size).value(), 1);
    feeder.end();
    feeder.write(slots->acquire(size).value(), 2);
    EXPECT_FALSE(feeder.write(command));
    EXPECT_EQ(feeder.counts().dropped, 1u);
    counter->sendSignal(SIGCONT);
  }
  EXPECT_EQ(counter->nextLine(20), std::to_string(command.size() + 16 + size.rgbaBytes()));
  EXPECT_TRUE(counter->wait(20).value().isClean());
}

using Bytes = std::vector<std::uint8_t>;
constexpr FrameFormat jpeg{.encoding = FrameEncoding::mjpeg};

TEST(FrameFormat, HasTheLengthThatTheHelperExpects) {
  using enum FrameEncoding;
  for (const auto each : {rgba, bgra, rgb24, bgr24, nv12, nv21, i420, yuyv, uyvy, mjpeg}) {
    const FrameFormat format{each};
    const auto encoding = parseFrameFormat(format.text()).value().encoding;
    for (const FrameSize size : {FrameSize{64, 36}, {1920, 1080}}) {
      const PictureSize picture{size.width, size.height};
      const std::size_t most = format.bytes(size);
      EXPECT_TRUE(isPictureLength(encoding, picture, most)) << format.text();
      EXPECT_FALSE(isPictureLength(encoding, picture, most + 1)) << format.text();
      EXPECT_LE(most, 1920u * 1080 * 4) << format.text();  // fits into a slot
    }
  }
  for (const auto encoding : {rgba, bgr24, mjpeg})
    for (const FrameFormat& unknown : {FrameFormat{encoding, {}, ColourMatrix::bt709},
                                       FrameFormat{encoding, {}, {}, ColourRange::full}})
      EXPECT_THROW(const Helper unwanted({.format = unknown}), std::invalid_argument);
}

TEST(Frame, TakesPlanesOfAnyStride) {
  Bytes memory(256);
  std::iota(memory.begin(), memory.end(), std::uint8_t{0});
  Frame frame = FrameSlots::makePrivate({FrameEncoding::i420})->acquire({6, 4}).value();
  std::vector<SourcePlane> source = {{&memory[45], -15}, {&memory[64], 11}, {&memory[128], 11}};
  frame.copyFrom(source);
  EXPECT_EQ(Bytes(frame.pixels().begin(), frame.pixels().end()),
            (Bytes{45, 46, 47, 48, 49, 50, 30, 31, 32, 33, 34, 35, 15,  16,  17,  18,  19,  20,
                   0,  1,  2,  3,  4,  5,  64, 65, 66, 75, 76, 77, 128, 129, 130, 139, 140, 141}));
  EXPECT_THROW(frame.setLength(35), std::invalid_argument);
  source.push_back({});
  EXPECT_THROW(frame.copyFrom(source), std::invalid_argument);
}

TEST(Frame, IsWrittenUnlessTheChildSharesItsMemory) {
  const auto alone = FrameSlots::makePrivate(jpeg), shared = FrameSlots::makeShared(jpeg);
  const auto others = FrameSlots::makeShared(jpeg);
  for (const auto& [slots, ofTheChild, bytes] :
       {std::tuple{alone, alone, 16 + 1000}, {shared, shared, 32}, {shared, others, 16 + 1000}}) {
    ChildProcess counter({"wc", "", {"-c"}, {}, ofTheChild->descriptor()});
    Frame frame = slots->acquire({64, 36}).value();
    frame.copyFrom(Bytes(1000, 7));
    EXPECT_TRUE(counter.writeFrame(frame, 1));
    counter.closeInput();
    EXPECT_EQ(counter.nextLine(20), std::to_string(bytes));
  }
}

TEST(Frame, OfJPEGNeedsALength) {
  Frame frame = FrameSlots::makePrivate(jpeg)->acquire({64, 36}).value();
  for (const std::size_t bad : {0u, 1u, 65537u})
    EXPECT_THROW(frame.setLength(bad), std::invalid_argument);
  EXPECT_THROW(frame.copyFrom(std::vector<SourcePlane>(1)), std::invalid_argument);
  Feeder feeder(std::make_shared<ChildProcess>(LaunchOptions{"cat", "", {}, {}}));
  EXPECT_THROW(feeder.write(std::move(frame), 1), std::invalid_argument);
}

TEST(TakeCommand, AsksForWhatTheHelperUnderstandsAndForNothingMore) {
  const auto asked = [](const TakeOptions& options) {
    const auto all = lumora::TakeOptions::parse(Json::parse(startCommand("", options, uptime())));
    return std::tuple(all.keepsFailed, all.cadence, all.minimumFree, all.bitRate, all.rotation,
                      all.frameLog);
  };
  EXPECT_EQ(asked({.steady = false}),
            std::tuple(true, CadenceRule::grid, std::nullopt, recordingBitRate, 0, false));
  constexpr std::uint64_t free = std::uint64_t{1} << 53;
  EXPECT_EQ(asked({.keepFailed = false,
                   .minimumFree = free,
                   .bitRate = 250'000,
                   .rotation = 270,
                   .frameLog = true}),
            std::tuple(false, CadenceRule::steady, free, 250'000, 270, true));
}

TEST(Events, SayWhatATakeHasLeft) {
  const auto parse = [](const std::string& keys) {
    const std::string event = R"({"type":"recording","frames":9,"state":"failed")";
    return std::get<Recording>(parseEvent(event + keys + "}").what);
  };
  EXPECT_FALSE(parse(R"(,"kept_frames":7,"kept_duration":1.5)").kept);
  EXPECT_FALSE(parse(R"(,"kept_path":1)").kept);
  const Recording all =
      parse(R"(,"kept_path":"a","kept_frames":7,"kept_duration":1.5,"frames_in_movie":8,)"
            R"("seconds_left":2.5,"stopped_for":"minimum_free","frame_log_error":"full")");
  const auto& [name, frames, duration] = all.kept.value();
  EXPECT_EQ(std::tie(name, frames, duration), std::tuple("a", 7, 1.5));
  EXPECT_EQ(std::tie(all.framesInMovie, all.secondsLeft, all.stoppedFor, all.frameLogError),
            std::tuple(8, 2.5, "minimum_free", "full"));
}

// A shell stands in for a helper that hangs in the system: it ignores SIGTERM, and the process that
// it leaves behind keeps its input and output open.
TEST(Helper, ThatCanNotBeEndedIsGivenUpWithItsTake) {
  const std::string script =
      R"(exec 3<&0 2>&-; trap '' TERM; sleep 1000 & echo $!; echo '{"type":"ready"}'; wait)";
  pid_t left = 0;
  std::optional<Take> take;
  {
    Helper helper(
        {.program = "/bin/sh", .arguments = {"-c", script}, .frames = FrameTransport::pipe},
        [&](const Event& event) {
          if (std::holds_alternative<std::monostate>(event.what)) left = std::stoi(event.line);
        });
    const FrameSize size{640, 360};  // more than fits into the pipe
    helper.writeFrame(size, 1, Bytes(size.rgbaBytes()));
    take = helper.startTake({.path = "/a.mp4"});
    take->stop();
    EXPECT_EQ(helper.stop().signal, SIGKILL);
  }
  EXPECT_EQ(take->latest().error, "the helper has ended with signal 9");
  ASSERT_GT(left, 0);
  kill(left, SIGKILL);
}

TEST(TakesOfAClient, FailAndAreStoppedWithoutAnAnswer) {
  Takes takes;
  std::vector<std::string> sent;
  const auto add = [&](const std::string& id) {
    Recording asked;
    asked.id = id;
    const auto take = std::make_shared<Take::State>(
        asked, uptime(), [&](const std::string& stop) { sent.push_back(stop); });
    takes.add(take);
    return take;
  };
  const auto silent = add("silent"), answered = add("answered");
  takes.report(answered->latest());
  takes.failUnanswered(uptime() + 9);
  EXPECT_FALSE(silent->latest().isOver());
  takes.failUnanswered(uptime() + 11);
  EXPECT_EQ(silent->latest().error, "the helper did not answer");
  EXPECT_FALSE(answered->latest().isOver());
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(Json::parse(sent[0])["id"], "silent");
}

}  // namespace
}  // namespace lumora::client
