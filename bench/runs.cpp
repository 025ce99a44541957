#include "bench/runs.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <numeric>
#include <stdexcept>

#include "bench/encoders_alone.h"
#include "bench/paced_load.h"
#include "bench/pipeline.h"
#include "encode/session_settings.h"

namespace lumora::bench {
namespace {

double megabytes(std::uintmax_t bytes) { return static_cast<double>(bytes) / 1e6; }

}  // namespace

Run runContender(const std::string& command, CameraClip& clip, const Outputs& outputs, int rate) {
  std::vector<std::uint64_t> numbers(frames);
  std::iota(numbers.begin(), numbers.end(), 1);
  const PipelineReport report = runPipeline(command, clip, numbers, rate);
  return {{{"cpu_ms", report.cpuSeconds * 1000 / frames},
           {"frames_a_second", frames / report.wallSeconds},
           {"peak_mb", report.peakMegabytes},
           {"take_mb", megabytes(std::filesystem::file_size(outputs.take))},
           {"preview_mb", megabytes(std::filesystem::file_size(outputs.preview))}},
          numbers,
          numbers};
}

nlohmann::json figuresOf(const tools::RunOptions& load, const tools::RunReport& report) {
  const auto fed = static_cast<double>(report.fed);
  const auto received = delivered(load, report).frames;
  const auto complete = load.take ? std::min(received, report.take.frames) : received;
  std::vector<double> latencies;  // to hundredths, which keeps bench.json small
  for (const tools::Delivery& delivery : report.deliveries)
    latencies.push_back(std::round(delivery.milliseconds * 100) / 100);
  return {{"cpu_ms", report.exit.cpuTime.count() * 1000 / fed},
          {"parent_cpu_ms", report.parentCPUSeconds * 1000 / fed},
          {"frames_a_second", static_cast<double>(complete) / report.fedSeconds},
          {"fed", report.fed},
          {"delivered", received},
          {"recorded", report.take.frames},
          {"latency_p50_ms", report.latency(0.5)},
          {"latency_p95_ms", report.latency(0.95)},
          {"latency_p99_ms", report.latency(0.99)},
          {"latency_ms", latencies},
          {"peak_mb", report.peakMegabytes}};
}

Run runHelper(tools::RunOptions load, CameraClip& clip, int rate) {
  load.framesPerSecond = rate;
  load.seconds = static_cast<double>(frames) / rate;
  const tools::RunReport report = runLoad(load, clip);
  Run run{figuresOf(load, report)};
  run.figures["take_mb"] = megabytes(std::filesystem::file_size(load.take->path));
  run.figures["preview_mb"] = megabytes(std::filesystem::file_size(load.previewPath));
  for (const tools::Delivery& delivery : report.deliveries) run.inPreview.push_back(delivery.frame);
  // If take and preview have dropped no frame, they have the same frames, except that the take may
  // lack the last one. The helper may read that one after the time of the stop.
  const bool isWhole =
      report.take.dropped == 0 && report.take.throttled == 0 && run.inPreview.size() == report.fed;
  if (isWhole && report.take.frames <= run.inPreview.size()) {
    run.inTake = run.inPreview;
    run.inTake.resize(report.take.frames);
  }
  return run;
}

Run runEncoders(Clips& clips, const Job& job, int rate, const std::function<void()>& besideEach) {
  const auto load = [&](SessionKind kind, CameraClip& pictures) {
    const auto [width, height] = pictures.size();
    return EncoderLoad{sessionSettings(kind, {width, height}, 60), job.preset, pictures};
  };
  CameraClip& take = job.take == camera ? clips.nv12 : clips.smallTake;
  const EncodersReport report =
      encodeAlone({load(SessionKind::preview, clips.preview), load(SessionKind::recording, take)},
                  frames, rate, besideEach);
  return {{{"cpu_ms", report.cpuSeconds * 1000 / frames},
           {"frames_a_second", frames / report.wallSeconds},
           {"take_mb", megabytes(report.streams[1].size())},
           {"preview_mb", megabytes(report.streams[0].size())}}};
}

Run runEncodersAndPipe(Clips& clips, const Job& job, int rate, const CameraClip& clip) {
  tools::CommandSource black("dd if=/dev/zero status=none bs=" + std::to_string(clip.frameBytes()) +
                                 " count=" + std::to_string(frames),
                             camera, clip.format());
  return runEncoders(clips, job, rate, [&] {
    if (black.next(0, 0).empty()) throw std::runtime_error("dd wrote too few frames");
  });
}

}  // namespace lumora::bench
