// The helper beside the tools that people use today for its job, and beside the least that the job
// can cost: its two encoders alone. All get the same frames, encoder, presets, rates and threads,
// in turn.
//
//   lumora-compare HELPER FOLDER [ROUNDS]     leaves everybody's preview and take in FOLDER

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <limits>
#include <numeric>

#include "bench/contenders.h"
#include "bench/encoders_alone.h"
#include "bench/paced_load.h"
#include "bench/pipeline.h"
#include "encode/session_settings.h"

namespace {

using namespace lumora;
using namespace lumora::bench;

constexpr client::FrameSize camera{1920, 1080};
constexpr client::FrameSize previewSize{640, 360};
constexpr int frames = 300;
constexpr int costRate = 30;       // frames a second that everybody keeps
constexpr double rateSeconds = 4;  // of each measurement at 60 frames a second
constexpr double longSeconds = 60;
constexpr double unknown = std::numeric_limits<double>::quiet_NaN();

// What one run of a contender gave.
struct Run {
  double cpu = unknown;         // ms a frame, at a rate that everybody keeps
  double parentCPU = unknown;   // the same of the parent
  double latency = unknown;     // ms, median
  double hurriedCPU = unknown;  // ms a frame, at full speed
  double speed = unknown;       // frames a second
  double peak = unknown;        // MB
  double takeSize = unknown;    // MB
  double previewSize = unknown;
  std::vector<std::uint64_t> inPreview = {};  // the numbers of the frames in its files
  std::vector<std::uint64_t> inTake = {};
};

struct Column {
  const char* title;
  double Run::*figure;
  int decimals;
};
constexpr Column columns[] = {
    {"cpu ms/frame", &Run::cpu, 1},   {"at full speed", &Run::hurriedCPU, 1},
    {"frames/s", &Run::speed, 1},     {"parent cpu", &Run::parentCPU, 1},
    {"latency ms", &Run::latency, 1}, {"peak MB", &Run::peak, 0},
    {"take MB", &Run::takeSize, 2},   {"preview MB", &Run::previewSize, 2}};

struct Contender {
  std::string name;
  std::function<Run()> run;
  Outputs outputs = {};  // compared with the clip after the last round; empty: none
  std::vector<Run> rounds = {};
};

double perFrame(double seconds) { return seconds * 1000 / frames; }
double megabytesOf(const std::string& path) {
  return static_cast<double>(std::filesystem::file_size(path)) / 1e6;
}

// Everybody runs twice: at a rate that all of them keep, for the cost, since a frame that comes
// alone costs more than one of many in a row; and at full speed.
Run runPeer(const std::string& command, CameraClip& clip, const Outputs& outputs) {
  std::vector<std::uint64_t> numbers(frames);
  std::iota(numbers.begin(), numbers.end(), 1);
  const PipelineReport calm = runPipeline(command, clip, numbers, costRate);
  const PipelineReport hurried = runPipeline(command, clip, numbers);
  return {.cpu = perFrame(calm.cpuSeconds),
          .hurriedCPU = perFrame(hurried.cpuSeconds),
          .speed = frames / hurried.wallSeconds,
          .peak = hurried.peakMegabytes,
          .takeSize = megabytesOf(outputs.take),
          .previewSize = megabytesOf(outputs.preview),
          .inPreview = numbers,
          .inTake = numbers};
}

// The full speed of the helper is 60 a second, as long as it keeps up: a take has no more.
Run runHelper(const tools::RunOptions& hurried, CameraClip& clip) {
  const tools::RunReport rate = runLoad(hurried, clip);
  tools::RunOptions calm = hurried;
  calm.framesPerSecond = costRate;
  calm.seconds = static_cast<double>(frames) / costRate;
  const tools::RunReport cost = runLoad(calm, clip);
  Run run{
      .cpu = perFrame(cost.exit.cpuSeconds),
      .parentCPU = perFrame(cost.parentCPUSeconds),
      .latency = cost.latency(0.5),
      .hurriedCPU = rate.exit.cpuSeconds * 1000 / static_cast<double>(rate.fed),
      .speed = static_cast<double>(std::min(delivered(hurried, rate).frames, rate.take.frames)) /
               rate.fedSeconds,
      .peak = std::max(cost.peakMegabytes, rate.peakMegabytes),
      .takeSize = megabytesOf(calm.take->path),
      .previewSize = megabytesOf(calm.previewPath)};
  for (const tools::Delivery& delivery : cost.deliveries) run.inPreview.push_back(delivery.frame);
  // The take has the same frames, perhaps without the last one, which may come after the stop.
  const bool isWhole = cost.take.dropped == 0 && cost.take.throttled == 0;
  if (isWhole && cost.take.frames <= run.inPreview.size()) {
    run.inTake = run.inPreview;
    run.inTake.resize(cost.take.frames);
  }
  return run;
}

// The frames for the encoders alone are converted before the measurement.
struct ReadyClip {
  std::vector<Bytes> preview;
  std::vector<Bytes> take;
};

Run runEncoders(const ReadyClip& ready, const std::string& preset,
                const std::function<void()>& besideEach = {}) {
  const auto settings = [](SessionKind kind, client::FrameSize size) {
    return sessionSettings(kind, {size.width, size.height}, 60);
  };
  const std::vector<EncoderLoad> both = {
      {settings(SessionKind::preview, previewSize), preset, ready.preview},
      {settings(SessionKind::recording, camera), preset, ready.take}};
  const EncodersReport calm = encodeAlone(both, frames, costRate, besideEach);
  const EncodersReport hurried = encodeAlone(both, frames, 0, besideEach);
  return {.cpu = perFrame(calm.cpuSeconds),
          .hurriedCPU = perFrame(hurried.cpuSeconds),
          .speed = frames / hurried.wallSeconds,
          .takeSize = static_cast<double>(hurried.streams[1].size()) / 1e6,
          .previewSize = static_cast<double>(hurried.streams[0].size()) / 1e6};
}

// The least that a program can cost whose frames come through a pipe: they are also read.
Run runEncodersAndPipe(const ReadyClip& ready, const std::string& preset) {
  tools::CommandSource black(
      "exec dd if=/dev/zero status=none bs=" + std::to_string(camera.bytes()) +
          " count=" + std::to_string(2 * frames),
      camera);
  return runEncoders(ready, preset, [&] {
    if (black.next(0, 0).empty()) throw std::runtime_error("dd wrote too few frames");
  });
}

std::vector<Contender> makeContenders(const std::string& helper, const std::string& preset,
                                      CameraClip& clip, const ReadyClip& ready,
                                      const std::filesystem::path& folder) {
  const auto outputs = [&folder](const std::string& name) {
    return Outputs{folder / (name + ".h264"), folder / (name + ".mp4")};
  };
  std::vector<Contender> made;
  made.push_back({"encoders alone", [&ready, preset] { return runEncoders(ready, preset); }});
  made.push_back(
      {"encoders and a pipe", [&ready, preset] { return runEncodersAndPipe(ready, preset); }});
  for (const auto& [name, transport] : {std::pair{"helper", client::FrameTransport::pipe},
                                        {"helper-memory", client::FrameTransport::memory}}) {
    const Outputs ours = outputs(name);
    tools::RunOptions load{.helper = {.program = helper, .frames = transport},
                           .seconds = rateSeconds,
                           .clients = 1,
                           .take = takeOf("1920x1080", 60, ours.take),
                           .previewPath = ours.preview};
    if (!preset.empty()) load.helper.environment = {{"TAVO_H264_ENCODER", "software:" + preset}};
    made.push_back({name, [load, &clip] { return runHelper(load, clip); }, ours});
  }
  if (preset.empty()) return made;  // nobody else has our settings
  for (const auto& [name, command] : {std::pair{"ffmpeg", &ffmpegCommand},
                                      {"ffmpeg-one-conversion", ffmpegOnceCommand},
                                      {"gstreamer", gstreamerCommand}}) {
    const Outputs files = outputs(name);
    made.push_back({name,
                    [&clip, files, line = command(camera, preset, files)] {
                      return runPeer(line, clip, files);
                    },
                    files});
  }
  return made;
}

void printTitles(const std::string& preset) {
  std::printf("\n%-22s", preset.c_str());
  for (const Column& column : columns) std::printf(" %-20s", column.title);
  std::printf(" %-8s %s\n", "SSIM", "of preview");
}

// The median of each figure over the rounds, and its range.
void printRow(const Contender& contender, CameraClip& clip) {
  std::printf("%-22s", contender.name.c_str());
  for (const Column& column : columns) {
    std::vector<double> values;
    for (const Run& run : contender.rounds) values.push_back(run.*column.figure);
    char cell[64] = "-";
    if (!std::isnan(values[0])) {
      std::snprintf(cell, sizeof cell, "%.*f (%.*f-%.*f)", column.decimals,
                    tools::percentile(values, 0.5), column.decimals, tools::percentile(values, 0),
                    column.decimals, tools::percentile(values, 1));
    }
    std::printf(" %-20s", cell);
  }
  const auto printSSIM = [&](const std::string& path, const std::vector<std::uint64_t>& numbers,
                             client::FrameSize size) {
    if (numbers.empty())
      std::printf(" %-8s", "-");
    else
      std::printf(" %-8.4f", measureSSIM(path, clip, numbers, size));
  };
  const Run& last = contender.rounds.back();
  printSSIM(contender.outputs.take, last.inTake, camera);
  printSSIM(contender.outputs.preview, last.inPreview, previewSize);
  std::printf("\n");
  std::fflush(stdout);
}

void compare(const std::string& helper, const std::filesystem::path& folder, int rounds) {
  std::filesystem::create_directories(folder);
  CameraClip clip(camera);
  const ReadyClip ready{readyPictures(clip, previewSize), readyPictures(clip, camera)};
  for (const std::string preset : {"superfast", "ultrafast", ""}) {
    auto contenders = makeContenders(helper, preset, clip, ready, folder);
    for (int round = 0; round < rounds; ++round) {
      for (Contender& contender : contenders) contender.rounds.push_back(contender.run());
    }
    printTitles(preset.empty() ? "as shipped" : preset);
    for (const Contender& contender : contenders) printRow(contender, clip);
  }
  std::printf("\n60 seconds at 60 frames a second, as shipped\n");
  for (const char* profile : {"none", "1080x720", "1920x1080"}) {
    for (const auto transport : {client::FrameTransport::pipe, client::FrameTransport::memory}) {
      const tools::RunOptions load{.helper = {.program = helper, .frames = transport},
                                   .seconds = longSeconds,
                                   .take = takeOf(profile, 60, folder / "long.mp4")};
      print(load, camera, runLoad(load, clip));
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3 && argc != 4) {
    std::fprintf(stderr, "usage: %s HELPER FOLDER [ROUNDS]\n", argv[0]);
    return 2;
  }
  const int rounds = argc > 3 ? std::atoi(argv[3]) : 5;
  try {
    compare(argv[1], std::filesystem::absolute(argv[2]), std::max(rounds, 1));
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
  }
}
