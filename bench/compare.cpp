// Compares the helper with common tools for its job. Also compares it with the encoders alone,
// which show the least that the job can cost. All run in turn, and get the same pictures, encoder,
// presets, rates and threads.
//
//   lumora-compare HELPER FOLDER [ROUNDS]
//
// Leaves all figures in FOLDER/bench.json. The last preview and take of each program that makes
// files are in FOLDER, too.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "bench/paced_load.h"
#include "bench/pipeline.h"
#include "bench/progress.h"
#include "bench/runs.h"
#include "tools/machine.h"
#include "tools/parse_number.h"

namespace {

using namespace lumora;
using namespace lumora::bench;
using Json = nlohmann::json;

constexpr int rates[] = {30, 60};     // frames a second
constexpr double overhead = 2;        // seconds of a run beyond the time of its frames
constexpr double judgingSeconds = 8;  // for the files of a contender
constexpr double steadySeconds = 20;  // of each steady run (see `Steady`), times ROUNDS
const Job jobs[] = {{camera, "superfast"}, {camera, "ultrafast"}, {camera, ""}, {defaultTake, ""}};

struct Column {
  const char* title;
  const char* figure;
  int decimals;
};
constexpr Column columns[] = {
    {"cpu ms/frame", "cpu_ms", 1},      {"parent cpu", "parent_cpu_ms", 1},
    {"frames/s", "frames_a_second", 1}, {"latency p50", "latency_p50_ms", 1},
    {"p99", "latency_p99_ms", 1},       {"peak MB", "peak_mb", 0},
    {"take MB", "take_mb", 2},          {"preview MB", "preview_mb", 2},
    {"take SSIM", "take_ssim", 4},      {"preview SSIM", "preview_ssim", 4}};

std::string text(client::FrameSize size) {
  return std::to_string(size.width) + "x" + std::to_string(size.height);
}
std::string nameOf(const std::string& preset) { return preset.empty() ? "as shipped" : preset; }

struct Contender {
  std::string name;
  CameraClip& clip;  // the frames it gets
  std::function<Run(int rate)> run;
  Outputs outputs = {};  // empty: none
  std::vector<Run> rounds = {};
};

void addHelper(std::vector<Contender>& made, const Job& job, const std::string& helper,
               CameraClip& clip, client::FrameTransport transport, const Outputs& files) {
  tools::RunOptions load{.helper = {.program = helper, .frames = transport},
                         .clients = 1,
                         .take = takeOf(text(job.take), 60, files.take),
                         .previewPath = files.preview};
  if (!job.preset.empty())
    load.helper.environment = {{"TAVO_H264_ENCODER", "software:" + job.preset}};
  const bool shares = transport == client::FrameTransport::memory;
  made.push_back({shares ? "helper-memory" : "helper-pipe", clip,
                  [load, &clip](int rate) { return runHelper(load, clip, rate); }, files});
}

std::vector<Contender> contendersFor(const Job& job, const std::string& helper, Clips& clips,
                                     const std::filesystem::path& folder) {
  const auto outputs = [&folder](const std::string& name, const CameraClip& clip) {
    const std::string file = name + "-" + clip.formatName();
    return Outputs{folder / (file + ".h264"), folder / (file + ".mp4")};
  };
  std::vector<Contender> made;
  made.push_back({"encoders-alone", clips.nv12,
                  [&clips, job](int rate) { return runEncoders(clips, job, rate); }});
  for (CameraClip* clip : {&clips.rgba, &clips.nv12}) {
    made.push_back({"encoders-and-pipe", *clip, [&clips, job, clip](int rate) {
                      return runEncodersAndPipe(clips, job, rate, *clip);
                    }});
    addHelper(made, job, helper, *clip, client::FrameTransport::memory,
              outputs("helper-memory", *clip));
    addHelper(made, job, helper, *clip, client::FrameTransport::pipe,
              outputs("helper-pipe", *clip));
  }
  if (job.preset.empty()) return made;  // the other tools lack the helper's own settings
  const auto addPeer = [&](const char* name, CameraClip& clip, auto& command) {
    const Outputs files = outputs(name, clip);
    made.push_back({name, clip,
                    [&clip, files, line = command(clip, job.preset, files)](int rate) {
                      return runContender(line, clip, files, rate);
                    },
                    files});
  };
  for (CameraClip* clip : {&clips.rgba, &clips.nv12}) {
    addPeer("ffmpeg", *clip, ffmpegCommand);
    addPeer("gstreamer", *clip, gstreamerCommand);
  }
  addPeer("ffmpeg-one-conversion", clips.rgba, ffmpegOnceCommand);
  return made;
}

// One job at one rate.
struct Table {
  const Job& job;
  int rate;
  std::vector<Contender> contenders;

