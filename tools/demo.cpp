// The demo parent: starts the helper, feeds it a moving picture, watches the preview with two
// clients, records a take and tells how it went.
//
//   lumora-demo HELPER OUTPUT-FOLDER [SECONDS]
//
// In the environment INPUT may name a file or camera, and FRAMES how pictures reach the helper:
// "memory" or "pipe".

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <memory>

#include "tools/ffmpeg_source.h"
#include "tools/paced_run.h"
#include "tools/shell.h"

namespace {

using namespace lumora;

constexpr client::FrameSize pictureSize{1920, 1080};
constexpr int framesPerSecond = 60;

std::uint64_t statistic(const tools::RunProgress& progress, const char* key) {
  return progress.statistics.is_object() ? progress.statistics.value(key, std::uint64_t{0}) : 0;
}

std::uint64_t deliveryDrops(const tools::RunProgress& progress) {
  return statistic(progress, "credit_drops") + statistic(progress, "send_drops") +
         statistic(progress, "resync_wait_drops");
}

double megabitsPerSecond(const tools::RunProgress& progress, int clients) {
  if (progress.fed == 0) return 0;
  const double seconds = static_cast<double>(progress.fed) / framesPerSecond;
  return static_cast<double>(progress.bytes) * 8 / 1e6 / seconds / clients;
}

unsigned long long takeFrames(const tools::RunProgress& progress) {
  return progress.take.is_object() ? progress.take.value("frames", 0ULL) : 0;
}

void showProgress(const tools::RunProgress& progress, int clients) {
  std::printf(
      "\rfed %5llu  received %5llu  recorded %5llu  dropped %llu raw, %llu in delivery  "
      "latency %4.1f ms  %4.1f Mbit/s ",
      static_cast<unsigned long long>(progress.fed),
      static_cast<unsigned long long>(progress.received), takeFrames(progress),
      static_cast<unsigned long long>(statistic(progress, "dropped_raw")),
      static_cast<unsigned long long>(deliveryDrops(progress)), progress.latency,
      megabitsPerSecond(progress, clients));
  std::fflush(stdout);
}

void showTable(const tools::RunReport& report, int clients) {
  const auto row = [](const char* name, double value, const char* unit) {
    std::printf("  %-34s %10.1f %s\n", name, value, unit);
  };
  std::printf("\n\n");
  row("exec to \"ready\"", report.readyMilliseconds, "ms");
  row("frames fed", static_cast<double>(report.last.fed), "");
  row("  per second", static_cast<double>(report.last.fed) / report.fedSeconds, "");
  row("frames received, both clients", static_cast<double>(report.last.received), "");
  row("raw frames dropped",
      static_cast<double>(statistic(report.last, "dropped_raw") - report.droppedBeforeFeeding), "");
  row("frames dropped in delivery", static_cast<double>(deliveryDrops(report.last)), "");
  row("latency, median", tools::percentile(latencies(report), 0.5), "ms");
  row("latency, 99th percentile", tools::percentile(latencies(report), 0.99), "ms");
  row("preview bit rate", megabitsPerSecond(report.last, clients), "Mbit/s");
}

void showTake(const tools::Event& take) {
  if (!take.is_object()) return;
  std::printf("  take %s: %s, %dx%d, %.3f s, %llu frames, %llu dropped, %llu throttled %s\n",
              take.value("state", "").c_str(), take.value("path", "").c_str(),
              take.value("width", 0), take.value("height", 0), take.value("duration", 0.0),
              take.value("frames", 0ULL), take.value("dropped", 0ULL),
              take.value("throttled", 0ULL), take.value("error", "").c_str());
}

// Twelve pictures of the take on one sheet.
bool makeContactSheet(const std::string& movie, const std::string& sheet, double seconds) {
  char rate[32];
  std::snprintf(rate, sizeof rate, "%.4f", 12 / seconds);
  const std::string command = "ffmpeg -v error -y -nostdin -i " + tools::shellQuoted(movie) +
                              " -vf fps=" + rate + ",scale=360:-2,tile=4x3 -frames:v 1 -update 1 " +
                              tools::shellQuoted(sheet);
  return std::system(command.c_str()) == 0;  // NOLINT(concurrency-mt-unsafe): threads have ended
}

// The 151st picture of the stream, decoded by ffmpeg.
bool decodePicture(const std::string& stream, const std::string& picture) {
  const std::string command = "ffmpeg -v error -y -nostdin -i " + tools::shellQuoted(stream) +
                              " -vf 'select=gte(n\\,150)' -frames:v 1 -update 1 " +
                              tools::shellQuoted(picture);
  return std::system(command.c_str()) == 0;  // NOLINT(concurrency-mt-unsafe): threads have ended
}

int run(const std::string& helper, const std::filesystem::path& folder, double seconds) {
  std::filesystem::create_directories(folder);
  tools::RunOptions options;
  options.launch = {helper, client::makeToken(), {}, {}};
  options.frames = tools::frameTransport();
  options.framesPerSecond = framesPerSecond;
  options.seconds = seconds;
  options.previewPath = folder / "preview.h264";
  const std::string movie = std::filesystem::absolute(folder / "demo.mp4");
  std::filesystem::remove(movie);  // of the last run: the helper never overwrites a file
  options.take = {movie, "1080x720", framesPerSecond};
  const auto source = tools::openInput(pictureSize, framesPerSecond);
  std::printf("Feeding 1920x1080 at %d frames a second for %.0f s through %s to %s\n",
              framesPerSecond, seconds,
              options.frames == client::FrameTransport::memory ? "shared memory" : "its pipe",
              helper.c_str());
  const tools::RunReport report = tools::runPaced(
      options, *source,
      [&](const tools::RunProgress& progress) { showProgress(progress, options.clients); });
  showTable(report, options.clients);
  const std::string picture = folder / "preview.png";
  if (report.exit.code != 0 || report.exit.signal != 0) {
    std::printf("The helper ended with status %d, signal %d: %s\n", report.exit.code,
                report.exit.signal, report.last.error.c_str());
    return 1;
  }
  if (!decodePicture(options.previewPath, picture)) return 1;
  showTake(report.last.take);
  if (report.last.take.value("state", "") != "saved") return 1;
  const std::string sheet = folder / "take.png";
  if (!makeContactSheet(movie, sheet, seconds)) return 1;
  std::printf("\n  %s, %s, %s and %s written\n", options.previewPath.c_str(), picture.c_str(),
              movie.c_str(), sheet.c_str());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: %s HELPER OUTPUT-FOLDER [SECONDS]\n", argv[0]);
    return 2;
  }
  try {
    return run(argv[1], argv[2], argc > 3 ? std::strtod(argv[3], nullptr) : 10);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "\n%s\n", error.what());
    return 1;
  }
}
