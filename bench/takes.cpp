// Whether the preview notices a take: how late its frames are right after a take starts, stops or
// fails, beside the same half seconds without.
//
//   lumora-takes HELPER [ROUNDS [PROFILE]]

#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "bench/camera_clip.h"
#include "tools/paced_run.h"

namespace {

using namespace lumora;

constexpr client::FrameSize camera{1920, 1080};
constexpr int framesPerSecond = 60;

// A round in frames: the take starts and stops, and later one fails, each with half a second of
// what is looked at behind it.
constexpr std::uint64_t roundFrames = 240;
constexpr std::uint64_t windowFrames = 30;
constexpr std::uint64_t startFrame = 60;
constexpr std::uint64_t stopFrame = 120;
constexpr std::uint64_t failFrame = 180;

struct Window {
  const char* name;
  std::uint64_t from;
};

constexpr Window windows[] = {
    {"no take", startFrame - windowFrames},       {"a take has started", startFrame},
    {"a take runs", stopFrame - windowFrames},    {"a take has stopped", stopFrame},
    {"no take, later", failFrame - windowFrames}, {"a take fails at once", failFrame}};

// Starts and stops takes along the way; every round's take has a file of its own.
void command(client::HelperProcess& helper, std::uint64_t frame, const std::string& folder,
             const std::string& profile) {
  const std::uint64_t at = frame % roundFrames;
  const std::string round = std::to_string(frame / roundFrames);
  const client::Event start = {{"type", "record_start"},
                               {"id", "7D444840-9DC0-11D1-B245-5FFDCE74FAD2"},
                               {"path", folder + "/" + round + ".mp4"},
                               {"resolution", profile},
                               {"target_fps", framesPerSecond}};
  if (at == startFrame) helper.writeCommand(start);
  if (at == stopFrame) helper.writeCommand({{"type", "record_stop"}, {"id", start["id"]}});
  if (at == failFrame) {
    client::Event failing = start;
    failing["path"] = folder + "/no such folder/take.mp4";
    helper.writeCommand(failing);
  }
}

void report(const std::vector<tools::Delivery>& deliveries, std::uint64_t rounds) {
  std::printf("%-24s %8s %8s %8s %8s\n", "half a second when", "p50 ms", "p99 ms", "max ms",
              "lost");
  for (const Window& window : windows) {
    std::vector<double> latencies;
    for (const tools::Delivery& delivery : deliveries) {
      const std::uint64_t at = delivery.frame % roundFrames;
      if (at >= window.from && at < window.from + windowFrames) {
        latencies.push_back(delivery.milliseconds);
      }
    }
    std::printf(
        "%-24s %8.2f %8.2f %8.2f %8lld\n", window.name, tools::percentile(latencies, 0.5),
        tools::percentile(latencies, 0.99), tools::percentile(latencies, 1),
        static_cast<long long>(rounds * windowFrames) - static_cast<long long>(latencies.size()));
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || argc > 4) {
    std::fprintf(stderr, "usage: %s HELPER [ROUNDS [PROFILE]]\n", argv[0]);
    return 2;
  }
  const auto rounds = static_cast<std::uint64_t>(argc > 2 ? std::atoi(argv[2]) : 10);
  const std::string profile = argc > 3 ? argv[3] : "1080x720";
  const auto folder = std::filesystem::temp_directory_path() / "lumora-takes";
  try {
    std::filesystem::create_directories(folder);
    bench::CameraClip clip(camera, framesPerSecond);
    tools::RunOptions options;
    options.launch = {argv[1], client::makeToken(), {}, {}};
    options.framesPerSecond = framesPerSecond;
    options.seconds = static_cast<double>(rounds * roundFrames + 1) / framesPerSecond;
    options.clients = 1;
    options.beforeFrame = [&](client::HelperProcess& helper, std::uint64_t frame) {
      command(helper, frame, folder, profile);
    };
    report(tools::runPaced(options, clip, {}).deliveries, rounds);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
  }
  std::filesystem::remove_all(folder);
}
