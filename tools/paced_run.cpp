#include "tools/paced_run.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <fstream>
#include <mutex>
#include <thread>

#include <lumora/stream_client.h>
#include "tools/programs.h"

namespace lumora::tools {
namespace {

using SteadyClock = std::chrono::steady_clock;

double millisecondsSince(SteadyClock::time_point start) {
  return std::chrono::duration<double, std::milli>(SteadyClock::now() - start).count();
}

class Run {
 public:
  Run(const RunOptions& options, FrameSource& source)
      : options_(options),
        source_(source),
        helper_(helperFor(source, options.helper),
                [this](const client::Event& event) { eventCame(event); }) {
    report_.readyMilliseconds = millisecondsSince(launched_);
    report_.transport = helper_.frameTransport();
    if (!options.previewPath.empty()) {
      copy_.open(options.previewPath, std::ios::binary);
      checkCopy();
    }
  }

  void admitClients() {
    for (int i = 0; i < options_.clients; ++i) {
      startWatching(i == 0 && copy_.is_open() ? &copy_ : nullptr);
    }
    std::unique_lock hold(mutex_);
    const auto isDecided = [this] {
      return hasEnded_ || report_.stats.clients >= static_cast<std::uint64_t>(options_.clients);
    };
    if (!changed_.wait_for(hold, std::chrono::seconds(20), isDecided)) {
      throw std::runtime_error("the helper did not admit the clients within 20 seconds");
    }
  }

  void feed(const Progress& progress) {
    const double cpuBefore = ownCPUSeconds();
    begun_ = SteadyClock::now();
    const auto count = static_cast<std::uint64_t>(options_.seconds * options_.framesPerSecond);
    std::uint64_t number = 1;
    for (; number <= count && !helper_.exited(); ++number) {
      const auto picture = source_.next(number, secondsAt(number));
      if (picture.empty()) break;
      lateness_.push_back(waitFor(number));
      if (options_.take && number == options_.framesBeforeTake + 1) {
        take_ = helper_.startTake(*options_.take);
      }
      if (options_.beforeFrame) options_.beforeFrame(helper_, number);
      const auto capturedAt = client::Uptime::now();
      helper_.writeFrame(source_.size(), nextID(capturedAt), picture);
      writeSound(capturedAt, number);
      if (progress && number % static_cast<std::uint64_t>(options_.framesPerSecond) == 0) {
        progress(report());
      }
    }
    if (number == 1 && !helper_.exited()) throw std::runtime_error("the source gave no frame");
    // The helper reads the last frame a little after its capture. A take that stopped at once would
    // lack the frame.
    waitFor(number);
    const auto end = client::Uptime::now();
    writeSound(end, number);
    if (take_) take_->stop(end);
    const std::lock_guard hold(mutex_);
    report_.fedSeconds = millisecondsSince(begun_) / 1000;
    report_.parentCPUSeconds = ownCPUSeconds() - cpuBefore;
  }

  RunReport end() {
    // Waits for the "stats" event that counts the last frame.
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    const double peak = peakMegabytes(helper_.pid());
    const client::Exited exit = helper_.stop();
    watchers_.clear();
    if (streamFailure_ && exit.isClean()) std::rethrow_exception(streamFailure_);
    copy_.flush();
    checkCopy();
    RunReport whole = report();
    whole.peakMegabytes = peak;
    whole.exit = exit;
    return whole;
  }

 private:
  RunReport report() const {
    const std::lock_guard hold(mutex_);
    RunReport copy = report_;
    copy.frames = helper_.frameCounts();
    copy.lateness = lateness_;
    if (take_) copy.take = take_->latest();
    return copy;
  }

  void checkCopy() const {
    if (!copy_) throw std::runtime_error(options_.previewPath + " can't be written");
  }

  void writeSound(client::Uptime::time_point capturedAt, std::uint64_t number) {
    if (options_.writeSound) options_.writeSound(helper_, capturedAt, number);
  }

