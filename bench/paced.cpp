// The helper under a steady load, as a camera application makes it: what it drops, how late its
// preview is, what it costs. One line per configuration.
//
//   lumora-paced HELPER SECONDS [WIDTHxHEIGHT FPS CLIENTS TAKE]     TAKE: none or a profile's name

#include <sys/resource.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "tools/paced_run.h"
#include "tools/test_card.h"

namespace {

using namespace lumora;

struct Load {
  client::FrameSize size;
  int framesPerSecond;
  int clients;
  std::string take;
};

double processorSeconds(const rusage& usage) {
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

void measure(const std::string& helper, double seconds, const Load& load) {
  const std::filesystem::path movie = std::filesystem::temp_directory_path() / "lumora-paced.mp4";
  std::filesystem::remove(movie);
  tools::RunOptions options;
  options.launch = {helper, client::makeToken(), {}, {}};
  options.framesPerSecond = load.framesPerSecond;
  options.seconds = seconds;
  options.clients = load.clients;
  if (load.take != "none") options.take = {movie, load.take, load.framesPerSecond};
  tools::TestCard card(load.size);
  rusage before{};
  rusage after{};
  getrusage(RUSAGE_CHILDREN, &before);
  const tools::RunReport report = tools::runPaced(options, card, {});
  getrusage(RUSAGE_CHILDREN, &after);
  const double cost = processorSeconds(after) - processorSeconds(before);
  const auto& stats = report.last.statistics;
  const auto count = [&stats](const char* key) { return stats.value(key, 0LL); };
  std::printf(
      "%4dx%-4d %2d fps  %d clients  take %-9s  fed %5llu  received %5llu  dropped %lld raw "
      "%lld credit %lld send  latency p50 %5.2f p95 %5.2f p99 %5.2f ms  cpu %5.2f ms/frame  "
      "page faults %.1f/frame  peak %ld MB  ready %.0f ms\n",
      load.size.width, load.size.height, load.framesPerSecond, load.clients, load.take.c_str(),
      static_cast<unsigned long long>(report.last.fed),
      static_cast<unsigned long long>(report.last.received),
      count("dropped_raw") - static_cast<long long>(report.droppedBeforeFeeding),
      count("credit_drops"), count("send_drops"), tools::percentile(report.latencies, 0.5),
      tools::percentile(report.latencies, 0.95), tools::percentile(report.latencies, 0.99),
      cost * 1000 / static_cast<double>(report.last.fed),
      static_cast<double>(after.ru_minflt - before.ru_minflt) /
          static_cast<double>(report.last.fed),
      after.ru_maxrss / 1024, report.readyMilliseconds);
  std::fflush(stdout);
  std::filesystem::remove(movie);
}

// How the cost grows with size, rate, recording and clients.
void measureTable(const std::string& helper, double seconds) {
  for (const client::FrameSize size : {client::FrameSize{640, 360}, {1280, 720}, {1920, 1080}}) {
    for (const int rate : {15, 30, 60}) {
      for (const char* take : {"none", "1080x720"}) {
        for (const int clients : {0, 1, 2}) measure(helper, seconds, {size, rate, clients, take});
      }
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3 && argc != 7) {
    std::fprintf(stderr, "usage: %s HELPER SECONDS [WIDTHxHEIGHT FPS CLIENTS TAKE]\n", argv[0]);
    return 2;
  }
  try {
    const double seconds = std::strtod(argv[2], nullptr);
    if (argc == 3) {
      measureTable(argv[1], seconds);
      return 0;
    }
    Load load{{}, std::atoi(argv[4]), std::atoi(argv[5]), argv[6]};
    if (std::sscanf(argv[3], "%dx%d", &load.size.width, &load.size.height) != 2) return 2;
    measure(argv[1], seconds, load);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
  }
}
