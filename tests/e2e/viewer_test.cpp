// The viewer as a program: with a page at its socket, with a helper, and how it ends.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/websocket.hpp>
#include <csignal>
#include <fstream>
#include <regex>

#include "tests/e2e/helper_fixture.h"

namespace lumora::tests {
namespace {

using boost::asio::ip::tcp;

struct Viewer : HelperTest {
  // Starts the viewer and opens its page's socket.
  void view(const std::vector<std::string>& arguments,
            const std::map<std::string, std::string>& environment = {}) {
    viewer = std::make_unique<HelperProcess>(
        client::LaunchOptions{LUMORA_VIEWER, token, arguments, environment});
    const std::string address = viewer->nextLine(20).value_or("");
    std::smatch parts;
    ASSERT_TRUE(std::regex_match(address, parts, std::regex("(http://(.*:([0-9]+)))(/.*/)")));
    socket.next_layer().connect(
        {boost::asio::ip::address_v4::loopback(), static_cast<std::uint16_t>(std::stoi(parts[3]))});
    socket.set_option(boost::beast::websocket::stream_base::decorator(
        [&](auto& request) { request.set(boost::beast::http::field::origin, parts[1].str()); }));
    socket.handshake(parts[2].str(), parts[4].str() + "socket");
  }
  // Reads one message. Returns a text; counts a picture and says that it was shown.
  std::optional<Event> next() {
    boost::beast::flat_buffer received;
    socket.read(received);
    const auto* bytes = static_cast<const std::uint8_t*>(received.data().data());
    if (socket.got_text()) return Event::parse(bytes, bytes + received.size());
    client::PacketParser parser;
    parser.feed({bytes, received.size()});
    const auto packet = parser.next();
    if (!packet || packet->type != client::Packet::Type::frame) return std::nullopt;
    ++pictures;
    say({{"type", "shown"}, {"frame_id", packet->frameID}});
    return std::nullopt;
  }
  Event waitForMessage(const std::string& type) {
    auto message = next();
    while (!message || message->at("type") != type) message = next();
    return *message;
  }
  void showPictures(int count) {
    while (pictures < count) next();
  }
  Event waitForState(const std::string& state) {
    Event told = Event::object();
    while (told.value("state", "") != state) told = waitForMessage("event")["event"];
    return told;
  }
  void record() {
    view({"--demo", "--helper", helperProgram(), "--folder", folder, "--size", "320x240"});
    showPictures(5);
    say({{"type", "start"}, {"resolution", "640x360"}, {"target_fps", 60}, {"folder", folder}});
    waitForState("recording");
  }
  void say(const Event& message) {
    socket.text(true);
    socket.write(boost::asio::buffer(message.dump()));
  }
  void signalHelper(int signal) const {
    const std::string pid = std::to_string(viewer->pid());
    pid_t helperOfViewer = 0;
    std::ifstream("/proc/" + pid + "/task/" + pid + "/children") >> helperOfViewer;
    ASSERT_GT(helperOfViewer, 0);
    kill(helperOfViewer, signal);
  }
  int exitOfViewer() {
    const auto status = viewer->wait(20);
    return status && status->signal == 0 ? status->status : -1;
  }

  std::unique_ptr<HelperProcess> viewer;
  boost::asio::io_context context;
  boost::beast::websocket::stream<tcp::socket> socket{context};
  int pictures = 0;
};

TEST_F(Viewer, EndsItsHelperAndSavesTheTake) {
  record();
  signalHelper(SIGINT);  // Ctrl-C in a terminal reaches both
  viewer->sendSignal(SIGINT);
  const Event saved = waitForState("saved");
  waitForMessage("ended");
  EXPECT_EQ(exitOfViewer(), 0);
  EXPECT_EQ(viewer->nextLine(1), "Saved " + saved["path"].get<std::string>());
  EXPECT_EQ(decodeErrors(saved["path"]), "");
}

TEST_F(Viewer, FailsWhenATakeIsLost) {
  record();
  signalHelper(SIGKILL);
  EXPECT_EQ(waitForMessage("ended")["message"], "The helper has ended with signal 9.");
  EXPECT_EQ(exitOfViewer(), 1);
}

TEST_F(Viewer, EndsBesideAHelperThatHangs) {
  record();
  signalHelper(SIGSTOP);
  viewer->sendSignal(SIGTERM);
  EXPECT_EQ(exitOfViewer(), 1);
}

TEST_F(Viewer, EndsBesideACameraThatHangs) {
  const std::string camera = folder / "camera";
  ASSERT_EQ(mkfifo(camera.c_str(), 0600), 0);
  view({"--demo", "--helper", helperProgram()}, {{"INPUT", camera}});
  viewer->sendSignal(SIGTERM);
  waitForMessage("ended");
  EXPECT_EQ(exitOfViewer(), 0);
  close(open(camera.c_str(), O_WRONLY | O_NONBLOCK));  // ends the ffmpeg that waits for a writer
}

TEST_F(Viewer, WaitsForAHelperThatIsGone) {
  start();
  view({"--port", std::to_string(port)});
  std::jthread camera([this](const std::stop_token& stop) {
    while (!stop.stop_requested()) feedPaced(2, 60, {320, 240});
  });
  showPictures(3);
  camera = {};
  finish();
  waitForMessage("lost");
  viewer->sendSignal(SIGTERM);
  waitForMessage("ended");
  EXPECT_EQ(exitOfViewer(), 0);
}

}  // namespace
}  // namespace lumora::tests
