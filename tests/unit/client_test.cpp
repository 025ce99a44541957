// Parts of the client library that need no helper.

#include <gtest/gtest.h>
#include <lumora/helper.h>

#include <csignal>
#include <cstdlib>
#include <numeric>

#include "client/feeder.h"
#include "client/frame_slots.h"
#include "client/take_command.h"
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

TEST(FrameFormat, HasTheWordsAndTheLengthThatTheHelperExpects) {
  using enum FrameEncoding;
  const FrameSize size{64, 36};
  const std::tuple<FrameFormat, std::string, std::size_t> cases[] = {
      {{}, "rgba", 9216},
      {{bgra, FirstRow::top}, "bgra,top", 9216},
      {{rgb24, FirstRow::bottom}, "rgb24,bottom", 6912},
      {{bgr24}, "bgr24", 6912},
      {{nv12, {}, ColourMatrix::bt709}, "nv12,bt709", 3456},
      {{nv21, {}, {}, ColourRange::limited}, "nv21,limited", 3456},
      {{i420, FirstRow::top, ColourMatrix::bt601, ColourRange::full}, "i420,top,bt601,full", 3456},
      {{yuyv}, "yuyv", 4608},
      {{uyvy}, "uyvy", 4608},
      {jpeg, "mjpeg", 65536}};
  for (const auto& [format, text, bytes] : cases) {
    EXPECT_EQ(format.text(), text);
    EXPECT_EQ(format.bytes(size), bytes) << text;
    EXPECT_TRUE(isPictureLength(parseFrameFormat(text)->encoding, {64, 36}, bytes)) << text;
    EXPECT_LE(format.bytes({1920, 1080}), FrameSize({1920, 1080}).rgbaBytes()) << text;  // a slot
  }
  EXPECT_EQ(jpeg.bytes({1920, 1080}), 1920u * 1080 * 2);
  for (const auto encoding : {rgba, bgr24, mjpeg}) {
    const FrameFormat matrix{.encoding = encoding, .matrix = ColourMatrix::bt709};
    EXPECT_THROW(const Helper unwanted({.format = matrix}), std::invalid_argument);
    const FrameFormat range{.encoding = encoding, .range = ColourRange::full};
    EXPECT_THROW(const Helper unwanted({.format = range}), std::invalid_argument);
  }
}

TEST(FrameFormat, OfAChildIsNotThatOfItsParent) {
  setenv("TAVO_FRAME_FORMAT", "nv12", 1);
  for (const std::string format : {"", "i420,top"}) {
    ChildProcess child({"/bin/sh", "", {"-c", "echo \"($TAVO_FRAME_FORMAT)\""}, {}, -1, format});
    EXPECT_EQ(child.nextLine(20), "(" + format + ")");
  }
  unsetenv("TAVO_FRAME_FORMAT");
}

TEST(Frame, TakesPlanesOfAnyStride) {
  using Plane = std::pair<std::size_t, int>;  // bytes of a row, rows
  const std::pair<FrameEncoding, std::vector<Plane>> cases[] = {
      {FrameEncoding::nv12, {{6, 4}, {6, 2}}},
      {FrameEncoding::i420, {{6, 4}, {3, 2}, {3, 2}}},
      {FrameEncoding::yuyv, {{12, 4}}}};
  for (const auto& [encoding, planes] : cases) {
    Frame frame = FrameSlots::makePrivate({encoding})->acquire({6, 4}).value();
    Bytes tight(frame.pixels().size());
    std::iota(tight.begin(), tight.end(), std::uint8_t{1});
    std::vector<Bytes> padded;
    std::vector<SourcePlane> source;
    for (auto next = tight.begin(); const auto& [rowBytes, rows] : planes) {
      Bytes& plane = padded.emplace_back();
      for (int row = 0; row < rows; ++row, next += static_cast<std::ptrdiff_t>(rowBytes)) {
        plane.insert(plane.end(), next, next + static_cast<std::ptrdiff_t>(rowBytes));
        plane.resize(plane.size() + 5);
      }
      source.push_back({plane.data(), static_cast<std::ptrdiff_t>(rowBytes) + 5});
    }
    frame.copyFrom(source);
    EXPECT_EQ(Bytes(frame.pixels().begin(), frame.pixels().end()), tight);
    std::vector<Plane> mine;
    for (const FramePlane& plane : frame.planes()) mine.emplace_back(plane.rowBytes, plane.rows);
    EXPECT_EQ(mine, planes);
    EXPECT_THROW(frame.setLength(tight.size() - 1), std::invalid_argument);
    source.push_back({});
    EXPECT_THROW(frame.copyFrom(source), std::invalid_argument);
  }
}

