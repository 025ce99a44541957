// Feeds a moving picture for two seconds, records it, and writes the preview into a file.
//
//   record [FOLDER]

#include <lumora/helper.h>
#include <lumora/stream_client.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <thread>

using namespace lumora::client;

constexpr FrameSize size{1280, 720};
constexpr int pictures = 120;
constexpr Seconds interval(1.0 / 60);

void paint(std::span<std::uint8_t> rgba, int number) {
  for (std::size_t i = 0; i < rgba.size(); ++i) {
    rgba[i] = static_cast<std::uint8_t>(i / 4 % size.width + static_cast<std::size_t>(number));
  }
}

// Catches exceptions, because one that escapes from a thread ends the program. The take goes on
// without the preview.
void keepPreview(const Helper& helper, const std::filesystem::path& path,
                 const std::stop_token& stop) try {
  StreamClient stream("127.0.0.1", helper.port());
  stream.sayHello(helper.token());
  std::ofstream file(path, std::ios::binary);
  const auto keep = [&](const Packet& packet) {
    for (const std::uint8_t byte : toAnnexB(packet)) file.put(static_cast<char>(byte));
  };
  stream.watch(keep, [&] { return !stop.stop_requested(); });
} catch (const std::exception& error) {
  std::fprintf(stderr, "The preview has ended: %s\n", error.what());
}

int main(int argc, char** argv) try {
  const std::filesystem::path folder = std::filesystem::absolute(argc > 1 ? argv[1] : ".");
  Helper helper({.frameSize = size});
  std::jthread viewer(
      [&](const std::stop_token& stop) { keepPreview(helper, folder / "preview.h264", stop); });
  Take take = helper.startTake({.path = folder / "take.mp4"});
  const auto start = Uptime::now();
  for (int number = 0; number < pictures; ++number) {
    std::this_thread::sleep_until(start + number * interval);
    if (auto frame = helper.acquireFrame(size)) {  // empty when every slot is busy: skip this frame
      paint(frame->pixels(), number);              // rows from the bottom up (see flipRows)
      helper.publish(*std::move(frame), frameID(Uptime::now()));
    }
  }
  std::this_thread::sleep_until(start + pictures * interval);  // keeps the last picture in the take
  take.stop();
  const auto end = take.waitForEnd(Seconds(10));
  if (!end) throw std::runtime_error("the take did not end in 10 s");
  std::printf("%s: %.3f s %s\n", end->path.c_str(), end->duration.count(), end->error.c_str());
  return end->state == TakeState::saved ? 0 : 1;
} catch (const std::exception& error) {
  std::fprintf(stderr, "%s\n", error.what());
  return 1;
}