  // The id of the next frame.
  std::uint64_t nextID(client::Uptime::time_point capturedAt) {
    const std::uint64_t id = client::frameID(capturedAt);
    const std::lock_guard hold(mutex_);
    ids_.push_back(id);
    report_.fed = ids_.size();
    return id;
  }

  void startWatching(std::ostream* copy) {
    client::StreamClient stream("127.0.0.1", helper_.port());
    stream.sayHello(helper_.token());
    watchers_.emplace_back(
        [this, copy, stream = std::move(stream)](const std::stop_token& stop) mutable {
          const auto handle = [&](const client::Packet& packet) {
            packetCame(packet);
            if (copy == nullptr) return;
            const auto units = client::toAnnexB(packet);
            copy->write(reinterpret_cast<const char*>(units.data()), std::ssize(units));
          };
          try {
            stream.watch(handle, [&] { return !stop.stop_requested(); });
          } catch (const std::exception&) {
            const std::lock_guard hold(mutex_);
            streamFailure_ = std::current_exception();
          }
        });
  }

  void packetCame(const client::Packet& packet) {
    if (packet.type != client::Packet::Type::frame) return;
    const client::Uptime::time_point calledAt(
        std::chrono::microseconds(packet.frameID));  // see `nextID`
    const std::chrono::duration<double, std::milli> age = client::Uptime::now() - calledAt;
    const std::lock_guard hold(mutex_);
    const auto before = std::ranges::lower_bound(ids_, packet.frameID) - ids_.begin();
    report_.deliveries.push_back({static_cast<std::uint64_t>(before) + 1, age.count()});
    report_.bytes += packet.payload.size();
  }

  void eventCame(const client::Event& event) {
    const std::lock_guard hold(mutex_);
    if (const auto* stats = std::get_if<client::Stats>(&event.what)) {
      const auto delivery = stats->delivery ? stats->delivery : report_.stats.delivery;
      report_.stats = *stats;
      report_.stats.delivery = delivery;
    }
    if (const auto* error = std::get_if<client::Error>(&event.what)) report_.error = error->message;
    if (std::holds_alternative<client::Exited>(event.what)) hasEnded_ = true;
    if (options_.onEvent && !event.line.empty()) options_.onEvent(event.line);
    changed_.notify_all();
  }

  double secondsAt(std::uint64_t number) const {
    return static_cast<double>(number - 1) / options_.framesPerSecond;
  }

  // Waits until the frame of this number is due. Returns how late the thread woke, in milliseconds.
  double waitFor(std::uint64_t number) const {
    const auto due = begun_ + std::chrono::duration_cast<SteadyClock::duration>(
                                  std::chrono::duration<double>(secondsAt(number)));
    std::this_thread::sleep_until(due);
    return millisecondsSince(due);
  }

  const RunOptions& options_;
  FrameSource& source_;
  const SteadyClock::time_point launched_ = SteadyClock::now();
  SteadyClock::time_point begun_;
  std::optional<client::Take> take_;
  std::vector<double> lateness_;
  std::ofstream copy_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::uint64_t> ids_;    // of the frames that were fed; guarded by `mutex_`
  RunReport report_;                  // guarded by `mutex_`
  bool hasEnded_ = false;             // the helper; guarded by `mutex_`
  std::exception_ptr streamFailure_;  // of a client; guarded by `mutex_`
  client::Helper helper_;
  std::vector<std::jthread> watchers_;
};

}  // namespace

RunReport runPaced(const RunOptions& options, FrameSource& source, const Progress& progress) {
  Run run(options, source);
  run.admitClients();
  run.feed(progress);
  return run.end();
}

double RunReport::latency(double fraction) const {
  std::vector<double> values;
  for (const Delivery& delivery : deliveries) values.push_back(delivery.milliseconds);
  return percentile(std::move(values), fraction);
}

double percentile(std::vector<double> values, double fraction) {
  if (values.empty()) return 0;
  std::ranges::sort(values);
  const auto at = static_cast<std::size_t>(fraction * static_cast<double>(values.size() - 1));
  return values[at];
}

}  // namespace lumora::tools
