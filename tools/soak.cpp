// Runs a helper for a long time at full speed: takes start and stop at random, clients come and go,
// the camera changes its size between takes. Every take must be saved. Every take and every stream
// that a client received must decode. Memory, descriptors and threads must not grow.
//
//   lumora-soak HELPER FOLDER MINUTES [SEED]      ends with 0, or with 1 and what went wrong, or by
//                                                 SIGALRM if anything hangs

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <thread>

#include <lumora/stream_client.h>
#include "tools/frame_source.h"
#include "tools/programs.h"

namespace {

using namespace lumora;
using client::FrameSize;
using client::Uptime;

constexpr FrameSize sizes[] = {{1920, 1080}, {1280, 720}, {640, 360}, {1080, 1920}, {322, 202}};
constexpr client::TakeSize takeSizes[] = {client::TakeSize::of640x360, client::TakeSize::of1080x720,
                                          client::TakeSize::of1920x1080};
constexpr client::TakeRate rates[] = {client::TakeRate::fps15, client::TakeRate::fps30,
                                      client::TakeRate::fps45, client::TakeRate::fps60};
constexpr client::Seconds patience(20);  // for the end of a take
constexpr int takesBetweenRests = 4;     // in a rest the helper is idle
constexpr unsigned longestTake = 120;    // seconds, from the start of a take to the next start
constexpr std::size_t fewestRests = 4;   // that show a trend
constexpr double mostMegabytes = 200;    // at any time
constexpr double growthMegabytes = 12;   // from the first rests to the last
constexpr double growthThreads = 6;      // threads of spare encoders, whose number varies
constexpr std::size_t mostStreamBytes = std::size_t{16} << 20;  // of one client

// Ends the run. Any thread.
[[noreturn]] void fail(const std::string& problem) {
  std::fflush(stdout);
  std::fprintf(stderr, "\n%s\n", problem.c_str());
  _exit(1);
}

void pauseFor(double seconds) {
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}

// Decodes the file and removes it. Ends the run if it does not decode.
void expectDecodes(const std::string& path) {
  const std::string errors = tools::decodeErrors(path);
  if (!errors.empty()) fail(path + " does not decode: " + errors);
  std::filesystem::remove(path);
}

class Soak {
 public:
  Soak(const std::string& helper, const std::filesystem::path& folder, unsigned seed)
      : folder_(std::filesystem::absolute(folder)),
        random_(seed),
        helper_({.program = helper, .frames = tools::frameTransport(client::FrameTransport::pipe)},
                [](const client::Event& event) {
                  if (const auto* error = std::get_if<client::Error>(&event.what))
                    fail("the helper failed: " + error->message);
                  if (const auto* end = std::get_if<client::Exited>(&event.what))
                    if (!end->isClean()) fail("the helper ended with " + toText(*end));
                }) {
    std::filesystem::create_directories(folder_);
  }

  void run(double minutes) {
    for (const auto begun = Uptime::now(); Uptime::now() - begun < client::Seconds(minutes * 60);) {
      {
        const int before = streams_;
        const auto watching = [this](unsigned number) {
          return [this, number, seed = random_()](const std::stop_token& stop) {
            watch(stop, number, seed);
          };
        };
        const std::jthread first(watching(1)), second(watching(2));
        for (int i = 0; i < takesBetweenRests; ++i) take();
        if (streams_ == before) fail("no client received a frame during the last takes");
      }
      rest((Uptime::now() - begun).count());
    }
    if (streams_ == 0) fail("no client received a frame");
    judge();
    if (!helper_.stop().isClean()) fail("the helper did not end cleanly");
    const auto frames = helper_.frameCounts();
    std::printf(
        "\n%d takes and %d streams decode; %llu frames written, %llu dropped by the library\n",
        takes_, streams_.load(), static_cast<unsigned long long>(frames.written),
        static_cast<unsigned long long>(frames.dropped));
  }

 private:
  template <typename Choices>
  auto oneOf(const Choices& choices) {
    return choices[std::uniform_int_distribution<std::size_t>(0, std::size(choices) - 1)(random_)];
  }

  // Feeds frames as fast as they are drawn, but at most 1000 a second. Large frames come faster
  // than the helper encodes them.
  void feed(tools::TestCard& card, const std::stop_token& stop) {
    for (; !stop.stop_requested(); pauseFor(0.001)) {
      ++lastID_;
      helper_.writeFrame(card.size(), lastID_,
                         card.next(lastID_, Uptime::now().time_since_epoch().count()));
    }
  }

