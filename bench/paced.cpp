// Runs the helper under a steady load like a camera application's.

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <stdexcept>
#include <string_view>

#include "bench/camera_clip.h"
#include "bench/paced_load.h"
#include "tools/parse_number.h"
#include "tools/sound_source.h"

namespace {

using namespace lumora;

// "load" measures one configuration. "growth" measures how the cost grows with size, rate,
// takes and clients. "takes" measures how late the preview's frames are when a take starts or
// ends.
constexpr const char* usage =
    "usage: lumora-paced HELPER load SECONDS WIDTHxHEIGHT FPS CLIENTS none|PROFILE\n"
    "                     [SECONDS BEFORE THE TAKE]\n"
    "       lumora-paced HELPER growth SECONDS\n"
    "       lumora-paced HELPER takes ROUNDS [PROFILE]\n"
    "       FRAMES=pipe|memory in the environment: how frames reach the helper\n"
    "       FORMAT=rgba|nv12: the format of the frames\n"
    "       SOUND=stereo: \"load\" also writes sound, and its take records it\n"
    "       MEMORY=settled: touches memory before each run, for virtual machines whose host takes "
    "free memory back\n";

const std::filesystem::path folder =
    std::filesystem::temp_directory_path() / ("lumora-paced-" + std::to_string(getpid()));

// Makes the folder of the takes, and removes it with them.
struct FolderOfTakes {
  FolderOfTakes() { std::filesystem::create_directories(folder); }
  ~FolderOfTakes() {
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
  }
  FolderOfTakes(const FolderOfTakes&) = delete;
  FolderOfTakes& operator=(const FolderOfTakes&) = delete;
};

client::HelperOptions helperOptions(const std::string& program) {
  return {.program = program, .frames = tools::frameTransport()};
}

bench::CameraClip makeClip(client::FrameSize size) {
  const char* value = std::getenv("FORMAT");  // NOLINT(concurrency-mt-unsafe): no code sets it
  const std::string_view format = value == nullptr ? "rgba" : value;
  if (format == "nv12") return bench::CameraClip(size, tools::nv12BT709);
  if (format != "rgba") throw std::runtime_error("FORMAT may only be \"rgba\" or \"nv12\"");
  return bench::CameraClip(size);
}

void addSound(tools::RunOptions& load) {
  const char* value = std::getenv("SOUND");  // NOLINT(concurrency-mt-unsafe): no code sets it
  if (value == nullptr) return;
  if (std::string_view(value) != "stereo") throw std::runtime_error("SOUND may only be \"stereo\"");
  load.helper.sound = tools::soundFormat;
  load.writeSound = [sound = tools::SteadySound(), random = std::minstd_rand(1)](
                        client::Helper& helper, client::Uptime::time_point capturedAt,
                        std::uint64_t) mutable {
    std::uniform_real_distribution<double> noise(-3000, 3000);
    sound.write(helper, capturedAt, [&](std::int64_t) { return noise(random); });
  };
  if (load.take) load.take->sound = true;
}

void measure(const tools::RunOptions& load, bench::CameraClip& clip) {
  bench::print(load, clip, bench::runLoad(load, clip));
}

void measureGrowth(const std::string& helper, double seconds) {
  for (const client::FrameSize size : {client::FrameSize{640, 360}, {1280, 720}, {1920, 1080}}) {
    bench::CameraClip clip = makeClip(size);
    for (const int rate : {15, 30, 60}) {
      for (const char* take : {"none", "1080x720"}) {
        for (const int clients : {0, 1, 2}) {
          measure({.helper = helperOptions(helper),
                   .framesPerSecond = rate,
                   .seconds = seconds,
                   .clients = clients,
                   .take = bench::takeOf(take, rate, folder / "take.mp4")},
                  clip);
        }
      }
    }
  }
}

// In each round of 240 frames one take starts and stops, and a later one fails. Latency is measured
// for half a second before and after each of these moments.
constexpr std::uint64_t roundFrames = 240;
constexpr std::uint64_t windowFrames = 30;
constexpr std::uint64_t startFrame = 60;
constexpr std::uint64_t stopFrame = 120;
constexpr std::uint64_t failFrame = 180;
constexpr std::pair<const char*, std::uint64_t> windows[] = {
    {"before a start", startFrame - windowFrames},
    {"after a start", startFrame},
    {"before a stop", stopFrame - windowFrames},
    {"after a stop", stopFrame},
    {"before a start that fails", failFrame - windowFrames},
    {"after a start that fails", failFrame}};

void measureTakes(const std::string& helper, std::uint64_t rounds, const std::string& profile) {
  std::vector<client::Take> takes;
  const auto startTake = [&](client::Helper& to, const std::filesystem::path& path) {
    return to.startTake(bench::takeOf(profile, 60, path).value());
  };
  bench::CameraClip clip = makeClip({1920, 1080});
  const tools::RunOptions load{
      .helper = helperOptions(helper),
      .seconds = static_cast<double>(rounds * roundFrames + 1) / 60,
      .clients = 1,
      .beforeFrame = [&](client::Helper& to, std::uint64_t frame) {
        const std::uint64_t at = frame % roundFrames;
        if (at == startFrame)
          takes.push_back(startTake(to, folder / (std::to_string(frame) + ".mp4")));
        if (at == stopFrame) takes.back().stop();
        if (at == failFrame)
          static_cast<void>(startTake(to, folder / "no such folder" / "take.mp4"));
      }};
  const tools::RunReport report = bench::runLoad(load, clip);
  for (const client::Take& take : takes) {
    const client::Recording end = take.latest();
    if (end.state != client::TakeState::saved)
      throw std::runtime_error("a take failed: " + end.error);
  }
  std::printf("%-26s %8s %8s %8s %8s\n", "half a second", "p50 ms", "p99 ms", "max ms", "lost");
  for (const auto& [name, from] : windows) {
    std::vector<double> latencies;
    for (const tools::Delivery& delivery : report.deliveries) {
      const std::uint64_t at = delivery.frame % roundFrames;
      if (at >= from && at < from + windowFrames) latencies.push_back(delivery.milliseconds);
    }
    std::printf("%-26s %8.2f %8.2f %8.2f %8lld\n", name, tools::percentile(latencies, 0.5),
                tools::percentile(latencies, 0.99), tools::percentile(latencies, 1),
                static_cast<long long>(rounds * windowFrames) - std::ssize(latencies));
  }
}

template <typename Number>
Number parse(const std::string& word, const char* name) {
  Number number{};
  if (!tools::parseNumber(word, number) || !(number >= 0)) throw std::invalid_argument(name);
  return number;
}

int run(const std::vector<std::string>& words) {
  const std::string mode = words.size() > 2 ? words[1] : "";
  const auto amount = words.size() > 2 ? parse<double>(words[2], "SECONDS or ROUNDS") : 1;
  if (amount == 0) throw std::invalid_argument("SECONDS or ROUNDS");  // it would measure nothing
  const FolderOfTakes takes;
  if (mode == "growth" && words.size() == 3) {
    measureGrowth(words[0], amount);
  } else if (mode == "takes" && words.size() <= 4) {
    measureTakes(words[0], static_cast<std::uint64_t>(amount),
                 words.size() == 4 ? words[3] : "1080x720");
  } else if (mode == "load" && (words.size() == 7 || words.size() == 8)) {
    client::FrameSize size{};
    if (std::sscanf(words[3].c_str(), "%dx%d", &size.width, &size.height) != 2)
      throw std::invalid_argument("WIDTHxHEIGHT");
    bench::CameraClip clip = makeClip(size);
    const int rate = parse<int>(words[4], "FPS");
    const auto before =
        words.size() == 8 ? parse<unsigned>(words[7], "SECONDS BEFORE THE TAKE") : 0;
    if (before >= amount) throw std::invalid_argument("SECONDS");
    tools::RunOptions load{.helper = helperOptions(words[0]),
                           .framesPerSecond = rate,
                           .seconds = amount,
                           .clients = parse<int>(words[5], "CLIENTS"),
                           .take = bench::takeOf(words[6], rate, folder / "take.mp4"),
                           .framesBeforeTake = std::uint64_t{before} * static_cast<unsigned>(rate)};
    addSound(load);
    measure(load, clip);
  } else {
    std::fputs(usage, stderr);
    return 2;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run({argv + 1, argv + argc});
  } catch (const std::invalid_argument& error) {
    std::fprintf(stderr, "%s\n%s", error.what(), usage);
    return 2;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
  }
}
