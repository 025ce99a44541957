// Shows the live stream of a helper in a browser. With --port it joins a running helper. With
// --demo it starts a helper and lets the page record takes. It feeds that helper the input that the
// environment variable INPUT names, or the test card.

#include <unistd.h>

#include <algorithm>
#include <boost/asio/post.hpp>
#include <boost/asio/signal_set.hpp>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <thread>

#include "client/child_process.h"
#include "tools/cameras.h"
#include "tools/parse_number.h"
#include "tools/viewer/bridge.h"
#include "tools/viewer/report.h"

namespace {

using namespace lumora;

constexpr const char* usage =
    "usage: lumora-view --demo [--helper PROGRAM] [--folder FOLDER] [--size WxH] [--rate N]\n"
    "                          [--format FORMAT] [--sound FORMAT:DEVICE|none] [--share]\n"
    "                          [--report FILE]\n"
    "       TAVO_VIDEO_TOKEN=... lumora-view --port PORT [--host ADDRESS]\n"
    "       lumora-view --list\n"
    "       lumora-view --report FILE [--helper PROGRAM]\n"
    "       --listen PORT   the page's own port\n";

struct Options {
  bool demo = false;
  bool list = false;
  bool share = false;
  std::string helper;
  std::string folder = ".";
  tools::CameraWish camera;
  std::string sound;  // a device or "none"; empty: the test card beeps, other input is silent
  int rate = 60;
  std::string report;            // a file; empty: none
  tools::HelperAddress address;  // of a helper to join
  std::uint16_t listen = 0;
};

bool parseSize(std::string_view text, client::FrameSize& size) {
  const auto by = text.find('x');
  if (by == std::string_view::npos || !tools::parseNumber(text.substr(0, by), size.width) ||
      !tools::parseNumber(text.substr(by + 1), size.height)) {
    return false;
  }
  const auto [least, most] = std::minmax({size.width, size.height});
  return least >= 2 && least <= 1080 && most <= 1920 && size.width % 2 == 0 && size.height % 2 == 0;
}

// Whether `sound` is a device, as `Microphone` expects it: FORMAT:DEVICE.
bool isDevice(const std::string& sound) { return sound.find(':') != std::string::npos; }

bool apply(const std::string& name, const std::string& value, Options& options) {
  if (name == "--size") return parseSize(value, options.camera.size.emplace());
  if (name == "--rate") return tools::parseNumber(value, options.rate) && options.rate > 0;
  if (name == "--port") return tools::parseNumber(value, options.address.port);
  if (name == "--listen") return tools::parseNumber(value, options.listen);
  if (name == "--sound" && value != "none" && !isDevice(value)) return false;
  std::string* const text = name == "--helper"   ? &options.helper
                            : name == "--folder" ? &options.folder
                            : name == "--host"   ? &options.address.host
                            : name == "--format" ? &options.camera.format
                            : name == "--sound"  ? &options.sound
                            : name == "--report" ? &options.report
                                                 : nullptr;
  if (text != nullptr) *text = value;
  return text != nullptr;
}

std::optional<Options> parseOptions(const std::vector<std::string>& arguments) {
  Options options;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    bool* const flag = arguments[i] == "--demo"    ? &options.demo
                       : arguments[i] == "--list"  ? &options.list
                       : arguments[i] == "--share" ? &options.share
                                                   : nullptr;
    if (flag != nullptr) {
      *flag = true;
    } else if (i + 1 == arguments.size() || !apply(arguments[i], arguments[i + 1], options)) {
      return std::nullopt;
    } else {
      ++i;
    }
  }
  const bool joins = options.address.port != 0;
  const bool reports = !options.report.empty() && !options.demo;
  if (options.demo + joins + options.list + reports != 1) return std::nullopt;
  if (options.share && !options.demo) return std::nullopt;
  return options;
}

// Returns the program that --helper names. Without --helper it returns the helper that was
// installed or built with this program, or "" if there is none. For "" the client library looks for
// a helper.
std::string findHelper(const std::string& named) {
  if (!named.empty()) return named;
  std::error_code error;
  const auto self = std::filesystem::read_symlink("/proc/self/exe", error);
  for (const char* place : {"lumora-video", "../src/lumora-video"}) {
    const auto program = self.parent_path() / place;
    if (std::filesystem::exists(program, error)) return program.lexically_normal();
  }
  return "";
}

