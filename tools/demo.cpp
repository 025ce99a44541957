// The demo parent: starts a helper, feeds it a moving picture, watches the preview with two
// clients, records a take, and prints how it went.
//
//   lumora-demo HELPER OUTPUT-FOLDER [SECONDS]
//
// The environment variable INPUT may name a video file or a camera. FRAMES says how frames reach
// the helper: "memory" or "pipe".

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>

#include "tools/paced_run.h"
#include "tools/programs.h"

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

void showTable(const tools::RunReport& report) {
  const auto row = [](const char* name, auto value, const char* unit = "") {
    std::printf("  %-34s %10.1f %s\n", name, static_cast<double>(value), unit);
  };
  std::printf("\n\n");
  row("start of the helper to \"ready\"", report.readyMilliseconds, "ms");
  row("frames fed", report.fed);
  row("  per second", static_cast<double>(report.fed) / report.fedSeconds);
  row("frames left out by the library", report.frames.dropped);
  row("frames dropped by the helper", report.stats.droppedFrames);
  row("frames received, both clients", report.deliveries.size());
  row("frames dropped in delivery", report.stats.delivery ? report.stats.delivery->drops() : 0);
  row("latency, median", report.latency(0.5), "ms");
  row("latency, 99th percentile", report.latency(0.99), "ms");
  row("preview bit rate", static_cast<double>(report.bytes) * 8 / 1e6 / report.fedSeconds / clients,
      "Mbit/s");
  std::printf("  take %s: %s, %.3f s, %llu frames, %llu dropped, %llu throttled %s\n",
              report.take.state == client::TakeState::saved ? "saved" : "failed",
              report.take.path.c_str(), report.take.duration,
              static_cast<unsigned long long>(report.take.frames),
              static_cast<unsigned long long>(report.take.dropped),
              static_cast<unsigned long long>(report.take.throttled), report.take.error.c_str());
}

// Writes one picture of a video. `filter` is that of ffmpeg.
void makePicture(const std::string& video, const std::string& filter, const std::string& picture) {
  const std::string errors = tools::outputOf(
      "ffmpeg -v error -y -nostdin -i " + tools::shellQuoted(video) + " -vf " +
      tools::shellQuoted(filter) + " -frames:v 1 -update 1 " + tools::shellQuoted(picture));
  if (!errors.empty()) throw std::runtime_error(video + ": " + errors);
}

void run(const std::string& helper, const std::filesystem::path& folder, double seconds) {
  std::filesystem::create_directories(folder);
  const std::string preview = folder / "preview.h264";
  const std::string previewPicture = folder / "preview.png";
  const std::string movie = std::filesystem::absolute(folder / "demo.mp4");
  const std::string sheet = folder / "take.png";
  std::filesystem::remove(movie);  // of the last run: the helper never overwrites a file
  const tools::RunOptions options{.helper = {.program = helper, .frames = tools::frameTransport()},
                                  .framesPerSecond = framesPerSecond,
                                  .seconds = seconds,
                                  .clients = clients,
                                  .take = client::TakeOptions{.path = movie,
                                                              .resolution = "1080x720",
                                                              .targetFPS = framesPerSecond},
                                  .previewPath = preview};
  const auto source = tools::openInput(pictureSize, framesPerSecond);
  std::printf("Feeding 1920x1080 at %d frames a second for %.0f s\n", framesPerSecond, seconds);
  const tools::RunReport report = tools::runPaced(options, *source, showProgress);
  showTable(report);
  if (!report.exit.isClean()) throw std::runtime_error("the helper failed: " + report.error);
  if (report.take.state != client::TakeState::saved) throw std::runtime_error("there is no take");

  const auto middle = std::to_string(report.deliveries.size() / clients / 2);
  makePicture(preview, "select=gte(n\\," + middle + ")", previewPicture);
  const auto rate = std::to_string(12 / seconds);  // twelve pictures of the take on one sheet
  makePicture(movie, "fps=" + rate + ",scale=360:-2,tile=4x3", sheet);
  std::printf("\n  frames went through %s\n  %s, %s, %s and %s written\n",
              report.transport == client::FrameTransport::memory ? "shared memory" : "the pipe",
              preview.c_str(), previewPicture.c_str(), movie.c_str(), sheet.c_str());
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: %s HELPER OUTPUT-FOLDER [SECONDS]\n", argv[0]);
    return 2;
  }
  try {
    run(argv[1], argv[2], argc > 3 ? std::strtod(argv[3], nullptr) : 10);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "\n%s\n", error.what());
    return 1;
  }
}
