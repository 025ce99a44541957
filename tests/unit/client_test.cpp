// Parts of the client library that need no helper.

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <lumora/helper.h>
#include <lumora/stream_client.h>
#include <poll.h>
#include <sys/socket.h>

#include <cmath>
#include <csignal>
#include <numeric>

#include "client/feeder.h"
#include "client/frame_slots.h"
#include "client/records.h"
#include "client/take_command.h"
#include "client/takes.h"
#include "input/frame_format.h"
#include "record/recording_profile.h"
#include "record/take_options.h"
#include "tests/unit/probe.h"

namespace lumora::client {
namespace {

// A program that counts its input stands in for the helper.
TEST(Feeder, DropsReplacedAndLateFramesAndExcessSoundAndWritesTheRest) {
  const auto counter = std::make_shared<ChildProcess>(LaunchOptions{"wc", "", {"-c"}, {}});
  const auto slots = FrameSlots::makePrivate();
  const FrameSize size{64, 36};
  const SoundFormat format{.rate = 8000, .channels = 2};
  const Uptime::time_point at(Seconds(1));
  const std::vector<std::int16_t> second(16000);
  const std::string command(1 << 20, 'x');  // more than fits into the pipe
  counter->sendSignal(SIGSTOP);
  {
    Feeder feeder(counter);
    EXPECT_TRUE(feeder.write(command));
    feeder.write(slots->acquire(size).value(), 1);
    feeder.write(slots->acquire(size).value(), 2);  // frame 1 is dropped
    EXPECT_TRUE(feeder.write("x"));
    feeder.write(slots->acquire(size).value(), 3);  // frame 2 is kept: a command is behind it
    EXPECT_TRUE(feeder.writeSound(second, format, at));
    feeder.write(slots->acquire(size).value(), 4);  // frame 3 is dropped: sound is no command
    feeder.endFrames();
    feeder.write(slots->acquire(size).value(), 5);
    EXPECT_THROW(feeder.writeSound(std::span(second).first(3), format, at), std::invalid_argument);
    for (const auto wrong :
         {Uptime::now().time_since_epoch() + Seconds(1), Seconds(NAN), Seconds(-1)})
      EXPECT_FALSE(feeder.writeSound(second, format, Uptime::time_point(wrong)));
    EXPECT_TRUE(feeder.writeSound(second, format, at));
    EXPECT_FALSE(feeder.writeSound(std::span(second).first(2), format, at));
    counter->sendSignal(SIGCONT);
    for (const Deadline deadline(Seconds(20)); !feeder.writeSound(second, format, at);)
      ASSERT_GT(deadline.left(), Seconds(0));
    EXPECT_TRUE(feeder.write("x"));
    feeder.end();
    feeder.write(slots->acquire(size).value(), 6);
    EXPECT_FALSE(feeder.write(command));
    EXPECT_EQ(feeder.counts().dropped, 4u);
  }
  EXPECT_EQ(
      counter->nextLine(Seconds(20)),
      std::to_string(command.size() + 2 + 2 * (16 + size.rgbaBytes()) + 3 * (32000 + 4 * 16)));
  EXPECT_TRUE(counter->wait(Seconds(20)).value().isClean());
}

// The helper's own reader checks the records.
TEST(SoundRecords, AreValidEvenIfTheLastIsShortOrTimesOverlap) {
  VideoEncoderProbe probe;
  probe.restart({.sound = lumora::SoundFormat{8000, 2}});
  const std::vector<std::int16_t> samples(2 * 4500, -2);
  std::uint64_t lastID = 0;
  for (const std::uint64_t capturedAt : {2'000'000, 2'000'100}) {
    const std::string records =
        soundRecords(samples, {.rate = 8000, .channels = 2}, capturedAt, lastID);
    EXPECT_EQ(records.size(), samples.size() * 2 + 3 * 16);
    EXPECT_EQ(records.substr(16, 2), "\xFE\xFF");
    probe.put(records);
  }
  EXPECT_EQ(probe.readAll(), "");
  EXPECT_EQ(lastID, 2'500'100u);
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

TEST(Frame, IsWrittenInFullToAChildThatSharesOtherMemory) {
  const auto slots = FrameSlots::makeShared(jpeg), others = FrameSlots::makeShared(jpeg);
  ChildProcess counter({"wc", "", {"-c"}, {}, others->descriptor()});
  Frame frame = slots->acquire({64, 36}).value();
  frame.copyFrom(Bytes(1000, 7));
  EXPECT_TRUE(counter.writeFrame(frame, 1));
  counter.closeInput();
  EXPECT_EQ(counter.nextLine(Seconds(20)), std::to_string(16 + 1000));
}

TEST(Frame, OfJPEGNeedsALength) {
  Frame frame = FrameSlots::makePrivate(jpeg)->acquire({64, 36}).value();
  for (const std::size_t bad : {0u, 1u, 65537u})
    EXPECT_THROW(frame.setLength(bad), std::invalid_argument);
  EXPECT_THROW(frame.copyFrom(std::vector<SourcePlane>(1)), std::invalid_argument);
  Feeder feeder(std::make_shared<ChildProcess>(LaunchOptions{"cat", "", {}, {}}));
  EXPECT_THROW(feeder.write(std::move(frame), 1), std::invalid_argument);
}

TEST(TakeCommand, IsReadByTheHelperAsExactlyTheOptionsAskedFor) {
  const auto commandOf = [](TakeOptions options) {
    options.path = "/a.mp4";
    return Json::parse(startCommand("", options, Uptime::now()));
  };
  using Asked = lumora::TakeOptions;
  EXPECT_EQ(Asked::parse(commandOf({.steady = false})), Asked{.keepsFailed = true});
  const lumora::SoundFormat mono{16000, 1};
  EXPECT_EQ(Asked::parse(commandOf({.steady = false, .sound = true, .soundBitRate = 64'000}), mono),
            (Asked{.keepsFailed = true, .sound = mono, .soundBitRate = 64'000}));
  constexpr std::uint64_t free = std::uint64_t{1} << 53;
  EXPECT_EQ(Asked::parse(commandOf({.keepFailed = false,
                                    .minimumFree = free,
                                    .bitRate = 250'000,
                                    .rotation = 270,
                                    .frameLog = true})),
            (Asked{CadenceRule::steady, 250'000, 270, false, free, true}));
  EXPECT_EQ(parseTakeSize("640x360"), TakeSize::of640x360);
  EXPECT_EQ(RecordingProfile::parse(commandOf({}))->width, defaultProfile.width);
  EXPECT_FALSE(parseTakeSize("1280x720"));
}

TEST(TakeCommand, IsNotMadeForWhatTheHelperRefuses) {
  for (const TakeOptions& bad : std::initializer_list<TakeOptions>{
           {.path = "a.mp4"},
           {.path = "/a.mov"},
           {.path = "/a.mp4", .minimumFree = (std::uint64_t{1} << 53) + 1},
           {.path = "/a.mp4", .bitRate = 249'999},
           {.path = "/a.mp4", .bitRate = 50'000'001},
           {.path = "/a.mp4", .rotation = 45},
           {.path = "/a.mp4", .soundBitRate = 31'999},
           {.path = "/a.mp4", .soundBitRate = 320'001}})
    EXPECT_THROW(startCommand("", bad, Uptime::now()), std::invalid_argument);
}

TEST(Events, HaveTheFiguresOfATakeAndWhatIsKeptWhenItFails) {
  const auto parse = [](const std::string& keys) {
    const std::string event = R"({"type":"recording","path":"/v/b","state":"failed")";
    return std::get<Recording>(parseEvent(event + keys + "}").what);
  };
  EXPECT_FALSE(parse(R"(,"kept_frames":7,"kept_duration":1.5)").kept);
  EXPECT_FALSE(parse(R"(,"kept_path":1)").kept);
  EXPECT_EQ(parse(R"(,"target_fps":1e300,"frames":-1)").frames, 0u);
  EXPECT_FALSE(parse(R"(,"target_fps":1e300,"frames":-1)").targetFPS);
  EXPECT_EQ(parse("").failure, TakeFailure::refused);
  const Recording all =
      parse(R"(,"kept_path":"a","kept_frames":7,"kept_duration":1.5,"frames_in_movie":8,)"
            R"("seconds_left":2.5,"stopped_for":"minimum_free","frame_log_error":"full",)"
            R"("width":640,"height":360,"target_fps":30,"recent_fps":29.5,)"
            R"("dropped":3,"throttled":4,"sound_gaps":2,"sound_missing":0.5)");
  const auto& [path, frames, duration] = all.kept.value();
  EXPECT_EQ(std::tie(path, frames, duration), std::tuple("/v/a", 7, Seconds(1.5)));
  EXPECT_EQ(std::tie(all.framesInMovie, all.timeLeft, all.stoppedFor, all.frameLogError),
            std::tuple(8, Seconds(2.5), "minimum_free", "full"));
  EXPECT_EQ(std::tie(all.size, all.targetFPS, all.recentFPS, all.failure),
            std::tuple(FrameSize{640, 360}, 30, 29.5, TakeFailure::failed));
  EXPECT_EQ(std::tie(all.dropped, all.throttled, all.soundGaps, all.soundMissing),
            std::tuple(3, 4, 2, Seconds(0.5)));
}

TEST(Events, HaveEveryFigureOfTheStatistics) {
  VideoEncoderProbe probe;
  probe.restart({.sound = lumora::SoundFormat{8000, 1}});
  Json report = probe.statistics();
  int next = 0;  // numbers the figures, in the alphabetical order of their keys
  for (Json& value : report)
    if (value.is_number()) value = ++next;
  const auto stats = std::get<Stats>(parseEvent(report.dump()).what);
  const auto& [clients, waiting, encoded, dropped, lost, sound, time, busy, delivery, encoding] =
      stats;
  EXPECT_EQ(std::tuple(clients, waiting, encoded, dropped, lost, sound),
            std::tuple(4, 16, 11, 7, 6, 8));
  EXPECT_EQ(std::tuple(time.count(), busy), std::tuple(0.010, true));
  const auto& [credit, send, resync, resyncs, trip, longest, oldest, now, most] = delivery.value();
  EXPECT_EQ(std::tuple(credit, send, resync, resyncs, now, most),
            std::tuple(5, 25, 24, 12, 14, 15));
  EXPECT_EQ(std::tuple(trip.count(), longest.count(), oldest.count()),
            std::tuple(0.003, 0.002, 0.001));
  const auto& [preview, take, frames, takeTime, failed, work] = encoding.value();
  EXPECT_EQ(std::tuple(preview, take), std::tuple(FrameSize{18, 17}, FrameSize{23, 22}));
  EXPECT_EQ(std::tuple(frames, failed, work, takeTime.count()), std::tuple(20, 21, 13, 0.019));
  for (const char* missing : {"credit_drops", "dropped_sound", "encode_inflight"})
    report.erase(missing);
  const auto brief = std::get<Stats>(parseEvent(report.dump()).what);
  EXPECT_FALSE(brief.delivery || brief.encoding || brief.droppedSound || brief.isEncoding);
}

bool canBeRead(int descriptor) {
  pollfd entry{descriptor, POLLIN, 0};
  return poll(&entry, 1, 0) == 1;
}

TEST(EventQueue, IsReadableWhileCallsWaitAndMakesThemInOrder) {
  EventQueue queue;
  std::string made;
  queue.post([&] {
    made += 'a';
    queue.post([&] { made += 'c'; });
    throw std::runtime_error("");
  });
  queue.post([&] { made += 'b'; });
  EXPECT_TRUE(canBeRead(queue.descriptor()));
  EXPECT_THROW(queue.dispatch(), std::runtime_error);
  EXPECT_EQ(made, "a");
  queue.dispatch();
  EXPECT_EQ(made, "abc");
  EXPECT_FALSE(canBeRead(queue.descriptor()));
  // A call may dispatch the calls after it.
  queue.post([&] { queue.dispatch(); });
  queue.post([&] { made += 'd'; });
  queue.dispatch();
  EXPECT_EQ(made, "abcd");
  // A call may destroy the queue. The calls after it are then not made.
  auto owned = std::make_unique<EventQueue>();
  owned->post([&] { owned.reset(); });
  owned->post([&] { made += 'e'; });
  owned->dispatch();
  EXPECT_EQ(made, "abcd");
}

TEST(StreamClient, GivesUpOnAHelperThatDoesNotAnswer) {
  const Descriptor listener(socket(AF_INET, SOCK_STREAM, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  auto* const any = reinterpret_cast<sockaddr*>(&address);
  socklen_t size = sizeof address;
  ASSERT_TRUE(bind(listener.get(), any, size) == 0 && listen(listener.get(), 0) == 0 &&
              getsockname(listener.get(), any, &size) == 0);
  std::vector<StreamClient> waiting;  // accepted by the kernel until the listener's backlog is full
  const auto connectMany = [&] {
    for (;;) waiting.emplace_back("127.0.0.1", ntohs(address.sin_port), Seconds(0.2));
  };
  EXPECT_THROW(connectMany(), std::system_error);
  EXPECT_LT(waiting.size(), 5u);
}

// A shell stands in for a helper.
HelperOptions shell(const std::string& script) {
  return {.program = "/bin/sh", .arguments = {"-c", script}, .frames = FrameTransport::pipe};
}

TEST(Helper, ThatCannotStartSaysWhyThroughItsQueueAndMayBeDestroyedByItsHandler) {
  HelperOptions options = shell(R"(echo '{"type":"error","message":"no luck"}'; exit 1)");
  options.queue = std::make_shared<EventQueue>();
  std::unique_ptr<Helper> helper;
  std::optional<Exited> end;
  helper = std::make_unique<Helper>(options, [&](const Event& event) {
    const auto* exited = std::get_if<Exited>(&event.what);
    if (exited == nullptr) return;
    end = *exited;
    helper.reset();
  });
  EXPECT_FALSE(helper->acquireFrame({2, 2}));  // `acquireFrame` does not wait for the start
  while (!end) {
    pollfd entry{options.queue->descriptor(), POLLIN, 0};
    ASSERT_EQ(poll(&entry, 1, 20'000), 1);
    options.queue->dispatch();
  }
  EXPECT_EQ(end->reason, "no luck");
  EXPECT_EQ(end->status, 1);
}

TEST(Helper, CanStopDuringItsStartAndCallsNoHandlerOnceDestroyed) {
  HelperOptions options = shell(R"(echo '{"type":"ready","port":9}'; cat)");
  options.queue = std::make_shared<EventQueue>();
  int calls = 0;
  {
    Helper helper(options, [&](const Event&) { ++calls; });
    const Take take = helper.startTake({.path = "/a.mp4"}, [&](const Recording&) { ++calls; });
    helper.requestStop();
    EXPECT_EQ(helper.stop().reason, "");
    EXPECT_EQ(take.latest().error, "the helper has ended with status 0");
    EXPECT_EQ(take.latest().failure, TakeFailure::helperEnded);
    EXPECT_EQ(helper.port(), 9);
    EXPECT_TRUE(canBeRead(options.queue->descriptor()));
  }
  options.queue->dispatch();
  EXPECT_EQ(calls, 0);
}

// The helper ignores SIGTERM. The process that it leaves behind keeps the helper's pipes open.
TEST(Helper, ThatIgnoresSIGTERMIsKilledAndItsTakeFailsThoughItsPipesStayOpen) {
  const std::string script =
      R"(exec 3<&0 2>&-; trap '' TERM; sleep 1000 & echo $!; echo '{"type":"ready"}'; wait)";
  pid_t left = 0;
  std::optional<Take> take;
  {
    Helper helper(shell(script), [&](const Event& event) {
      if (std::holds_alternative<std::monostate>(event.what)) left = std::stoi(event.line);
    });
    const FrameSize size{640, 360};  // more than fits into the pipe
    helper.writeFrame(size, 1, Bytes(size.rgbaBytes()));
    take = helper.startTake({.path = "/a.mp4", .startedAt = Uptime::now() + Seconds(0.04)});
    EXPECT_NO_THROW(take->stop());
    EXPECT_GE(take->stoppedAt(), take->startedAt());
    EXPECT_EQ(helper.stop().signal, SIGKILL);
  }
  EXPECT_EQ(take->latest().error, "the helper has ended with signal 9");
  ASSERT_GT(left, 0);
  kill(left, SIGKILL);
}

TEST(Helper, IsKnownToHaveEndedThoughAnotherProcessKeepsItsOutputOpen) {
  pid_t left = 0;
  Helper helper(shell(R"(sleep 1000 2>&- & echo $!; echo '{"type":"ready"}'; exit 3)"),
                [&](const Event& event) {
                  if (std::holds_alternative<std::monostate>(event.what))
                    left = std::stoi(event.line);
                });
  for (const Deadline deadline(Seconds(20)); !helper.exited() && deadline.left() > Seconds(0);)
    std::this_thread::yield();
  EXPECT_EQ(helper.exited().value_or(Exited{}).status, 3);
  ASSERT_GT(left, 0);
  kill(left, SIGKILL);
}

TEST(TakesOfAClient, FailWithoutAnAnswerAndWhenTheHelperEnds) {
  Takes takes;
  std::vector<std::string> sent, told;
  const std::function<std::shared_ptr<Take::State>(std::string)> add = [&](const auto& id) {
    Recording asked;
    asked.id = id;
    const auto take = std::make_shared<Take::State>(
        asked, Uptime::now(), [&](const std::string& stop) { sent.push_back(stop); },
        [&](const Recording& event) {
          told.push_back(event.id + ": " + event.error);
          if (event.id == "late") add("later");
        });
    takes.add(take);
    return take;
  };
  const auto silent = add("silent"), answered = add("answered");
  takes.report(answered->latest());
  takes.failUnanswered(Uptime::now() + Seconds(9));
  EXPECT_FALSE(silent->latest().isOver());
  takes.failUnanswered(Uptime::now() + Seconds(11));
  EXPECT_EQ(silent->latest().error, "the helper did not answer");
  EXPECT_EQ(silent->latest().failure, TakeFailure::noAnswer);
  EXPECT_FALSE(answered->latest().isOver());
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(Json::parse(sent[0])["id"], "silent");
  silent->abandon(TakeFailure::failed, "again");
  EXPECT_EQ(silent->latest().error, "the helper did not answer");
  const std::weak_ptr<Take::State> over = add("over");
  Recording saved = over.lock()->latest();
  saved.state = TakeState::saved;
  takes.report(saved);
  EXPECT_TRUE(over.expired());
  takes.abandonAll("gone");
  add("late");
  EXPECT_THAT(told, testing::ElementsAre("answered: ", "silent: the helper did not answer",
                                         "over: ", "answered: gone", "late: gone", "later: gone"));
}

}  // namespace
}  // namespace lumora::client