  // Runs one client after the other, each for a random while.
  void watch(const std::stop_token& stop, unsigned number, std::mt19937::result_type seed) try {
    std::mt19937 random(seed);
    std::uniform_real_distribution<double> seconds(0.2, 5);
    const std::string path = folder_ / ("stream-" + std::to_string(number) + ".h264");
    while (!stop.stop_requested()) {
      pauseFor(seconds(random) / 10);
      if (!receive(stop, Uptime::now() + client::Seconds(seconds(random)), path)) continue;
      expectDecodes(path);
      ++streams_;
    }
  } catch (const std::exception& error) {
    fail(error.what());
  }

  // Writes what one client receives into a file. Returns whether it received a frame.
  bool receive(const std::stop_token& stop, Uptime::time_point until, const std::string& path) {
    client::StreamClient viewer("127.0.0.1", helper_.port());
    viewer.sayHello(helper_.token());
    std::ofstream file(path, std::ios::binary);
    std::size_t bytes = 0;
    std::vector<std::uint8_t> access;  // a frame and the configuration before it
    const auto keep = [&](const client::Packet& packet) {
      const auto units = client::toAnnexB(packet);
      access.insert(access.end(), units.begin(), units.end());
      if (packet.type != client::Packet::Type::frame) return;
      file.write(reinterpret_cast<const char*>(access.data()), std::ssize(access));
      bytes += access.size();
      access.clear();
    };
    viewer.watch(keep, [&] {
      return !stop.stop_requested() && Uptime::now() < until && bytes < mostStreamBytes;
    });
    if (viewer.isClosed())
      fail("the helper closed the connection of a client that acknowledged its frames");
    return bytes > 0;
  }

  void take() {
    alarm(longestTake);  // ends us if anything hangs
    tools::TestCard card(oneOf(sizes));
    const std::jthread feeder([&](const std::stop_token& stop) { feed(card, stop); });
    const auto path = folder_ / ("take-" + std::to_string(takes_) + ".mp4");
    std::filesystem::remove(path);  // left by a run that failed
    client::Take take = helper_.startTake(
        {.path = path, .profile = {oneOf(takeSizes), oneOf(rates)}, .steady = random_() % 2 == 0});
    pauseFor(std::uniform_real_distribution<double>(0.5, 6)(random_));
    take.stop();
    const auto end = take.waitForEnd(patience);
    if (!end) fail("a take does not end");
    if (end->state != client::TakeState::saved) fail("a take failed: " + end->error);
    expectDecodes(end->path);
    ++takes_;
  }

  // Leaves the helper idle for a moment, and notes what it still holds.
  void rest(double elapsed) {
    pauseFor(1.5);
    const tools::ProcessFigures now = tools::processFigures(helper_.pid());
    rests_.push_back(now);
    std::fprintf(stderr, "\r%5.1f min  %d takes  %d streams  %.0f MB  %d descriptors  %d threads ",
                 elapsed / 60, takes_, streams_.load(), now.residentMegabytes, now.descriptors,
                 now.threads);
  }

  void judge() const {
    const double peak = tools::peakMegabytes(helper_.pid());
    std::printf("\npeak %.1f MB", peak);
    if (peak > mostMegabytes) fail("too much memory");
    if (rests_.size() < fewestRests) {
      std::printf("; too short to tell whether anything grows");
      return;
    }
    expectFlat("MB at rest", &tools::ProcessFigures::residentMegabytes, growthMegabytes);
    expectFlat("descriptors", &tools::ProcessFigures::descriptors, 0);
    expectFlat("threads", &tools::ProcessFigures::threads, growthThreads);
  }

  // Ends the run if the median rose by over `growth` from the first quarter of the rests to the
  // last quarter.
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
    if (late > early + growth) fail(std::string(what) + " grow");
  }

  const std::filesystem::path folder_;
  std::mt19937 random_;
  std::uint64_t lastID_ = 0;  // of a frame; only the feeding thread uses it
  std::atomic<int> streams_ = 0;
  int takes_ = 0;
  std::vector<tools::ProcessFigures> rests_;
  client::Helper helper_;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) {
    std::fprintf(stderr, "usage: %s HELPER FOLDER MINUTES [SEED]\n", argv[0]);
    return 2;
  }
  try {
    const auto seed =
        static_cast<unsigned>(argc > 4 ? std::stoul(argv[4]) : std::random_device()());
    std::printf("seed %u\n", seed);
    Soak(argv[1], argv[2], seed).run(std::stod(argv[3]));
  } catch (const std::exception& error) {
    fail(error.what());
  }
}