  bool hasSSIM() const { return rate == rates[0]; }
  double runSeconds() const { return static_cast<double>(frames) / rate + overhead; }
  double seconds(int rounds) const {
    const double judging = hasSSIM() ? judgingSeconds : 0;
    return static_cast<double>(contenders.size()) * (rounds * runSeconds() + judging);
  }
  std::string title() const {
    return text(job.take) + ", " + nameOf(job.preset) + ", " + std::to_string(rate) + " a second";
  }
};

// Measures how much the files of the last round resemble the clip, and adds the result to the
// figures of that round.
void judge(Contender& contender, client::FrameSize take) {
  Run& last = contender.rounds.back();
  const auto ssim = [&](const std::string& path, const std::vector<std::uint64_t>& numbers,
                        client::FrameSize size) {
    return numbers.empty() ? Json() : Json(measureSSIM(path, contender.clip, numbers, size));
  };
  last.figures["take_ssim"] = ssim(contender.outputs.take, last.inTake, take);
  last.figures["preview_ssim"] = ssim(contender.outputs.preview, last.inPreview, previewSize);
}

void run(Table& table, int rounds, Progress& progress) {
  for (int round = 1; round <= rounds; ++round) {
    for (Contender& contender : table.contenders) {
      progress.begin(table.title() + ", round " + std::to_string(round) + ": " + contender.name +
                         " " + contender.clip.formatName(),
                     table.runSeconds());
      contender.rounds.push_back(contender.run(table.rate));
    }
  }
  if (!table.hasSSIM()) return;
  for (Contender& contender : table.contenders) {
    progress.begin("SSIM of " + contender.name, judgingSeconds);
    judge(contender, table.job.take);
  }
}

// Prints the median and the range of each figure over the rounds.
void printRow(const Contender& contender) {
  std::printf("%-26s", (contender.name + " " + contender.clip.formatName()).c_str());
  for (const Column& column : columns) {
    std::vector<double> values;
    for (const Run& run : contender.rounds) {
      const Json value = run.figures.value(column.figure, Json());
      if (value.is_number()) values.push_back(value);
    }
    char cell[64] = "-";
    if (!values.empty()) {
      std::snprintf(cell, sizeof cell, "%.*f (%.*f-%.*f)", column.decimals,
                    tools::percentile(values, 0.5), column.decimals, tools::percentile(values, 0),
                    column.decimals, tools::percentile(values, 1));
    }
    std::printf(" %-22s", cell);
  }
  std::printf("\n");
}

void print(const Table& table) {
  Progress::clear();
  std::printf("\n%s\n%-26s", table.title().c_str(), "");
  for (const Column& column : columns) std::printf(" %-22s", column.title);
  std::printf("\n");
  for (const Contender& contender : table.contenders) printRow(contender);
  std::fflush(stdout);
}

Json runsOf(const Table& table) {
  Json runs = Json::array();
  for (const Contender& contender : table.contenders) {
    for (const Run& run : contender.rounds) {
      runs.push_back({{"take", text(table.job.take)},
                      {"preset", nameOf(table.job.preset)},
                      {"rate", table.rate},
                      {"contender", contender.name},
                      {"format", contender.clip.formatName()}});
      runs.back().update(run.figures);
    }
  }
  return runs;
}

// One long run of the helper with two clients, at 60 frames a second.
struct Steady {
  std::string take;
  CameraClip& clip;

  Json run(const std::string& helper, const std::string& movie, double seconds) const {
    const tools::RunOptions load{.helper = {.program = helper, .frames = tools::frameTransport()},
                                 .seconds = seconds,
                                 .take = takeOf(take, 60, movie)};
    const tools::RunReport report = runLoad(load, clip);
    Progress::clear();
    bench::print(load, clip, report);
    Json figures = figuresOf(load, report);
    figures.update({{"take", take}, {"format", clip.formatName()}, {"seconds", seconds}});
    return figures;
  }
};

void compare(const std::string& helper, const std::filesystem::path& folder, int rounds) {
  std::filesystem::create_directories(folder);
  std::fprintf(stderr, "Making the clips ...");
  Clips clips;
  std::vector<Table> tables;
  for (const Job& job : jobs) {
    for (const int rate : rates)
      tables.push_back({job, rate, contendersFor(job, helper, clips, folder)});
  }
  std::vector<Steady> steady;
  for (const std::string take : {"none", "1080x720", "1920x1080"}) {
    for (CameraClip* clip : {&clips.rgba, &clips.nv12}) steady.push_back({take, *clip});
  }
  const double steadyLength = steadySeconds * rounds;
  double planned = static_cast<double>(steady.size()) * (steadyLength + overhead);
  for (const Table& table : tables) planned += table.seconds(rounds);

  Progress progress(planned);
  Json machine = tools::describeMachine();
  machine["commit"] =
      tools::firstLineOf("git describe --always --dirty 2>/dev/null || echo unknown");
  machine["libavcodec"] = tools::firstLineOf("pkg-config --modversion libavcodec");
  Json results = {{"machine", machine}, {"runs", Json::array()}, {"steady", Json::array()}};
  const auto save = [&] {  // after each part, since the next may fail
    std::ofstream file(folder / "bench.json");
    file << results.dump() << '\n' << std::flush;
    if (!file) throw std::runtime_error("bench.json can't be written");
  };
  for (Table& table : tables) {
    run(table, rounds, progress);
    print(table);
    for (Json& each : runsOf(table)) results["runs"].push_back(std::move(each));
    save();
  }
  for (const Steady& each : steady) {
    progress.begin("steady, take " + each.take + ", " + each.clip.formatName(),
                   steadyLength + overhead);
    results["steady"].push_back(each.run(helper, folder / "steady.mp4", steadyLength));
    save();
  }
}

}  // namespace

int main(int argc, char** argv) {
  int rounds = 3;
  const bool isNumber = argc != 4 || (tools::parseNumber(argv[3], rounds) && rounds > 0);
  if ((argc != 3 && argc != 4) || !isNumber) {
    std::fprintf(stderr, "usage: %s HELPER FOLDER [ROUNDS]\n", argv[0]);
    return 2;
  }
  try {
    compare(argv[1], std::filesystem::absolute(argv[2]), rounds);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "\n%s\n", error.what());
    return 1;
  }
}
