#include "tests/e2e/take_fixture.h"

#include <time.h>

#include <chrono>
#include <cmath>
#include <thread>

namespace lumora::tests {

double uptime() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

std::string Probe::value(const std::string& key) const {
  const auto at = text.find("\n" + key + "=");
  if (at == std::string::npos) return "";
  const auto from = at + key.size() + 2;
  return text.substr(from, text.find('\n', from) - from);
}

long Probe::number(const std::string& key) const {
  return std::strtol(value(key).c_str(), nullptr, 10);
}

Probe probe(const std::string& path) {
  return {"\n" + outputOf("ffprobe -v error -count_frames -show_streams '" + path + "'")};
}

void TakeTest::SetUp() {
  HelperTest::SetUp();
  path = folder / "a take.\xC3\xA9.mp4";
}

void TakeTest::startTake(const Event& extra) {
  Event command = {{"type", "record_start"}, {"id", takeID}, {"path", path}};
  command.update(extra);
  ASSERT_TRUE(helper->writeCommand(command));
}

void TakeTest::stopTake(const Event& extra) {
  Event command = {{"type", "record_stop"}, {"id", takeID}};
  command.update(extra);
  ASSERT_TRUE(helper->writeCommand(command));
}

void TakeTest::feedPaced(int count, double framesPerSecond, FrameSize size) {
  const Pixels still = quarters(size, {200, 30, 30}, {30, 200, 30}, {30, 30, 200}, {90, 90, 90});
  feedPaced(count, framesPerSecond, size, {still, still});
}

void TakeTest::feedPaced(int count, double framesPerSecond, FrameSize size,
                         const std::array<Pixels, 2>& pictures) {
  auto due = std::chrono::steady_clock::now();
  for (int i = 0; i < count; ++i) {
    std::this_thread::sleep_until(due);
    due += std::chrono::microseconds(std::lround(1e6 / framesPerSecond));
    feed(size, pictures[static_cast<std::size_t>(i % 2)]);
  }
}

void TakeTest::turnTo(const std::filesystem::path& file) {
  path = file;
  ++takeID.back();
}

Event TakeTest::take(int count, double framesPerSecond) {
  startTake();
  feedPaced(count, framesPerSecond);
  stopTake();
  return waitForTake("saved");
}

Event TakeTest::waitForTake(const std::string& state) {
  return waitForEvent("recording", [&](const Event& event) {
    if (event.at("id") != takeID) return false;
    const auto& reached = event.at("state");
    if (reached == state) return true;
    if (reached == "failed" || reached == "saved") throw std::runtime_error(event.dump());
    return false;
  });
}

std::size_t TakeTest::fileCount() const {
  return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(folder),
                                                std::filesystem::directory_iterator()));
}

}  // namespace lumora::tests
