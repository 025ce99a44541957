// Runs the helper for a long time at full speed: takes start and stop at random, clients come and
// go, the camera changes its size between takes. Every take has to be saved and to decode, every
// stream that was delivered too, and memory, descriptors and threads have to stay where they were.
//
//   lumora-soak HELPER FOLDER MINUTES [SEED]      ends with 0, or 1 and what went wrong

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <random>
#include <stdexcept>
#include <thread>

#include <lumora/stream_client.h>
#include <lumora/uptime.h>
#include "tools/helper_process.h"
#include "tools/resource_use.h"
#include "tools/shell.h"
#include "tools/test_card.h"

namespace {

using namespace lumora;
using client::FrameSize;
using client::uptime;
using tools::Event;

constexpr FrameSize sizes[] = {{1920, 1080}, {1280, 720}, {640, 360}, {1080, 1920}, {322, 202}};
constexpr const char* resolutions[] = {"640x360", "1080x720", "1920x1080"};
constexpr int rates[] = {15, 30, 45, 60};
constexpr unsigned longestRound = 120;  // seconds, from one take to the next
constexpr int takesBetweenRests = 4;
constexpr std::size_t fewestRests = 4;                          // of which a trend can be told
constexpr double mostMegabytes = 200;                           // at any time
constexpr double growthMegabytes = 12;                          // from the first rests to the last
constexpr double threadsOfSpareEncoders = 6;                    // come and go with their settings
constexpr std::size_t mostStreamBytes = std::size_t{16} << 20;  // that are kept to be decoded

void pauseFor(double seconds) {
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}

// Removes the file if it is sound; otherwise throws what ffmpeg says of it.
void expectDecodes(const std::string& path) {
  const std::string errors = tools::decodeErrors(path);
  if (!errors.empty()) throw std::runtime_error(path + " does not decode: " + errors);
  std::filesystem::remove(path);
}

class Soak {
 public:
  Soak(const std::string& helper, std::filesystem::path folder, unsigned seed)
      : folder_(std::move(folder)),
        random_(seed),
        token_(client::makeToken()),
        helper_({.program = helper, .token = token_, .arguments = {}, .environment = {}},
                tools::slotsFor(tools::frameTransport(client::FrameTransport::pipe))) {
    std::filesystem::create_directories(folder_);
    port_ = helper_.waitForEvent("ready").at("port");
  }

  void run(double minutes) {
    const double begun = uptime();
    std::jthread feeder = start([this](const std::stop_token& stop) { feed(stop); });
    std::jthread first = start([this](const std::stop_token& stop) { watch(stop, 1); });
    std::jthread second = start([this](const std::stop_token& stop) { watch(stop, 2); });
    while (uptime() - begun < minutes * 60) {
      alarm(longestRound);
      changeSize();
      take();
      if (takes_ % takesBetweenRests == 0) rest(uptime() - begun);
      failIfReported();
    }
    alarm(longestRound);
    for (std::jthread* thread : {&feeder, &first, &second}) thread->request_stop();
    for (std::jthread* thread : {&feeder, &first, &second}) thread->join();
    failIfReported();
    if (streams_ == 0) throw std::runtime_error("no client got a picture");
    judge();
    helper_.closeInput();
    const auto status = helper_.wait(10);
    if (!status || status->signal != 0 || status->code != 0)
      throw std::runtime_error("ended badly");
    std::printf("\n%d takes and %d streams decode; %llu frames fed, %llu delivered\n", takes_,
                streams_.load(), static_cast<unsigned long long>(fed_.load()),
                static_cast<unsigned long long>(delivered_.load()));
  }

 private:
  std::size_t upTo(std::size_t count) {
    return std::uniform_int_distribution<std::size_t>(0, count - 1)(random_);
  }
  double between(double least, double most) {
    return std::uniform_real_distribution<double>(least, most)(random_);
  }