// Writes the report if there is to be one. Returns false if that fails.
bool report(const Options& options, const std::vector<std::string>& events) {
  if (options.report.empty()) return true;
  std::fputs("Trying the encoders for the report, some seconds each.\n", stderr);
  std::ofstream file(options.report);
  file << viewer::makeReport(findHelper(options.helper), events) << std::flush;
  if (!file) std::fprintf(stderr, "The report could not be written.\n");
  return static_cast<bool>(file);
}

[[noreturn]] void run(const Options& options) {
  boost::asio::io_context context(1);
  viewer::WebServer server(context, options.listen, client::makeToken());
  viewer::Bridge bridge(context);
  if (options.demo) {
    const std::string folder = std::filesystem::absolute(options.folder).lexically_normal();
    std::filesystem::create_directories(folder);
    const auto size = options.camera.size.value_or(client::FrameSize{1280, 720});
    auto source = tools::openInput(size, options.rate, options.camera);
    const bool hasMicrophone = isDevice(options.sound);
    const bool hasSound = hasMicrophone || (options.sound.empty() && source->canFlash());
    bridge.own({.program = findHelper(options.helper),
                .frames = tools::frameTransport(),
                .sound = hasSound ? std::optional(tools::soundFormat) : std::nullopt},
               std::move(source),
               hasMicrophone ? std::make_unique<tools::Microphone>(options.sound) : nullptr,
               options.rate, folder);
  } else {
    bridge.join(options.address);
  }
  // Until here a signal ends the viewer at once, since opening a folder or a camera may hang. From
  // here on, the main thread may hang when it reads a movie from a disk. So another thread waits
  // for signals.
  boost::asio::io_context signalContext(1);
  boost::asio::signal_set signals(signalContext, SIGINT, SIGTERM, SIGHUP);
  signals.async_wait([&](const boost::system::error_code&, int) {
    std::signal(SIGINT, SIG_DFL);  // a second Ctrl-C ends the viewer at once
    boost::asio::post(context, [&bridge] { bridge.end(); });
  });
  std::jthread waiter([&signalContext](const std::stop_token& stop) {
    const std::stop_callback ending(stop, [&signalContext] { signalContext.stop(); });
    signalContext.run();
  });
  server.start(bridge.webHandlers());
  std::printf("%s\n", server.address().c_str());
  if (options.share) {
    std::printf("TAVO_VIDEO_TOKEN=%s lumora-tap %u\n", bridge.helper().token().c_str(),
                bridge.helper().port());
  }
  std::fflush(stdout);
  context.run();
  std::fflush(stdout);
  waiter = {};
  signals.clear();  // Ctrl-C ends the viewer during the report, too
  const bool isReported = report(options, bridge.lastLines());
  _exit(bridge.hasFailed() || !isReported ? 1 : 0);  // does not wait for a disk that hangs
}

}  // namespace

int main(int argc, char** argv) {
  auto options = parseOptions({argv + 1, argv + argc});
  if (!options) {
    std::fputs(usage, stderr);
    return 2;
  }
  const char* token = std::getenv("TAVO_VIDEO_TOKEN");  // NOLINT(concurrency-mt-unsafe): no threads
  if (token != nullptr) options->address.token = token;
  const bool joins = options->address.port != 0;
  if (joins && options->address.token.empty()) {
    std::fputs("TAVO_VIDEO_TOKEN is not set. Give it the helper's token.\n", stderr);
    return 2;
  }
  if (!options->report.empty() && !std::ofstream(options->report)) {
    std::perror(options->report.c_str());  // a bad path must fail before the run
    return 1;
  }
  std::vector<std::string> events;
  try {
    if (options->list) {
      std::fputs((tools::listCameras() + tools::listSoundDevices()).c_str(), stdout);
    }
    if (options->demo || joins) run(*options);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    events = {error.what()};
  }
  return report(*options, events) && events.empty() ? 0 : 1;
}
