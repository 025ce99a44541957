// The stream tap: one client that writes the preview to standard output, for players and servers.
//
//   TAVO_VIDEO_TOKEN=... lumora-tap PORT [HOST] [--format h264|flv] [--times ids|arrival]
//                                   [--patience SECONDS]
//
// h264 is Annex B, without times. In flv each frame has a time. The tap reads the frame's id as its
// capture time (microseconds, see docs/protocol.md). If the capture time is within 2 s of now, the
// frame gets it. Otherwise the frame gets its arrival time. --times overrides this. A frame is
// acknowledged once it is written, so a slow reader gets fewer frames. If the stream ends, the tap
// retries. It gives up if the retries bring no packet for ten seconds (or SECONDS).

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <vector>

#include <lumora/uptime.h>
#include "tools/flv.h"
#include "tools/parse_number.h"
#include "tools/watched_stream.h"

namespace {

using namespace lumora;
using client::Packet;

struct Options {
  tools::HelperAddress helper;
  bool flv = false;
  std::optional<bool> timesFromIDs = {};  // empty: see `FlvTimes`
  double patience = 10;                   // seconds
};

// Writes packets in the chosen format. A failed write throws. If nobody reads
// standard output any more, SIGPIPE ends this program.
class Output {
 public:
  explicit Output(const Options& options) : isFlv_(options.flv), times_(options.timesFromIDs) {
    if (isFlv_) write(tools::flvHeader());
  }

  void write(const Packet& packet) {
    if (!isFlv_) return write(toAnnexB(packet));
    if (packet.type == Packet::Type::configuration) {
      configuration_ = packet;  // it gets the time of the next frame
      return;
    }
    const std::uint32_t time = times_.next(packet.frameID, client::Uptime::now());
    if (configuration_) write(tools::flvTag(*configuration_, time));
    configuration_.reset();
    write(tools::flvTag(packet, time));
  }

 private:
  static void write(const std::vector<std::uint8_t>& bytes) {
    if (std::fwrite(bytes.data(), 1, bytes.size(), stdout) != bytes.size() ||
        std::fflush(stdout) != 0) {
      throw std::runtime_error("standard output: " + std::generic_category().message(errno));
    }
  }

  const bool isFlv_;
  tools::FlvTimes times_;
  std::optional<Packet> configuration_;
};

std::string tap(const Options& options) {
  Output output(options);
  tools::WatchedStream stream(options.helper, {.packet = [&](const Packet& packet) {
                                output.write(packet);
                                if (packet.type == Packet::Type::frame)
                                  stream.acknowledge(packet.frameID);
                              }});
  return stream.watch({}, client::Seconds(options.patience));
}

bool applyOption(std::string_view name, std::string_view value, Options& options) {
  if (name == "--patience")
    return tools::parseNumber(value, options.patience) && options.patience >= 0;
  if (name == "--format") {
    options.flv = value == "flv";
    return value == "flv" || value == "h264";
  }
  if (name == "--times") options.timesFromIDs = value == "ids";
  return name == "--times" && (value == "ids" || value == "arrival");
}

std::optional<Options> parseOptions(const std::vector<std::string_view>& arguments) {
  Options options;
  std::vector<std::string_view> named;  // PORT and HOST
  for (auto word = arguments.begin(); word != arguments.end(); ++word) {
    if (!word->starts_with("--")) {
      named.push_back(*word);
      continue;
    }
    const std::string_view name = *word;
    if (++word == arguments.end() || !applyOption(name, *word, options)) return std::nullopt;
  }
  const char* token = std::getenv("TAVO_VIDEO_TOKEN");  // NOLINT(concurrency-mt-unsafe): one thread
  if (named.empty() || named.size() > 2) return std::nullopt;
  if (!tools::parseNumber(named[0], options.helper.port)) return std::nullopt;
  if (named.size() == 2) options.helper.host = named[1];
  if (token != nullptr) options.helper.token = token;
  return options;
}

}  // namespace

int main(int argc, char** argv) try {
  const auto options = parseOptions({argv + 1, argv + argc});
  if (!options) {
    std::fprintf(stderr,
                 "usage: TAVO_VIDEO_TOKEN=... %s PORT [HOST] [--format h264|flv] [--times "
                 "ids|arrival] [--patience SECONDS]\n",
                 argv[0]);
    return 2;
  }
  if (options->helper.token.empty()) {
    std::fputs("TAVO_VIDEO_TOKEN is not set. Give it the helper's token.\n", stderr);
    return 2;
  }
  if (isatty(STDOUT_FILENO) == 1) {
    std::fputs("Standard output is a terminal. Pipe it into a player, such as ffplay -f h264 -\n",
               stderr);
    return 2;
  }
  std::fprintf(stderr, "%s\n", tap(*options).c_str());
  return 1;
} catch (const std::exception& error) {
  std::fprintf(stderr, "%s\n", error.what());
  return 1;
}