  template <typename Work>
  std::jthread start(Work work) {
    return std::jthread([this, work](const std::stop_token& stop) {
      try {
        work(stop);
      } catch (const std::exception& error) {
        report(error.what());
      }
    });
  }

  void feed(const std::stop_token& stop) {
    std::uint64_t id = 0;
    while (!stop.stop_requested()) {
      const FrameSize size = size_;
      tools::TestCard card(size);
      while (!stop.stop_requested() && size.width == size_.load().width) {
        if (resting_) pauseFor(0.02);
        if (resting_) continue;
        ++id;
        const auto picture = card.next(id, uptime());
        const std::lock_guard hold(input_);
        if (!helper_.copyFrame(size, id, picture)) return report("the helper reads no more");
        ++fed_;
        fedSize_ = size;
      }
    }
  }

  // A take lasts for one size of the camera.
  void changeSize() {
    const FrameSize next = sizes[upTo(std::size(sizes))];
    size_ = next;
    while (fedSize_.load().width != next.width) {
      pauseEvents(0.02);
      failIfReported();
    }
  }

  // One client after the other, each for a random while.
  void watch(const std::stop_token& stop, unsigned seed) {
    std::mt19937 random(seed);
    std::uniform_real_distribution<double> seconds(0.2, 5);
    for (int stream = 0; !stop.stop_requested() && !hasProblem(); ++stream) {
      pauseFor(resting_ ? 0.05 : seconds(random) / 10);
      if (resting_) continue;
      const std::string path =
          folder_ / ("stream-" + std::to_string(seed) + "-" + std::to_string(stream) + ".h264");
      if (!receive(stop, uptime() + seconds(random), path)) continue;
      expectDecodes(path);
      ++streams_;
    }
  }

  // Whether a file with at least one picture has come of it.
  bool receive(const std::stop_token& stop, double until, const std::string& path) {
    client::StreamClient viewer("127.0.0.1", port_);
    viewer.sayHello(token_);
    std::ofstream file(path, std::ios::binary);
    std::size_t bytes = 0;
    std::vector<std::uint8_t> access;  // the configuration in front of a frame belongs to it
    const auto keep = [&](const client::Packet& packet) {
      const auto units = client::toAnnexB(packet);
      access.insert(access.end(), units.begin(), units.end());
      if (packet.type != client::Packet::Type::frame) return;
      if (bytes < mostStreamBytes) {
        file.write(reinterpret_cast<const char*>(access.data()), std::ssize(access));
        bytes += access.size();
      }
      access.clear();
      ++delivered_;
    };
    viewer.watch(keep, [&] { return !stop.stop_requested() && !resting_ && uptime() < until; });
    if (viewer.isClosed()) report("a client that acknowledges was dropped");
    return bytes > 0;
  }

  void take() {
    const std::string path = folder_ / ("take-" + std::to_string(takes_) + ".mp4");
    char id[37];
    std::snprintf(id, sizeof id, "6F9619FF-8B86-D011-B42D-%012d", takes_);
    const Event keys = {{"resolution", resolutions[upTo(std::size(resolutions))]},
                        {"target_fps", rates[upTo(std::size(rates))]}};
    command([&] { return helper_.startTake(id, path, keys); });
    for (const double end = uptime() + between(0.5, 6); uptime() < end;) pauseEvents(0.05);
    command([&] { return helper_.stopTake(id); });
    helper_.waitForTake(id, "saved");
    expectDecodes(path);
    ++takes_;
  }

  void command(const std::function<bool()>& write) {
    const std::lock_guard hold(input_);
    if (!write()) throw std::runtime_error("the helper takes no command");
  }

  void pauseEvents(double seconds) {
    if (const auto event = helper_.nextEvent("error", seconds)) {
      throw std::runtime_error(event->dump());
    }
  }

