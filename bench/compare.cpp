// The helper beside the tools that people use today for its job, and beside the lower bound: its
// two encoders alone. The same pictures, encoder, presets, rates and threads for all, in turn.
//
//   lumora-compare HELPER FOLDER [ROUNDS]     writes FOLDER/bench.json

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>

#include "bench/contenders.h"
#include "bench/encoders_alone.h"
#include "bench/paced_load.h"
#include "bench/pipeline.h"
#include "bench/ssim.h"
#include "encode/session_settings.h"
#include "tools/paced_run.h"

namespace {

using namespace lumora;
using namespace lumora::bench;
using tools::Event;

constexpr client::FrameSize camera{1920, 1080};
constexpr client::FrameSize previewSize{640, 360};
constexpr int clipFrames = 60;
constexpr int frames = 300;
constexpr int costRate = 30;       // frames a second that everybody keeps
constexpr double rateSeconds = 4;  // of each measurement at 60 frames a second
constexpr double longSeconds = 60;

// What one run of one contender gave.
struct Run {
  Event figures;                           // numbers by name; one that it can't give is missing
  std::vector<std::uint64_t> inPreview{};  // the numbers of the frames in its files
  std::vector<std::uint64_t> inTake{};
};

struct Contender {
  std::string name;
  std::function<Run()> run;
  Outputs outputs = {};  // judged after the last round; empty: none
  std::vector<Run> rounds = {};
};

double perFrame(double seconds) { return seconds * 1000 / frames; }
std::uint64_t sizeOf(const std::string& path) {
  return static_cast<std::uint64_t>(std::filesystem::file_size(path));
}

// Everybody runs twice: at a rate that all of them keep, for the cost, since a frame that comes
// alone costs more than one of many in a row; and at full speed.
Run runPeer(const std::vector<std::string>& command, CameraClip& clip, const Outputs& outputs) {
  const auto numbers = firstNumbers(frames);
  const PipelineReport calm = runPipeline(command, clip, numbers, costRate);
  const PipelineReport hurried = runPipeline(command, clip, numbers, 0);
  return {{{"cpu_ms", perFrame(calm.cpuSeconds)},
           {"full_cpu_ms", perFrame(hurried.cpuSeconds)},
           {"fps", frames / hurried.wallSeconds},
           {"peak_mb", hurried.peakMegabytes},
           {"preview_bytes", sizeOf(outputs.preview)},
           {"take_bytes", sizeOf(outputs.take)}},
          numbers,
          numbers};
}

// The helper's full speed is 60 a second, as long as it keeps up: a take has no more.
Run runHelper(const PacedLoad& load, CameraClip& clip) {
  PacedLoad calm = load;
  calm.framesPerSecond = costRate;
  calm.seconds = static_cast<double>(frames) / costRate;
  calm.targetFPS = 60;
  const PacedResult cost = runPacedLoad(calm, clip);
  PacedLoad hurried = load;
  hurried.seconds = rateSeconds;
  hurried.previewPath = hurried.takePath = "";
  const PacedResult rate = runPacedLoad(hurried, clip);
  Run run{{{"cpu_ms", cost.cpuMilliseconds},
           {"parent_cpu_ms", cost.parentMilliseconds},
           {"latency_ms", cost.p50},
           {"from_call_ms", cost.fromCallP50},
           {"full_cpu_ms", rate.cpuMilliseconds},
           {"fps", static_cast<double>(std::min(rate.delivered, rate.recorded)) / rate.fedSeconds},
           {"peak_mb", std::max(cost.peakMegabytes, rate.peakMegabytes)},
           {"preview_bytes", cost.previewBytes},
           {"take_bytes", sizeOf(load.takePath)}}};
  for (const tools::Delivery& delivery : cost.deliveries) run.inPreview.push_back(delivery.frame);
  // The take has the same frames, but for the last one when it was captured after the stop.
  if (cost.takeDropped == 0 && cost.takeThrottled == 0) {
    run.inTake.assign(run.inPreview.begin(),
                      run.inPreview.begin() + static_cast<std::ptrdiff_t>(cost.recorded));
  }
  return run;
}

// The bounds' pictures are ready before the measurement.
struct ReadyClip {
  std::vector<Bytes> preview;
  std::vector<Bytes> take;
};

Run runBound(const ReadyClip& ready, const std::string& preset,
             const std::function<void()>& besideEach = {}) {
  const std::vector<EncoderLoad> both = {
      {sessionSettings(SessionKind::preview, {640, 360}, 60), preset, ready.preview},
      {sessionSettings(SessionKind::recording, {camera.width, camera.height}, 60), preset,
       ready.take}};
  const EncodersReport calm = encodeAlone(both, frames, costRate, besideEach);
  const EncodersReport hurried = encodeAlone(both, frames, 0, besideEach);
  return {{{"cpu_ms", perFrame(calm.cpuSeconds)},
           {"full_cpu_ms", perFrame(hurried.cpuSeconds)},
           {"fps", frames / hurried.wallSeconds},
           {"preview_bytes", hurried.streams[0].size()},
           {"take_bytes", hurried.streams[1].size()}}};
}

// The bound of whatever takes its frames through a pipe: they are read, and nothing is done with
// them.
Run runBoundWithPipe(const ReadyClip& ready, const std::string& preset) {
  const FramePipe pipe(camera.bytes(), 2 * frames);
  Bytes frame(camera.bytes());
  return runBound(ready, preset, [&] { pipe.read(frame); });
}

std::vector<Contender> makeContenders(const std::string& helper, const std::string& preset,
                                      CameraClip& clip, const ReadyClip& ready,
                                      const std::filesystem::path& folder) {
  const auto outputs = [&folder](const char* name) {
    return Outputs{folder / (std::string(name) + ".h264"), folder / (std::string(name) + ".mp4")};
  };
  std::vector<Contender> made;
  made.push_back({"encoders alone", [&ready, preset] { return runBound(ready, preset); }});
  made.push_back(
      {"encoders and a pipe", [&ready, preset] { return runBoundWithPipe(ready, preset); }});
  for (const auto transport : {client::FrameTransport::pipe, client::FrameTransport::memory}) {
    const bool isShared = transport == client::FrameTransport::memory;
    const Outputs ours = outputs(isShared ? "helper-memory" : "helper");
    const PacedLoad load{.helper = helper,
                         .preset = preset,
                         .clients = 1,
                         .take = "1920x1080",
                         .previewPath = ours.preview,
                         .takePath = ours.take,
                         .frames = transport};
    made.push_back({isShared ? "helper, frame memory" : "helper",
                    [load, &clip] { return runHelper(load, clip); }, ours});
  }
  if (preset.empty()) return made;  // nobody else has our settings
  const auto peer = [&](const char* name, const char* file, auto command) {
    const Outputs files = outputs(file);
    made.push_back({name,
                    [&clip, files, words = command(camera, preset, files)] {
                      return runPeer(words, clip, files);
                    },
                    files});
  };
  peer("ffmpeg", "ffmpeg", ffmpegCommand);
  peer("ffmpeg, one conversion", "ffmpeg-once", ffmpegOnceCommand);
  peer("GStreamer", "gstreamer", gstreamerCommand);
  return made;
}

// Median and range of every figure over the rounds.
Event summarise(const std::vector<Run>& rounds) {
  Event summary = Event::object();
  for (const auto& [key, first] : rounds.front().figures.items()) {
    std::vector<double> values;
    for (const Run& run : rounds) values.push_back(run.figures.at(key));
    summary[key] = {{"median", tools::percentile(values, 0.5)},
                    {"low", tools::percentile(values, 0)},
                    {"high", tools::percentile(values, 1)}};
  }
  return summary;
}

void printRow(const std::string& name, const Event& row) {
  const auto cell = [&row](const char* key, int decimals) {
    char text[64] = "-";
    if (row.contains(key)) {
      const auto& value = row[key];
      std::snprintf(text, sizeof text, "%.*f (%.*f-%.*f)", decimals, value["median"].get<double>(),
                    decimals, value["low"].get<double>(), decimals, value["high"].get<double>());
    }
    return std::string(text);
  };
  const auto ssim = [&row](const char* key) {
    return row.contains(key) ? std::to_string(row[key].get<double>()).substr(0, 6) : "-";
  };
  std::printf("%-24s %-18s %-18s %-20s %-14s %8.2f %8.2f  %-6s  %s\n", name.c_str(),
              cell("cpu_ms", 1).c_str(), cell("full_cpu_ms", 1).c_str(), cell("fps", 1).c_str(),
              cell("peak_mb", 0).c_str(), row["take_bytes"]["median"].get<double>() / 1e6,
              row["preview_bytes"]["median"].get<double>() / 1e6, ssim("ssim_take").c_str(),
              ssim("ssim_preview").c_str());
  std::fflush(stdout);
}

Event comparePreset(std::vector<Contender> contenders, CameraClip& clip, int rounds) {
  for (int round = 0; round < rounds; ++round) {
    for (Contender& contender : contenders) contender.rounds.push_back(contender.run());
  }
  Event rows = Event::object();
  for (const Contender& contender : contenders) {
    Event row = summarise(contender.rounds);
    const Run& last = contender.rounds.back();
    if (!last.inTake.empty()) {
      row["ssim_take"] = measureSSIM(contender.outputs.take, clip, last.inTake, camera);
    }
    if (!last.inPreview.empty()) {
      row["ssim_preview"] =
          measureSSIM(contender.outputs.preview, clip, last.inPreview, previewSize);
    }
    printRow(contender.name, row);
    rows[contender.name] = row;
  }
  return rows;
}

Event compare(const std::string& helper, int rounds) {
  const auto scratch = std::filesystem::temp_directory_path() / "lumora-compare";
  std::filesystem::create_directories(scratch);
  CameraClip clip(camera, clipFrames);
  const ReadyClip ready{readyPictures(clip, previewSize.width, previewSize.height),
                        readyPictures(clip, camera.width, camera.height)};
  Event report = {{"frames", frames}, {"rounds", rounds}};
  for (const std::string preset : {"superfast", "ultrafast", ""}) {
    const std::string title = preset.empty() ? "as shipped" : preset;
    std::printf("\n%-24s %-18s %-18s %-20s %-14s %8s %8s  %-6s  %s\n", title.c_str(),
                "cpu ms/frame", "at full speed", "frames/s", "peak MB", "take MB", "prev. MB",
                "SSIM", "preview");
    report["presets"][title] =
        comparePreset(makeContenders(helper, preset, clip, ready, scratch), clip, rounds);
  }
  std::printf("\n60 seconds at 60 frames a second, as shipped\n");
  for (const char* take : {"none", "1080x720", "1920x1080"}) {
    for (const auto transport : {client::FrameTransport::pipe, client::FrameTransport::memory}) {
      const PacedLoad load{
          .helper = helper, .seconds = longSeconds, .take = take, .frames = transport};
      print(load, camera, runPacedLoad(load, clip));
    }
  }
  std::filesystem::remove_all(scratch);
  return report;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3 && argc != 4) {
    std::fprintf(stderr, "usage: %s HELPER FOLDER [ROUNDS]\n", argv[0]);
    return 2;
  }
  try {
    const Event report = compare(argv[1], argc > 3 ? std::atoi(argv[3]) : 5);
    std::ofstream(std::filesystem::path(argv[2]) / "bench.json") << report.dump(2) << "\n";
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
  }
}
