#include "bench/paced_load.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string_view>

#include "base/process_heap.h"
#include "tools/resource_use.h"

namespace lumora::bench {
namespace {

// A virtual machine's host may take back what is free. It gives it anew at 2 ms a megabyte, forty
// times what the kernel takes to clear it, unless it was in use within the last seconds: what a run
// loses at its start is that then, not the helper.
void settleMemory() {
  const char* value = std::getenv("MEMORY");  // NOLINT(concurrency-mt-unsafe): nobody sets it
  const std::string_view wish = value == nullptr ? "" : value;
  if (wish.empty()) return;
  if (wish != "settled") throw std::runtime_error("MEMORY may only be settled");
  touchMemoryAhead(std::size_t{256} << 20, {});
  trimHeap();
  std::puts("memory was settled:");
}

}  // namespace

PacedResult runPacedLoad(const PacedLoad& load, tools::FrameSource& source) {
  settleMemory();
  const std::filesystem::path passing =
      std::filesystem::temp_directory_path() / "lumora-paced-load.mp4";
  const std::string movie = load.takePath.empty() ? passing.string() : load.takePath;
  std::filesystem::remove(movie);
  tools::RunOptions options;
  options.launch = {load.helper, client::makeToken(), {}, {}};
  if (!load.preset.empty())
    options.launch.environment = {{"TAVO_H264_ENCODER", "software:" + load.preset}};
  options.frames = load.frames;
  options.framesPerSecond = load.framesPerSecond;
  options.seconds = load.seconds;
  options.clients = load.clients;
  options.previewPath = load.previewPath;
  options.beforeFrame = load.schedule;
  if (load.take != "none") options.take = {movie, load.take, load.targetFPS, load.framesBefore};
  const tools::RunReport report = tools::runPaced(options, source, {});
  std::filesystem::remove(passing);

  const auto count = [](const tools::Event& event, const char* key) {
    return event.is_object() ? event.value(key, std::int64_t{0}) : 0;
  };
  const std::vector<double> latencies = tools::latencies(report);
  std::vector<double> fromCall;
  for (const auto& delivery : report.deliveries) fromCall.push_back(delivery.fromCall);
  const auto& last = report.last;
  const auto fed = static_cast<double>(last.fed);
  const auto firstSecond = std::min(static_cast<std::uint64_t>(load.framesPerSecond), last.fed);
  const auto early = static_cast<std::uint64_t>(std::ranges::count_if(
      report.deliveries, [firstSecond](const auto& each) { return each.frame <= firstSecond; }));
  const auto clients = static_cast<std::uint64_t>(std::max(load.clients, 1));
  return {.fed = last.fed,
          .delivered = last.received / clients,
          .recorded = static_cast<std::uint64_t>(count(last.take, "frames")),
          .lostAtStart = load.clients > 0 ? firstSecond - early / clients : 0,
          .deliveries = report.deliveries,
          .droppedRaw = count(last.statistics, "dropped_raw") -
                        static_cast<std::int64_t>(report.droppedBeforeFeeding),
          .withheld = count(last.statistics, "credit_drops") + count(last.statistics, "send_drops"),
          .takeDropped = count(last.take, "dropped"),
          .takeThrottled = count(last.take, "throttled"),
          .p50 = tools::percentile(latencies, 0.5),
          .p95 = tools::percentile(latencies, 0.95),
          .p99 = tools::percentile(latencies, 0.99),
          .fromCallP50 = tools::percentile(fromCall, 0.5),
          .fromCallP99 = tools::percentile(fromCall, 0.99),
          .feederP99 = tools::percentile(report.lateness, 0.99),
          .feederMaximum = tools::percentile(report.lateness, 1),
          .cpuMilliseconds = tools::cpuSeconds(report.exit.resources) * 1000 / fed,
          .parentMilliseconds = report.parentCPU * 1000 / fed,
          .pageFaults = static_cast<double>(report.exit.resources.ru_minflt) / fed,
          .peakMegabytes = report.peakMegabytes,
          .readyMilliseconds = report.readyMilliseconds,
          .fedSeconds = report.fedSeconds,
          .previewBytes = static_cast<double>(last.bytes / clients)};
}

void print(const PacedLoad& load, client::FrameSize size, const PacedResult& result) {
  const auto toRecord =
      load.take == "none" ? 0 : result.fed - std::min(result.fed, load.framesBefore);
  std::printf(
      "%4dx%-4d %2d fps  %-6s  %d clients  take %-9s  fed %5llu  delivered %5llu  "
      "recorded %5llu of %5llu  dropped %lld raw (%llu at the start) %lld withheld  "
      "throttled %lld  latency p50 %5.2f p95 %5.2f p99 %5.2f ms, "
      "from the call p50 %5.2f p99 %5.2f ms  feeder late p99 %.2f max %.2f ms  "
      "cpu %5.2f ms/frame, parent %5.2f  page faults %.1f/frame  peak %.0f MB  ready %.0f ms\n",
      size.width, size.height, load.framesPerSecond,
      load.frames == client::FrameTransport::memory ? "memory" : "pipe", load.clients,
      load.take.c_str(), static_cast<unsigned long long>(result.fed),
      static_cast<unsigned long long>(result.delivered),
      static_cast<unsigned long long>(result.recorded), static_cast<unsigned long long>(toRecord),
      static_cast<long long>(result.droppedRaw),
      static_cast<unsigned long long>(result.lostAtStart), static_cast<long long>(result.withheld),
      static_cast<long long>(result.takeThrottled), result.p50, result.p95, result.p99,
      result.fromCallP50, result.fromCallP99, result.feederP99, result.feederMaximum,
      result.cpuMilliseconds, result.parentMilliseconds, result.pageFaults, result.peakMegabytes,
      result.readyMilliseconds);
  std::fflush(stdout);
}

}  // namespace lumora::bench
