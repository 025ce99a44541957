// The demo: starts a helper, feeds it a test card that flashes and beeps, watches the preview with
// two clients, records a take with sound, and prints a table of measurements.
//
//   lumora-demo [--json] HELPER OUTPUT-FOLDER [SECONDS]
//
// With --json, standard output is one JSON object with the same measurements.
//
// The environment variable INPUT may name a video file or a camera; the take then has no sound.
// FRAMES says how frames reach the helper: "memory" or "pipe".

#include <cstdio>
#include <exception>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "tools/paced_run.h"
#include "tools/parse_number.h"
#include "tools/programs.h"
#include "tools/sound_source.h"

namespace {

using namespace lumora;

constexpr client::FrameSize pictureSize{1920, 1080};
constexpr int framesPerSecond = 60;
constexpr int clients = 2;

void showProgress(const tools::RunReport& report) {
  std::printf("\rfed %5llu  received %5zu  recorded %5llu  latency %4.1f ms ",
              static_cast<unsigned long long>(report.fed), report.deliveries.size(),
              static_cast<unsigned long long>(report.take.frames),
              report.deliveries.empty() ? 0 : report.deliveries.back().milliseconds);
  std::fflush(stdout);
}

const char* wordOf(client::FrameTransport transport) {
  return transport == client::FrameTransport::memory ? "memory" : "pipe";
}

struct Figure {
  const char* key;   // in JSON
  const char* name;  // for people
  double value;
  const char* unit = "";
};

std::vector<Figure> figuresOf(const tools::RunReport& report) {
  const auto count = [](auto number) { return static_cast<double>(number); };
  const double bits = count(report.bytes) * 8;
  return {{"ready_ms", "start of the helper to \"ready\"", report.readyMilliseconds, "ms"},
          {"fed", "frames fed", count(report.fed)},
          {"fed_per_second", "  per second", count(report.fed) / report.fedSeconds},
          {"left_out", "frames left out by the library", count(report.frames.dropped)},
          {"dropped", "frames dropped by the helper", count(report.stats.droppedFrames)},
          {"received", "frames received, both clients", count(report.deliveries.size())},
          {"delivery_drops", "frames dropped in delivery",
           count(report.stats.delivery ? report.stats.delivery->drops() : 0)},
          {"latency_median_ms", "latency, median", report.latency(0.5), "ms"},
          {"latency_p99_ms", "latency, 99th percentile", report.latency(0.99), "ms"},
          {"preview_mbit_per_second", "preview bit rate", bits / 1e6 / report.fedSeconds / clients,
           "Mbit/s"}};
}

const char* stateOf(const client::Recording& take) {
  return take.state == client::TakeState::saved ? "saved" : "failed";
}

void showTable(const tools::RunReport& report) {
  std::printf("\n\n");
  for (const auto& [key, name, value, unit] : figuresOf(report))
    std::printf("  %-34s %10.1f %s\n", name, value, unit);
  std::printf("  take %s: %s, %.3f s, %llu frames, %llu dropped, %llu throttled %s\n",
              stateOf(report.take), report.take.path.c_str(), report.take.duration.count(),
              static_cast<unsigned long long>(report.take.frames),
              static_cast<unsigned long long>(report.take.dropped),
              static_cast<unsigned long long>(report.take.throttled), report.take.error.c_str());
  if (report.take.soundMissing) {
    std::printf("  its sound: %.3f s missing, %llu gaps\n", report.take.soundMissing->count(),
                static_cast<unsigned long long>(report.take.soundGaps.value_or(0)));
  }
}

void showJson(const tools::RunReport& report) {
  nlohmann::json object = {{"transport", wordOf(report.transport)},
                           {"take",
                            {{"state", stateOf(report.take)},
                             {"path", report.take.path.string()},
                             {"duration", report.take.duration.count()},
                             {"frames", report.take.frames},
                             {"dropped", report.take.dropped},
                             {"throttled", report.take.throttled},
                             {"error", report.take.error}}}};
  if (report.take.soundMissing) {
    object["take"]["sound_missing"] = report.take.soundMissing->count();
    object["take"]["sound_gaps"] = report.take.soundGaps.value_or(0);
  }
  for (const Figure& figure : figuresOf(report)) object[figure.key] = figure.value;
  std::printf("%s\n",
              object.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
}

// ffmpeg applies `filter` to `video`. The first resulting picture goes to the file `picture`.
void makePicture(const std::string& video, const std::string& filter, const std::string& picture) {
  const std::string errors = tools::outputOf(
      "ffmpeg -v error -y -nostdin -i " + tools::shellQuoted(video) + " -vf " +
      tools::shellQuoted(filter) + " -frames:v 1 -update 1 " + tools::shellQuoted(picture));
  if (!errors.empty()) throw std::runtime_error(video + ": " + errors);
  if (!std::filesystem::exists(picture)) throw std::runtime_error(video + " lacks pictures");
}

void checkSound(const std::string& movie) {
  const std::string codec = tools::outputOf(
      "ffprobe -v error -select_streams a -show_entries stream=codec_name -of csv=p=0 " +
      tools::shellQuoted(movie));
  if (codec != "aac\n") throw std::runtime_error("there is no sound in the take");
}

void addBeeps(tools::RunOptions& options, const tools::FrameSource& source) {
  options.helper.sound = tools::soundFormat;
  options.writeSound = [&source, beeps = tools::Beeps()](client::Helper& helper,
                                                         client::Uptime::time_point capturedAt,
                                                         std::uint64_t frame) mutable {
    beeps.write(helper, capturedAt, source.flashes(frame));
  };
}

void run(const std::string& helper, const std::filesystem::path& folder, double seconds,
         bool asJson) {
  std::filesystem::create_directories(folder);
  for (const char* old : {"preview.h264", "preview.png", "take.png"})
    std::filesystem::remove(folder / old);
  const std::string preview = folder / "preview.h264";
  const std::string previewPicture = folder / "preview.png";
  const std::string movie = std::filesystem::absolute(folder / "demo.mp4");
  const std::string sheet = folder / "take.png";
  std::filesystem::remove(movie);  // the last run's take: the helper never overwrites a file
  const auto source = tools::openInput(pictureSize, framesPerSecond);
  const bool hasSound = source->canFlash();
  tools::RunOptions options{.helper = {.program = helper, .frames = tools::frameTransport()},
                            .framesPerSecond = framesPerSecond,
                            .seconds = seconds,
                            .clients = clients,
                            .take = client::TakeOptions{.path = movie, .sound = hasSound},
                            .previewPath = preview};
  if (hasSound) addBeeps(options, *source);
  if (!asJson)
    std::printf("Feeding 1920x1080 at %d frames a second for %.0f s\n", framesPerSecond, seconds);
  const tools::RunReport report =
      tools::runPaced(options, *source, asJson ? tools::Progress() : showProgress);
  asJson ? showJson(report) : showTable(report);
  if (!report.exit.isClean())
    throw std::runtime_error("the helper ended with " + toText(report.exit) + ": " + report.error);
  if (report.take.state != client::TakeState::saved) throw std::runtime_error("there is no take");

  const auto middle = std::to_string(report.deliveries.size() / clients / 2);
  makePicture(preview, "select=gte(n\\," + middle + ")", previewPicture);
  // Twelve pictures of the take on one sheet.
  const auto rate = std::to_string(12 / report.take.duration.count());
  makePicture(movie, "fps=" + rate + ",scale=360:-2,tile=4x3", sheet);
  if (hasSound) checkSound(movie);
  if (asJson) return;
  std::printf("\n  frames reached the helper by %s\n  %s, %s, %s and %s written\n",
              wordOf(report.transport), preview.c_str(), previewPicture.c_str(), movie.c_str(),
              sheet.c_str());
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> arguments(argv + 1, argv + argc);
  const bool asJson = std::erase(arguments, "--json") > 0;
  double seconds = 10;
  const bool isNumber = arguments.size() < 3 || tools::parseNumber(arguments[2], seconds);
  if (arguments.size() < 2 || arguments.size() > 3 || arguments[0].starts_with("--") || !isNumber ||
      !(seconds * framesPerSecond >= 1 && seconds <= 86400)) {
    std::fprintf(stderr, "usage: %s [--json] HELPER OUTPUT-FOLDER [SECONDS]\n", argv[0]);
    return 2;
  }
  try {
    run(arguments[0], arguments[1], seconds, asJson);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "\n%s\n", error.what());
    return 1;
  }
}
