// The viewer as a program: a page at its socket, its helper, and how all of it ends.

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/websocket.hpp>
#include <csignal>
#include <fstream>

#include <lumora/packets.h>
#include "tests/e2e/helper_fixture.h"

namespace lumora::tests {
namespace {

using boost::asio::ip::tcp;

struct Viewer : HelperTest {
  // Starts the viewer and opens its page's socket.
  void view(const std::vector<std::string>& arguments) {
    viewer = std::make_unique<tools::HelperProcess>(
        client::LaunchOptions{LUMORA_VIEWER, token, arguments, {}});
    const std::string address = viewer->nextLine(20).value_or("");  // http://127.0.0.1:P/SECRET/
    ASSERT_GT(address.size(), 7u);
    const std::string host = address.substr(7, address.find('/', 7) - 7);
    socket.next_layer().connect(
        {boost::asio::ip::make_address("127.0.0.1"),
         static_cast<std::uint16_t>(std::stoi(host.substr(host.find(':') + 1)))});
    socket.set_option(boost::beast::websocket::stream_base::decorator(
        [&](auto& request) { request.set(boost::beast::http::field::origin, "http://" + host); }));
    socket.handshake(host, address.substr(7 + host.size()) + "socket");
  }
  // Shows pictures until a message comes that satisfies `wanted`.
  Event waitForMessage(const HelperTest::Wanted& wanted) {
    const double patience = uptime() + 20;
    while (uptime() < patience) {
      boost::beast::flat_buffer received;
      socket.read(received);
      const auto* bytes = static_cast<const std::uint8_t*>(received.data().data());
      if (socket.got_text()) {
        const auto message = Event::parse(bytes, bytes + received.size());
        if (wanted(message)) return message;
        continue;
      }
      client::PacketParser parser;
      parser.feed({bytes, received.size()});
      const auto packet = parser.next();
      if (!packet || packet->type != client::Packet::Type::frame) continue;
      ++pictures;
      say({{"type", "shown"}, {"frame_id", packet->frameID}});
    }
    throw std::runtime_error("no such message");
  }
  Event waitForTake(const std::string& state) {
    return waitForMessage([&](const Event& message) {
      return message["type"] == "event" && message["event"].value("state", "") == state;
    })["event"];
  }
  void record() {
    view({"--demo", "--helper", LUMORA_HELPER, "--folder", folder, "--size", "320x240"});
    waitForMessage([&](const Event&) { return pictures > 5; });
    say({{"type", "start"}, {"resolution", "640x360"}, {"target_fps", 60}, {"folder", folder}});
    waitForTake("recording");
  }
  void say(const Event& message) {
    socket.text(true);
    socket.write(boost::asio::buffer(message.dump()));
  }
  int exitOfViewer() { return viewer->wait(20).value_or(client::ExitStatus{-1, 0, {}}).code; }

  std::unique_ptr<tools::HelperProcess> viewer;
  boost::asio::io_context context;
  boost::beast::websocket::stream<tcp::socket> socket{context};
  int pictures = 0;
};

TEST_F(Viewer, EndsItsHelperAndSavesTheTake) {
  record();
  viewer->sendSignal(SIGINT);
  const Event saved = waitForTake("saved");
  waitForMessage([](const Event& message) { return message["type"] == "ended"; });
  EXPECT_EQ(exitOfViewer(), 0);
  EXPECT_EQ(viewer->nextLine(1), "Saved " + saved["path"].get<std::string>());
  EXPECT_EQ(decodeErrors(saved["path"]), "");
}

TEST_F(Viewer, ATakeThatWasLostShowsInItsStatus) {
  record();
  std::ifstream children("/proc/" + std::to_string(viewer->pid()) + "/task/" +
                         std::to_string(viewer->pid()) + "/children");
  pid_t itsHelper = 0;
  ASSERT_TRUE(children >> itsHelper);
  kill(itsHelper, SIGKILL);
  waitForMessage([](const Event& message) { return message["status"] == 128 + SIGKILL; });
  EXPECT_EQ(exitOfViewer(), 1);
}

TEST_F(Viewer, WaitsForAHelperThatIsGone) {
  start();
  view({"--port", std::to_string(port)});
  waitForMessage([](const Event& message) { return message["type"] == "session"; });
  finish();
  helper.reset();
  waitForMessage([](const Event& message) { return message["type"] == "lost"; });
  viewer->sendSignal(SIGTERM);
  EXPECT_EQ(exitOfViewer(), 0);
}

}  // namespace
}  // namespace lumora::tests
