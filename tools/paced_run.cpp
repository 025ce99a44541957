#include "tools/paced_run.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <fstream>
#include <mutex>
#include <stdexcept>
#include <thread>

#include <lumora/stream_client.h>
#include <lumora/uptime.h>
#include "tools/resource_use.h"

namespace lumora::tools {
namespace {

using SteadyClock = std::chrono::steady_clock;

double millisecondsSince(SteadyClock::time_point start) {
  return std::chrono::duration<double, std::milli>(SteadyClock::now() - start).count();
}

// What the threads of a run share.
class Board {
 public:
  // The next frame is about to be written under this id.
  void captured(std::uint64_t id) {
    const std::lock_guard hold(mutex_);
    ids_.push_back(id);
    called_.push_back(SteadyClock::now());
  }

  void wrote() {
    const std::lock_guard hold(mutex_);
    written_.push_back(SteadyClock::now());
    progress_.fed = written_.size();
  }

  void received(std::uint64_t id, std::size_t bytes) {
    const std::lock_guard hold(mutex_);
    ++progress_.received;
    progress_.bytes += bytes;
    const auto at = static_cast<std::size_t>(std::ranges::lower_bound(ids_, id) - ids_.begin());
    // The packet may overtake the writer's own note of the time: then there was no latency.
    progress_.latency = at < written_.size() ? millisecondsSince(written_[at]) : 0;
    deliveries_.push_back({at + 1, progress_.latency, millisecondsSince(called_[at])});
  }

  void reported(const tools::Event& event) {
    const std::lock_guard hold(mutex_);
    if (event.contains("credit_drops")) progress_.statistics = event;
    if (event.value("type", "") == "recording") progress_.take = event;
    if (event.value("type", "") == "error") progress_.error = event.value("message", "");
  }

  RunProgress progress() const {
    const std::lock_guard hold(mutex_);
    return progress_;
  }

  std::vector<Delivery> deliveries() const {
    const std::lock_guard hold(mutex_);
    return deliveries_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::uint64_t> ids_;
  std::vector<SteadyClock::time_point> called_;
  std::vector<SteadyClock::time_point> written_;
  std::vector<Delivery> deliveries_;
  RunProgress progress_;
};

// Until the helper closes the connection.
void watchStream(client::StreamClient& stream, Board& board, std::ostream* copy) {
  stream.watch([&](const client::Packet& packet) {
    if (packet.type == client::Packet::Type::frame)
      board.received(packet.frameID, packet.payload.size());
    if (copy != nullptr) {
      const auto units = toAnnexB(packet);
      copy->write(reinterpret_cast<const char*>(units.data()), std::ssize(units));
    }
  });
}

const char* const takeID = "7D444840-9DC0-11D1-B245-5FFDCE74FAD2";

void startTake(const TakeOptions& take, tools::HelperProcess& helper) {
  if (take.path.empty()) return;
  helper.startTake(takeID, take.path,
                   {{"resolution", take.resolution},
                    {"target_fps", take.targetFPS},
                    {"cadence", "steady"},
                    {"started_at", client::uptime()}});
}

void stopTake(const TakeOptions& take, tools::HelperProcess& helper) {
  if (take.path.empty()) return;
  helper.stopTake(takeID, {{"stopped_at", client::uptime()}});
}

// The times of frames at a steady rate, by their numbers from 1, from its making.
class Pace {
 public:
  explicit Pace(int framesPerSecond) : framesPerSecond_(framesPerSecond) {}

  double secondsAt(std::uint64_t number) const {
    return static_cast<double>(number - 1) / framesPerSecond_;
  }

  // How late that was, in milliseconds.
  double waitFor(std::uint64_t number) const {
    const auto due = start_ + std::chrono::duration_cast<SteadyClock::duration>(
                                  std::chrono::duration<double>(secondsAt(number)));
    std::this_thread::sleep_until(due);
    return millisecondsSince(due);
  }

