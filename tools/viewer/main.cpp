// The viewer: shows the helper's live stream in a browser, and a take's controls where the helper
// is its own.
//
//   lumora-view --demo [--helper PROGRAM] [--folder FOLDER] [--size WIDTHxHEIGHT] [--rate N]
//       starts the helper and feeds it a test card, or the file or camera that INPUT names; FRAMES
//       may say how: "memory" or "pipe"
//   lumora-view --port PORT [--host ADDRESS]
//       watches a helper that runs; TAVO_VIDEO_TOKEN is its token
//   --listen PORT   the page's own port on this machine; without it the system chooses one

#include <unistd.h>

#include <algorithm>
#include <boost/asio/signal_set.hpp>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>

#include "client/child_process.h"
#include "tools/ffmpeg_source.h"
#include "tools/helper_process.h"
#include "tools/parse_number.h"
#include "tools/viewer/bridge.h"

namespace {

using namespace lumora;

constexpr const char* usage =
    "usage: lumora-view --demo [--helper PROGRAM] [--folder FOLDER] [--size WxH] [--rate N]\n"
    "       TAVO_VIDEO_TOKEN=... lumora-view --port PORT [--host ADDRESS]\n"
    "       --listen PORT   the page's own port\n";

struct Options {
  bool demo = false;
  std::string helper;
  std::string folder = ".";
  client::FrameSize size{1280, 720};
  int rate = 60;
  viewer::HelperAddress address;
  std::uint16_t listen = 0;
};

std::string environment(const char* name) {
  const char* value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): before any thread
  return value == nullptr ? "" : value;
}

bool parseSize(std::string_view text, client::FrameSize& size) {
  const auto by = text.find('x');
  return by != std::string_view::npos && tools::parseNumber(text.substr(0, by), size.width) &&
         tools::parseNumber(text.substr(by + 1), size.height) && size.width >= 2 &&
         size.height >= 2 && std::max(size.width, size.height) <= 1920 &&
         std::min(size.width, size.height) <= 1080 && size.width % 2 == 0 && size.height % 2 == 0;
}

bool apply(const std::string& name, const std::string& value, Options& options) {
  if (name == "--helper")
    options.helper = value;
  else if (name == "--folder")
    options.folder = value;
  else if (name == "--host")
    options.address.host = value;
  else if (name == "--size")
    return parseSize(value, options.size);
  else if (name == "--rate")
    return tools::parseNumber(value, options.rate) && options.rate > 0;
  else if (name == "--port")
    return tools::parseNumber(value, options.address.port);
  else if (name == "--listen")
    return tools::parseNumber(value, options.listen);
  else
    return false;
  return true;
}

std::optional<Options> parseOptions(const std::vector<std::string>& arguments) {
  Options options;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    if (arguments[i] == "--demo") {
      options.demo = true;
    } else if (i + 1 == arguments.size() || !apply(arguments[i], arguments[i + 1], options)) {
      return std::nullopt;
    } else {
      ++i;
    }
  }
  if (options.demo == (options.address.port != 0)) return std::nullopt;
  return options;
}

// The helper beside this program, as both are installed or built; else the library looks for it.
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

[[noreturn]] void run(const Options& options) {
  boost::asio::io_context context(1);
  viewer::WebServer server(context, options.listen, client::makeToken());
  viewer::Bridge bridge(context);
  boost::asio::signal_set signals(context, SIGINT, SIGTERM, SIGHUP);
  signals.async_wait([&](const boost::system::error_code& error, int) {
    if (error) return;
    std::signal(SIGINT, SIG_DFL);  // a second time, nothing is waited for
    bridge.end();
  });
  if (options.demo) {
    const std::string folder = std::filesystem::absolute(options.folder).lexically_normal();
    std::filesystem::create_directories(folder);
    bridge.own({.program = findHelper(options.helper),
                .frames = tools::frameTransport(),
                .frameSize = options.size},
               tools::openInput(options.size, options.rate), options.rate, folder);
  } else {
    viewer::HelperAddress address = options.address;
    address.token = environment("TAVO_VIDEO_TOKEN");
    bridge.join(address);
  }
  server.start(bridge.webHandlers());
  std::printf("%s\n", server.rules().address().c_str());
  std::fflush(stdout);
  context.run();
  std::fflush(stdout);
  _exit(bridge.hasFailed() ? 1 : 0);  // a camera that hangs is not waited for
}

}  // namespace

int main(int argc, char** argv) {
  const auto options = parseOptions({argv + 1, argv + argc});
  if (!options) {
    std::fputs(usage, stderr);
    return 2;
  }
  if (!options->demo && environment("TAVO_VIDEO_TOKEN").empty()) {
    std::fputs("TAVO_VIDEO_TOKEN is not set: it is the token that the helper was started with\n",
               stderr);
    return 2;
  }
  try {
    run(*options);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
  }
}