  // Nobody asks anything of the helper for a moment: what it holds then it would hold for ever.
  void rest(double elapsed) {
    resting_ = true;
    for (const double end = uptime() + 1.5; uptime() < end;) pauseEvents(0.1);
    const tools::ProcessFigures now = tools::processFigures(helper_.pid());
    rests_.push_back(now);
    std::fprintf(stderr,
                 "\r%5.1f min  %d takes  %d streams  %llu delivered  %.0f MB  %d descriptors  "
                 "%d threads ",
                 elapsed / 60, takes_, streams_.load(),
                 static_cast<unsigned long long>(delivered_.load()), now.residentMegabytes,
                 now.descriptors, now.threads);
    resting_ = false;
  }

  void judge() const {
    const double peak = tools::peakMegabytes(helper_.pid());
    std::printf("\npeak %.1f MB", peak);
    if (peak > mostMegabytes) throw std::runtime_error("too much memory");
    if (rests_.size() < fewestRests) {
      std::printf("; too short to tell whether anything grows");
      return;
    }
    expectFlat("MB at rest", &tools::ProcessFigures::residentMegabytes, growthMegabytes);
    expectFlat("descriptors", &tools::ProcessFigures::descriptors, 0);
    expectFlat("threads", &tools::ProcessFigures::threads, threadsOfSpareEncoders);
  }

  // By the medians of the first quarter of the rests and of the last one.
  template <typename Number>
  void expectFlat(const char* what, Number tools::ProcessFigures::*figure, double growth) const {
    const auto median = [&](std::size_t from, std::size_t to) {
      std::vector<double> values;
      for (; from < to; ++from) values.push_back(static_cast<double>(rests_[from].*figure));
      std::ranges::nth_element(values, values.begin() + std::ssize(values) / 2);
      return values[values.size() / 2];
    };
    const std::size_t quarter = rests_.size() / 4;
    const double early = median(0, quarter);
    const double late = median(rests_.size() - quarter, rests_.size());
    std::printf(", %s %.1f early, %.1f late", what, early, late);
    if (late > early + growth) throw std::runtime_error(std::string(what) + " grow");
  }

  // From any thread: the run ends with these words.
  void report(const std::string& problem) {
    const std::lock_guard hold(reporting_);
    if (problem_.empty()) problem_ = problem;
  }
  bool hasProblem() {
    const std::lock_guard hold(reporting_);
    return !problem_.empty();
  }
  void failIfReported() {
    const std::lock_guard hold(reporting_);
    if (!problem_.empty()) throw std::runtime_error(problem_);
  }

  std::filesystem::path folder_;
  std::mt19937 random_;
  std::string token_;
  tools::HelperProcess helper_;
  std::uint16_t port_ = 0;
  std::mutex input_;  // frames and commands
  std::atomic<FrameSize> size_ = sizes[0];
  std::atomic<FrameSize> fedSize_ = FrameSize{};
  std::atomic<bool> resting_ = false;
  std::atomic<std::uint64_t> fed_ = 0;
  std::atomic<std::uint64_t> delivered_ = 0;
  std::atomic<int> streams_ = 0;
  int takes_ = 0;
  std::vector<tools::ProcessFigures> rests_;
  std::mutex reporting_;
  std::string problem_;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) {
    std::fprintf(stderr, "usage: %s HELPER FOLDER MINUTES [SEED]\n", argv[0]);
    return 2;
  }
  const auto seed = static_cast<unsigned>(argc > 4 ? std::stoul(argv[4]) : std::random_device()());
  std::printf("seed %u\n", seed);
  std::signal(SIGALRM, [](int) {
    constexpr char words[] = "\nnothing moves any more\n";
    static_cast<void>(!write(STDERR_FILENO, words, sizeof words - 1));
    _exit(1);
  });
  try {
    Soak(argv[1], argv[2], seed).run(std::stod(argv[3]));
  } catch (const std::exception& error) {
    std::fprintf(stderr, "\n%s\n", error.what());
    return 1;
  }
}
