// Clients that misbehave on a real connection, and the others who must not notice.

#include "tests/e2e/helper_fixture.h"

namespace lumora::tests {
namespace {

constexpr FrameSize size{320, 240};

struct Stream : HelperTest {
  // Whether the helper closes the connection in time.
  static bool isDropped(client::StreamClient& stream, double seconds) {
    const client::Deadline deadline(seconds);
    while (!stream.isClosed() && deadline.millisecondsLeft() > 0) stream.receive(0.05);
    return stream.isClosed();
  }
};

TEST_F(Stream, StrangersAreDroppedWithoutAnAnswer) {
  start();
  const auto good = connectClient();
  for (const std::string& text :
       {std::string("\n"), std::string("GET / HTTP/1.1\r\n\r\n"), std::string(4097, 'x'),
        std::string("{\"type\":\"hello\",\"token\":\"end-to-end-token-012345678\"}\n"),
        std::string(4000, '[') + "\n"}) {
    const auto stranger = connect();
    stranger->sendText(text);
    EXPECT_TRUE(isDropped(*stranger, 5)) << text.substr(0, 40);
  }
  const auto silent = connect();
  EXPECT_TRUE(isDropped(*silent, 5));
  EXPECT_EQ(stream(*good, size, plain(size, {9, 9, 9}), 10).empty(), false);
  EXPECT_EQ(waitForStatistics([](const Event& e) { return e["dropped_peers"] >= 6; })["clients"],
            1);
}

TEST_F(Stream, AClientThatNeverAcknowledgesIsDroppedAndTheOtherGetsEveryFrame) {
  start();
  const auto good = connectClient();
  const auto silent = connect();
  silent->sayHello(token);
  waitForStatistics([](const Event& event) { return event["clients"] == 2; });
  int frames = 0;
  const client::Deadline deadline(20);
  while (!silent->isClosed() && deadline.millisecondsLeft() > 0) {
    for (const auto& packet : stream(*good, size, plain(size, {9, 9, 9}), 1)) {
      frames += packet.type == client::Packet::Type::frame ? 1 : 0;
    }
    silent->receive(0.001);
  }
  EXPECT_TRUE(silent->isClosed());
  const Event stats = waitForStatistics([](const Event& event) {
    return event["clients"] == 1 && event.contains("max_unacked_observed");
  });
  EXPECT_EQ(stats["max_unacked_observed"], 6);
  EXPECT_GE(frames, 6);
}

}  // namespace
}  // namespace lumora::tests
