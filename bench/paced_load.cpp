#include "bench/paced_load.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string_view>

#include "base/process_heap.h"

namespace lumora::bench {
namespace {

using Count = unsigned long long;

// The host of a virtual machine may take away memory that has been free for some seconds. When the
// machine uses it again, getting it back from the host takes forty times as long as getting memory
// from the machine's own kernel. So a run may lose frames at its start because of the host, and not
// because of the helper. If MEMORY=settled, this function gets the memory back before the run.
void settleMemory() {
  const char* value = std::getenv("MEMORY");  // NOLINT(concurrency-mt-unsafe): no code sets it
  const std::string_view wish = value == nullptr ? "" : value;
  if (wish.empty()) return;
  if (wish != "settled") throw std::runtime_error("MEMORY may only be \"settled\"");
  touchMemoryAhead(std::size_t{256} << 20, {});
  trimHeap();
  std::puts("memory was settled:");
}

}  // namespace

std::optional<client::TakeOptions> takeOf(const std::string& profile, int targetFPS,
                                          const std::string& path) {
  if (profile == "none") return std::nullopt;
  const auto size = client::parseTakeSize(profile);
  if (!size) throw std::runtime_error("no take has the size " + profile);
  return client::TakeOptions{.path = path, .profile = {*size, client::TakeRate{targetFPS}}};
}

tools::RunReport runLoad(const tools::RunOptions& load, tools::FrameSource& source) {
  settleMemory();
  if (load.take) std::filesystem::remove(load.take->path);
  tools::RunReport report = tools::runPaced(load, source);
  if (!report.exit.isClean()) throw std::runtime_error("the helper failed: " + report.error);
  if (load.take && report.take.state != client::TakeState::saved)
    throw std::runtime_error("the take failed: " + report.take.error);
  return report;
}

Delivered delivered(const tools::RunOptions& load, const tools::RunReport& report) {
  if (load.clients == 0) return {};
  const auto clients = static_cast<std::uint64_t>(load.clients);
  const auto firstSecond = std::min(static_cast<std::uint64_t>(load.framesPerSecond), report.fed);
  const auto early = static_cast<std::uint64_t>(std::ranges::count_if(
      report.deliveries, [&](const auto& each) { return each.frame <= firstSecond; }));
  return {report.deliveries.size() / clients, firstSecond - early / clients};
}

void print(const tools::RunOptions& load, const tools::FrameSource& source,
           const tools::RunReport& report) {
  const auto [width, height] = source.size();
  const auto [frames, lostAtStart] = delivered(load, report);
  const auto& late = report.lateness;
  const auto fed = static_cast<double>(report.fed);
  const auto withheld = report.stats.delivery.value_or(client::Stats::Delivery{});
  const Count toRecord = load.take ? report.fed - std::min(report.fed, load.framesBeforeTake) : 0;
  std::printf(
      "%4dx%-4d %-10s %2d fps  %-6s  %d clients  take %-9s  fed %5llu  delivered %5llu  "
      "recorded %5llu of %5llu  left out %llu  dropped %llu  withheld %llu  throttled %llu  "
      "not delivered in the first second %llu  ",
      width, height, source.format().text().c_str(), load.framesPerSecond,
      report.transport == client::FrameTransport::memory ? "memory" : "pipe", load.clients,
      load.take ? toText(load.take->profile.size).c_str() : "none", Count{report.fed},
      Count{frames}, Count{report.take.frames}, toRecord, Count{report.frames.dropped},
      Count{report.stats.droppedFrames}, Count{withheld.drops()}, Count{report.take.throttled},
      Count{lostAtStart});
  std::printf(
      "latency p50 %5.2f p95 %5.2f p99 %5.2f ms  feeder late p99 %.2f max %.2f ms  "
      "cpu %5.2f ms/frame, parent %5.2f  peak %.0f MB  ready %.0f ms\n",
      report.latency(0.5), report.latency(0.95), report.latency(0.99),
      tools::percentile(late, 0.99), tools::percentile(late, 1),
      report.exit.cpuTime.count() * 1000 / fed, report.parentCPUSeconds * 1000 / fed,
      report.peakMegabytes, report.readyMilliseconds);
  std::fflush(stdout);
}

}  // namespace lumora::bench
