// The viewer as a program. The tests talk to its socket, as its page does.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/websocket.hpp>
#include <csignal>
#include <iterator>
#include <regex>
#include <sstream>

#include "tests/e2e/helper_fixture.h"

namespace lumora::tests {
namespace {

using boost::asio::ip::tcp;

struct Viewer : HelperTest {
  // Starts the viewer and opens its page's socket.
  void view(const Arguments& arguments, const Environment& environment = {}) {
    viewer = std::make_unique<HelperProcess>(
        client::LaunchOptions{LUMORA_VIEWER, token, arguments, environment});
    const std::string address = viewer->nextLine(Seconds(20)).value_or("");
    std::smatch parts;
    ASSERT_TRUE(std::regex_match(address, parts, std::regex("(http://(.*:([0-9]+)))(/.*/)")));
    socket.next_layer().connect(
        {boost::asio::ip::address_v4::loopback(), static_cast<std::uint16_t>(std::stoi(parts[3]))});
    socket.set_option(boost::beast::websocket::stream_base::decorator(
        [&](auto& request) { request.set(boost::beast::http::field::origin, parts[1].str()); }));
    socket.handshake(parts[2].str(), parts[4].str() + "socket");
  }
  void say(const Event& message) {
    socket.text(true);
    socket.write(boost::asio::buffer(message.dump()));
  }
  // The next message, or null for a packet. Acknowledges frames and counts them.
  Event next() {
    boost::beast::flat_buffer received;
    socket.read(received);
    const auto* bytes = static_cast<const std::uint8_t*>(received.data().data());
    if (socket.got_text()) return Event::parse(bytes, bytes + received.size());
    client::PacketParser parser;
    parser.feed({bytes, received.size()});
    if (const Packet packet = parser.next().value(); packet.type == Packet::Type::frame) {
      ++pictures;
      say({{"type", "shown"}, {"frame_id", packet.frameID}});
    }
    return {};
  }
  Event waitForMessage(const std::string& type) {
    for (Event message;; message = next())
      if (!message.is_null() && message.at("type") == type) return message;
  }
  Event waitForState(const std::string& state) {
    for (Event told = Event::object();; told = waitForMessage("event")["event"])
      if (told.value("state", "") == state) return told;
  }
  void startTake(const std::string& into) {
    say({{"type", "start"},
         {"resolution", "640x360"},
         {"target_fps", 60},
         {"folder", into},
         {"cadence", "steady"},
         {"sound", true}});
  }
  void record(const Environment& environment = {}, const Arguments& more = {}) {
    Arguments arguments = {"--demo", "--helper", helperProgram(), "--folder",
                           folder,   "--size",   "320x240"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    view(arguments, environment);
    while (pictures < 5) next();
    startTake("/none");
    EXPECT_THAT(waitForMessage("refused")["message"].get<std::string>(),
                testing::HasSubstr("/none"));
    startTake(folder);
    waitForState("recording");
    helperOfViewer = std::stoi(childrenOfViewer());
  }
  std::string childrenOfViewer() const {
    const std::string pid = std::to_string(viewer->pid());
    return outputOf("cat /proc/" + pid + "/task/" + pid + "/children");
  }
  client::Exited terminate(double limit = 20) {
    viewer->sendSignal(SIGTERM);
    waitForMessage("ended");
    return viewer->wait(Seconds(limit)).value();
  }
  // The numbers that an ffmpeg filter prints after `word`. If the movie ends in black or silence,
  // the last number may be the end of the movie.
  static std::vector<double> numbersIn(const std::string& movie, const std::string& filter,
                                       const std::string& word) {
    std::istringstream printed(outputOf("ffmpeg -nostdin -i " + tools::shellQuoted(movie) + " " +
                                        filter + " -f null - 2>&1 | sed -n 's/.*" + word +
                                        ": *\\([-0-9.]*\\).*/\\1/p'"));
    return {std::istream_iterator<double>(printed), {}};
  }

  std::unique_ptr<HelperProcess> viewer;
  pid_t helperOfViewer = 0;
  boost::asio::io_context context;
  boost::beast::websocket::stream<tcp::socket> socket{context};
  int pictures = 0;
};

TEST_F(Viewer, SavesTheTakeOfAVideoFileAtCtrlC) {
  const std::string input = folder / "input.mkv";
  const FrameSize size{320, 240};
  made(input, size, quarters(size), "vflip,loop=30:1 -c:v ffv1");
  record({{"INPUT", input}});
  // A terminal signals the viewer and all its children.
  std::istringstream children(childrenOfViewer());
  for (pid_t child = 0; children >> child;) kill(child, SIGINT);
  viewer->sendSignal(SIGINT);
  const Event saved = waitForState("saved");
  waitForMessage("ended");
  EXPECT_TRUE(viewer->wait(Seconds(20)).value().isClean());
  EXPECT_EQ(viewer->nextLine(Seconds(1)), "Saved " + saved["path"].get<std::string>());
  expectQuarters(saved["path"], {640, 360}, size);
}

TEST_F(Viewer, RecordsATestCardThatFlashesAndBeepsAtTheSameInstant) {
  record({}, {"--size", "640x360", "--rate", "20"});
  while (waitForMessage("event")["event"].value("duration", 0.0) < 3) continue;
  say({{"type", "stop"}});
  const Event saved = waitForState("saved");
  EXPECT_LT(saved.at("sound_missing").get<double>(), 0.1);
  const std::string movie = saved["path"];
  const std::string box = "-vf crop=iw/10:ih/10:iw/10:ih*0.8,blackdetect=d=0.1";
  const auto flashes = numbersIn(movie, box, "black_end");
  const auto beeps = numbersIn(movie, "-af silencedetect=n=-20dB:d=0.1", "silence_end");
  std::vector<double> offsets;
  for (std::size_t i = 0; i + 1 < std::min(flashes.size(), beeps.size()); ++i)
    offsets.push_back(beeps[i] - flashes[i]);
  ASSERT_GE(offsets.size(), 2u);
  std::ranges::sort(offsets);  // for the median: a busy machine may lose the start of a flash
  EXPECT_NEAR(offsets[offsets.size() / 2], 0, 0.01);
}

TEST_F(Viewer, GoesOnWhenItsSoundDeviceEnds) {
  record({}, {"--sound", "lavfi:sine=d=4,arealtime"});
  EXPECT_EQ(waitForMessage("silent")["message"], "The sound device has ended.");
  for (const int before = pictures; pictures < before + 20;) next();
  say({{"type", "stop"}});
  const Event saved = waitForState("saved");
  EXPECT_GT(saved.at("sound_missing").get<double>(), 0.1);
  const auto loudest = numbersIn(saved["path"], "-af volumedetect", "max_volume");
  EXPECT_THAT(loudest, testing::ElementsAre(testing::DoubleNear(-20, 3)));  // dB; the tone has -21
}

TEST_F(Viewer, ExitsWithStatusOneWhenATakeIsLost) {
  record();
  kill(helperOfViewer, SIGKILL);
  EXPECT_EQ(waitForMessage("ended")["message"], "The helper has ended with signal 9.");
  EXPECT_EQ(viewer->wait(Seconds(20)).value().status, 1);
}

// The viewer starts an ffmpeg for each input. Here each ffmpeg waits for a writer of a named pipe,
// and ignores SIGTERM.
TEST_F(Viewer, EndsAHangingCameraAndSoundDeviceWhenItEnds) {
  const std::string camera = folder / "camera", device = folder / "device";
  ASSERT_EQ(mkfifo(camera.c_str(), 0600) | mkfifo(device.c_str(), 0600), 0);
  const Environment input = {{"INPUT", camera}};
  const std::string sound = "s16le:" + device;
  HelperProcess unlucky(
      {LUMORA_VIEWER, token, {"--demo", "--helper", "/bin/false", "--sound", sound}, input});
  EXPECT_EQ(unlucky.wait(Seconds(20)).value_or(client::Exited{}).status, 1);
  view({"--demo", "--helper", helperProgram(), "--sound", sound}, input);
  for (const double patience = uptime() + 20; std::ranges::count(childrenOfViewer(), ' ') != 3;)
    ASSERT_LT(uptime(), patience);
  EXPECT_TRUE(terminate().isClean());
  for (const std::string& left : {camera, device})
    EXPECT_EQ(open(left.c_str(), O_WRONLY | O_NONBLOCK), -1) << left;  // nobody reads it
}

// A script stands in for the helper.
TEST_F(Viewer, TellsThePageWhenTheHelperDoesNotAnswerTheStartOfATake) {
  const std::string script = "#!/bin/sh\necho '{\"type\":\"ready\",\"port\":1}'; cat >/dev/null\n";
  const std::string mute = fileOf(folder / "mute", Pixels(script.begin(), script.end()));
  std::filesystem::permissions(mute, std::filesystem::perms::owner_all);
  view({"--demo", "--helper", mute, "--size", "320x240"});
  startTake(folder);
  EXPECT_EQ(waitForState("failed")["error"], "the helper did not answer");
  EXPECT_EQ(terminate().status, 1);
}

TEST_F(Viewer, SharesItsStreamAndWritesAReportWithoutTokens) {
  const std::string report = folder / "report.txt";
  view({"--demo", "--helper", helperProgram(), "--size", "320x240", "--share", "--report", report});
  const std::string invitation = viewer->nextLine(Seconds(20)).value_or("");
  std::smatch parts;
  ASSERT_TRUE(
      std::regex_match(invitation, parts, std::regex("TAVO_VIDEO_TOKEN=(.*) lumora-tap (.*)")));
  const std::string shared = parts[1];
  port = static_cast<std::uint16_t>(std::stoi(parts[2]));
  const auto other = connect();
  other->sayHello(shared);
  EXPECT_TRUE(other->receive(Seconds(20)));
  EXPECT_TRUE(terminate(120).isClean());
  const Pixels bytes = bytesOf(report);
  const std::string text(bytes.begin(), bytes.end());
  EXPECT_THAT(text, testing::HasSubstr("\"type\":\"ready\""));
  EXPECT_THAT(text, testing::ContainsRegex("  software: [1-9][0-9]* of 60 pictures"));
  for (const std::string& secret : {shared, token})
    EXPECT_THAT(text, testing::Not(testing::HasSubstr(secret)));
}

TEST_F(Viewer, ShowsTheNextHelperAtTheSamePort) {
  start();
  view({"--port", std::to_string(port)});
  const auto expectPictures = [this] {
    std::jthread camera(
        [this](const std::stop_token& stop) { feedUntil([&] { return stop.stop_requested(); }); });
    for (const int before = pictures; pictures < before + 3;) next();
  };
  expectPictures();
  EXPECT_EQ(finish(), 0);
  const std::string address = "127.0.0.1, port " + std::to_string(port);
  const std::string refused = " (connect: Connection refused). Trying again.";
  while (waitForMessage("lost")["message"] != "There is no helper at " + address + refused)
    continue;
  start({"--port", std::to_string(port)});
  expectPictures();
  EXPECT_TRUE(terminate().isClean());
}

}  // namespace
}  // namespace lumora::tests
