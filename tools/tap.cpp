// The stream tap: one client that writes the preview to standard output, for players and servers.
//
//   TAVO_VIDEO_TOKEN=... lumora-tap PORT [HOST] [--format h264|flv] [--times ids|arrival]
//                                   [--patience SECONDS]
//
// h264 is Annex B, without times. In flv a frame's time is its id, where that is a time
// (microseconds, see docs/protocol.md), or its arrival. A frame is acknowledged when it was
// written, so a reader that is slow gets fewer. A stream that breaks off is connected again, for
// ten seconds (or SECONDS) in vain.

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <optional>
#include <string_view>
#include <thread>

#include <lumora/stream_client.h>
#include <lumora/uptime.h>
#include "tools/flv.h"
#include "tools/parse_number.h"

namespace {

using namespace lumora;
using client::Packet;
using client::uptime;

struct Options {
  std::uint16_t port = 0;
  std::string host = "127.0.0.1";
  std::string token;
  bool flv = false;
  std::optional<bool> timesFromIDs = {};  // none: where they are times
  double patience = 10;                   // seconds
};

// Writes packets in the format that was asked for; each write throws when nobody reads any more.
class Output {
 public:
  explicit Output(const Options& options) : options_(options) {
    if (options_.flv) write(tools::flvHeader());
  }

  // What comes next may be of another helper, whose parent numbers its frames in another way.
  void streamBegan() { fromIDs_.reset(); }

  void write(const Packet& packet) {
    if (!options_.flv) return write(toAnnexB(packet));
    if (packet.type == Packet::Type::configuration) {
      configuration_ = packet;  // its time is that of the frame behind it
      return;
    }
    const std::uint32_t time = millisecondsOf(packet.frameID);
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

  // Since the first frame; never less than before.
  std::uint32_t millisecondsOf(std::uint64_t frameID) {
    constexpr double oldest = 60;  // seconds, of an id that is a time
    const double now = uptime();
    const double capturedAt = static_cast<double>(frameID) / 1e6;
    if (!fromIDs_) {
      fromIDs_ = options_.timesFromIDs.value_or(capturedAt <= now && now - capturedAt < oldest);
    }
    const double time = *fromIDs_ ? capturedAt : now;
    if (!first_) first_ = time;
    latest_ = std::max(latest_, std::llround((time - *first_) * 1000));
    return static_cast<std::uint32_t>(latest_);
  }

  const Options& options_;
  std::optional<Packet> configuration_;
  std::optional<bool> fromIDs_;
  std::optional<double> first_;
  long long latest_ = 0;
};

// Until the stream breaks off; whether anything has come.
bool copyStream(const Options& options, Output& output) {
  client::StreamClient stream(options.host, options.port);
  stream.sayHello(options.token);
  output.streamBegan();
  bool any = false;
  stream.watch([&](const Packet& packet) {
    any = true;
    output.write(packet);
  });
  return any;
}

int tap(const Options& options) {
  Output output(options);
  std::string problem =
      "the helper does not admit us: is the token right, are two others watching?";
  double since = uptime();  // the last that was received, or the start
  for (;;) {
    try {
      if (copyStream(options, output)) {
        since = uptime();
        problem = "the stream has ended";
      }
    } catch (const std::system_error& error) {  // nobody listens there
      problem = error.what();
    }
    if (uptime() - since >= options.patience) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(250));
  }
  std::fprintf(stderr, "%s\n", problem.c_str());
  return 1;
}

bool applyOption(std::string_view name, std::string_view value, Options& options) {
  if (name == "--patience") return tools::parseNumber(value, options.patience);
  if (name == "--format") {
    options.flv = value == "flv";
    return value == "flv" || value == "h264";
  }
  options.timesFromIDs = value == "ids";
  return name == "--times" && (value == "ids" || value == "arrival");
}

std::optional<Options> parseOptions(int argc, char** argv) {
  Options options;
  int named = 0;  // arguments without a name
  for (int i = 1; i < argc; ++i) {
    const std::string_view word(argv[i]);
    if (word.starts_with("--")) {
      if (++i == argc || !applyOption(word, argv[i], options)) return std::nullopt;
    } else if (named == 0) {
      if (!tools::parseNumber(word, options.port)) return std::nullopt;
      ++named;
    } else if (named++ == 1) {
      options.host = word;
    } else {
      return std::nullopt;
    }
  }
  const char* token = std::getenv("TAVO_VIDEO_TOKEN");  // NOLINT(concurrency-mt-unsafe): one thread
  if (named == 0 || token == nullptr) return std::nullopt;
  options.token = token;
  return options;
}

}  // namespace

int main(int argc, char** argv) {
  const auto options = parseOptions(argc, argv);
  if (!options) {
    std::fprintf(stderr,
                 "usage: TAVO_VIDEO_TOKEN=... %s PORT [HOST] [--format h264|flv] [--times "
                 "ids|arrival] [--patience SECONDS]\n",
                 argv[0]);
    return 2;
  }
  try {
    return tap(*options);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
  }
}
