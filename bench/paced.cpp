// The helper under a steady load, as a camera application makes it. One line per configuration;
// without one, how the cost grows with size, rate, recording and clients.
//
//   lumora-paced HELPER SECONDS [WIDTHxHEIGHT FPS CLIENTS TAKE]     TAKE: none or a profile's name

#include <cstdio>
#include <cstdlib>
#include <string>

#include "bench/camera_clip.h"
#include "bench/paced_load.h"

namespace {

using namespace lumora;

constexpr int clipFrames = 60;

void measure(const bench::PacedLoad& load, bench::CameraClip& clip) {
  bench::print(load, clip.size(), bench::runPacedLoad(load, clip));
}

void measureTable(const std::string& helper, double seconds) {
  for (const client::FrameSize size : {client::FrameSize{640, 360}, {1280, 720}, {1920, 1080}}) {
    bench::CameraClip clip(size, clipFrames);
    for (const int rate : {15, 30, 60}) {
      for (const char* take : {"none", "1080x720"}) {
        for (const int clients : {0, 1, 2}) {
          measure({.helper = helper,
                   .framesPerSecond = rate,
                   .seconds = seconds,
                   .clients = clients,
                   .take = take,
                   .targetFPS = rate},
                  clip);
        }
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
    client::FrameSize size{};
    if (std::sscanf(argv[3], "%dx%d", &size.width, &size.height) != 2) return 2;
    bench::CameraClip clip(size, clipFrames);
    measure({.helper = argv[1],
             .framesPerSecond = std::atoi(argv[4]),
             .seconds = seconds,
             .clients = std::atoi(argv[5]),
             .take = argv[6],
             .targetFPS = std::atoi(argv[4])},
            clip);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
  }
}