TEST(Frame, OfJPEGHasTheLengthThatItWasGiven) {
  const auto slots = FrameSlots::makePrivate(jpeg);
  const auto counter = std::make_shared<ChildProcess>(LaunchOptions{"wc", "", {"-c"}, {}});
  Frame frame = slots->acquire({64, 36}).value();
  EXPECT_EQ(frame.pixels().size(), 65536u);
  for (const std::size_t bad : {0, 1, 65537})
    EXPECT_THROW(frame.setLength(bad), std::invalid_argument);
  EXPECT_THROW(frame.copyFrom(std::vector<SourcePlane>(1)), std::invalid_argument);
  Feeder feeder(counter);
  EXPECT_THROW(feeder.write(slots->acquire({64, 36}).value(), 1), std::invalid_argument);
  frame.copyFrom(Bytes(1000, 7));
  feeder.write(std::move(frame), 1);
  feeder.end();
  EXPECT_EQ(counter->nextLine(20), std::to_string(16 + 1000));
}

TEST(Records, ReferToAPictureByItsOffsetAndIfCompressedItsLength) {
  EXPECT_EQ(frameReference({64, 36}, 7, 4096), (Bytes{0, 0, 0, 8, 0, 64, 0,  36,  //
                                                      0, 0, 0, 0, 0, 0,  0,  7,   //
                                                      0, 0, 0, 0, 0, 0,  16, 0}));
  EXPECT_EQ(frameReference({64, 36}, 7, 4096, 258), (Bytes{0, 0, 0, 16, 0, 64, 0,  36,  //
                                                           0, 0, 0, 0,  0, 0,  0,  7,   //
                                                           0, 0, 0, 0,  0, 0,  16, 0,   //
                                                           0, 0, 0, 0,  0, 0,  1,  2}));
  for (const FrameFormat format : {FrameFormat{}, jpeg}) {
    const auto slots = FrameSlots::makeShared(format);
    ChildProcess counter({"wc", "", {"-c"}, {}, slots->descriptor()});
    Frame frame = slots->acquire({64, 36}).value();
    frame.setLength(9216);
    EXPECT_TRUE(counter.writeFrame(frame, 1));
    counter.closeInput();
    EXPECT_EQ(counter.nextLine(20), format.encoding == jpeg.encoding ? "32" : "24");
  }
}

TEST(TakeCommand, AsksForWhatTheHelperUnderstandsAndForNothingMore) {
  const auto asked = [](const TakeOptions& options) {
    return lumora::TakeOptions::parse(Json::parse(startCommand("id", options, uptime())));
  };
  const auto usual = asked({.steady = false});
  EXPECT_TRUE(usual.keepsFailed);
  EXPECT_EQ(usual.cadence, CadenceRule::grid);
  EXPECT_EQ(usual.minimumFree, std::nullopt);
  EXPECT_EQ(usual.bitRate, recordingBitRate);
  EXPECT_EQ(usual.rotation, 0);
  const auto other = asked({.keepFailed = false,
                            .minimumFree = std::uint64_t{1} << 53,
                            .bitRate = 250'000,
                            .rotation = 270,
                            .frameLog = true});
  EXPECT_FALSE(other.keepsFailed);
  EXPECT_EQ(other.cadence, CadenceRule::steady);
  EXPECT_EQ(other.minimumFree, std::int64_t{1} << 53);
  EXPECT_EQ(other.bitRate, 250'000);
  EXPECT_EQ(other.rotation, 270);
  EXPECT_TRUE(other.frameLog && !usual.frameLog);
}

TEST(Events, SayWhatATakeHasLeft) {
  const auto parse = [](const std::string& keys) {
    const std::string event = R"({"type":"recording","frames":9,"state":"failed")";
    return std::get<Recording>(parseEvent(event + keys + "}").what);
  };
  for (const char* keys : {"", R"(,"kept_frames":7,"kept_duration":1.5)", R"(,"kept_path":1)"})
    EXPECT_FALSE(parse(keys).kept) << keys;
  const Recording none = parse("");
  EXPECT_FALSE(none.framesInMovie || none.secondsLeft);
  EXPECT_EQ(none.stoppedFor, "");
  const Recording all =
      parse(R"(,"kept_path":"a","kept_frames":7,"kept_duration":1.5,"frames_in_movie":8,)"
            R"("seconds_left":2.5,"stopped_for":"minimum_free","frame_log_error":"full")");
  ASSERT_TRUE(all.kept);
  EXPECT_EQ(all.kept->name, "a");
  EXPECT_EQ(all.kept->frames, 7u);
  EXPECT_EQ(all.kept->duration, 1.5);
  EXPECT_EQ(all.framesInMovie, 8u);
  EXPECT_EQ(all.secondsLeft, 2.5);
  EXPECT_EQ(all.stoppedFor, "minimum_free");
  EXPECT_EQ(all.frameLogError, "full");
}

}  // namespace
}  // namespace lumora::client
