// Parts of the client library that need no helper.

#include <gtest/gtest.h>
#include <lumora/helper.h>

#include <csignal>

#include "client/feeder.h"
#include "client/frame_slots.h"

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
  EXPECT_EQ(counter->nextLine(20), std::to_string(command.size() + 16 + size.bytes()));
  EXPECT_TRUE(counter->wait(20).value().isClean());
}

}  // namespace
}  // namespace lumora::client