 private:
  const SteadyClock::time_point start_ = SteadyClock::now();
  const int framesPerSecond_;
};

// How late it woke for each frame, in milliseconds.
std::vector<double> feed(const RunOptions& options, FrameSource& source,
                         tools::HelperProcess& helper, Board& board,
                         const std::function<void(const RunProgress&)>& progress) {
  const Pace pace(options.framesPerSecond);
  const auto count = static_cast<std::uint64_t>(options.seconds * options.framesPerSecond);
  std::vector<double> lateness;
  std::uint64_t number = 1;
  for (; number <= count; ++number) {
    const auto rgba = source.next(number, pace.secondsAt(number));
    if (rgba.empty()) {
      if (number == 1) throw std::runtime_error("the source gave no picture");
      break;
    }
    lateness.push_back(pace.waitFor(number));
    if (number == options.take.framesBefore + 1) startTake(options.take, helper);
    if (options.beforeFrame) options.beforeFrame(helper, number);
    const std::uint64_t id = client::frameID(client::uptime());
    board.captured(id);
    if (!helper.copyFrame(source.size(), id, rgba)) break;
    board.wrote();
    if (progress && number % static_cast<std::uint64_t>(options.framesPerSecond) == 0) {
      progress(board.progress());
    }
  }
  // A take that ends now would leave out the last frame, which the helper is still reading.
  pace.waitFor(number);
  return lateness;
}

}  // namespace

RunReport runPaced(const RunOptions& options, FrameSource& source,
                   const std::function<void(const RunProgress&)>& progress) {
  RunReport report;
  const auto slots = slotsFor(options.frames);
  if (slots) slots->prepare(source.size());  // the camera's own start is not what is measured
  const auto launched = SteadyClock::now();
  tools::HelperProcess helper(options.launch, slots);
  const auto ready = helper.waitForEvent("ready");
  report.readyMilliseconds = millisecondsSince(launched);

  Board board;
  std::ofstream copy;
  if (!options.previewPath.empty()) copy.open(options.previewPath, std::ios::binary);
  std::vector<std::unique_ptr<client::StreamClient>> streams;
  for (int i = 0; i < options.clients; ++i) {
    streams.push_back(std::make_unique<client::StreamClient>("127.0.0.1", ready.at("port")));
    streams.back()->sayHello(options.launch.token);
  }
  const auto admitted = helper.waitForEvent(
      "stats", [&](const Event& event) { return event.at("clients") == options.clients; });
  report.droppedBeforeFeeding = admitted.at("dropped_raw");

  std::vector<std::jthread> watchers;
  for (auto& stream : streams) {
    std::ostream* to = stream == streams.front() && copy.is_open() ? &copy : nullptr;
    watchers.emplace_back([&board, &stream, to] { watchStream(*stream, board, to); });
  }
  std::jthread events([&] {
    while (const auto line = helper.nextLine(60)) {
      const auto event = tools::Event::parse(*line, nullptr, false);
      if (!event.is_discarded()) board.reported(event);
    }
  });

  const auto start = SteadyClock::now();
  const double cpuBefore = ownCPUSeconds();
  try {
    report.lateness = feed(options, source, helper, board, progress);
  } catch (...) {
    helper.closeInput();  // its end is what the threads wait for
    throw;
  }
  stopTake(options.take, helper);
  report.fedSeconds = millisecondsSince(start) / 1000;
  report.parentCPU = ownCPUSeconds() - cpuBefore;
  // One more report, so that the counters cover the last frame.
  std::this_thread::sleep_for(std::chrono::milliseconds(1100));
  report.peakMegabytes = peakMegabytes(helper.pid());
  helper.closeInput();
  const auto exit = helper.wait(10);
  if (!exit) {
    helper.sendSignal(SIGKILL);  // its end is what the threads wait for
    throw std::runtime_error("the helper did not end");
  }
  report.exit = *exit;
  watchers.clear();
  events.join();
  report.last = board.progress();
  report.deliveries = board.deliveries();
  return report;
}

std::vector<double> latencies(const RunReport& report) {
  std::vector<double> values;
  for (const Delivery& delivery : report.deliveries) values.push_back(delivery.milliseconds);
  return values;
}

double percentile(std::vector<double> values, double fraction) {
  if (values.empty()) return 0;
  std::ranges::sort(values);
  const auto at = static_cast<std::size_t>(fraction * static_cast<double>(values.size() - 1));
  return values[at];
}

}  // namespace lumora::tools
