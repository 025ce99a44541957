// The software encoder's settings side by side: what each costs, how late its frames and its key
// frames are, how good the picture is. Ours, in platform/encoder_tuning.cpp, were chosen by this.
//
//   lumora-presets [WIDTHxHEIGHT]     of the take; 1920x1080 unless given

#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>

#include "bench/encoders_alone.h"
#include "bench/pipeline.h"
#include "bench/ssim.h"
#include "tools/paced_run.h"

namespace {

using namespace lumora;
using namespace lumora::bench;

constexpr int frames = 240;
constexpr int rounds = 5;  // of all choices in turn; medians are shown

struct Choice {
  const char* name;
  const char* preset;                 // empty: ours
  const char* parameters;             // of x264, for both sessions
  const char* threads;                // of the take; empty: ours
  std::vector<double> cpu = {};       // milliseconds per frame
  std::vector<double> usual = {};     // median latency, milliseconds
  std::vector<double> slow = {};      // its 99th percentile
  std::vector<double> keyFrame = {};  // median of the key frames alone
  std::vector<Bytes> streams = {};
};

std::vector<Choice> makeChoices() {
  return {{"ours", "", "", ""},
          {"ours, one thread", "", "", "1"},
          {"ours, three threads", "", "", "3"},
          {"ours, cabac", "", "cabac=1", ""},
          {"ours, adaptive quantiser", "", "aq-mode=1", ""},
          {"ultrafast", "ultrafast", "", ""},
          {"superfast", "superfast", "", ""},
          {"superfast, cavlc", "superfast", "cabac=0", ""},
          {"superfast, small key frames", "superfast", "ipratio=1.0", ""},
          {"superfast, buffer of 1/4 s", "superfast", "vbv-bufsize=3000", ""}};
}

void measure(Choice& choice, EncoderLoad preview, EncoderLoad take) {
  preview.settings.preset = take.settings.preset = choice.preset;
  if (*choice.parameters != 0) {
    preview.parameters = take.parameters = choice.parameters;
  }
  take.threads = choice.threads;
  EncodersReport report = encodeAlone({preview, take}, frames);
  std::vector<double> keyFrames;
  for (std::size_t i = 60; i < report.latencies.size(); i += 60) {
    keyFrames.push_back(report.latencies[i]);
  }
  choice.cpu.push_back(report.cpuSeconds * 1000 / frames);
  choice.usual.push_back(tools::percentile(report.latencies, 0.5));
  choice.slow.push_back(tools::percentile(report.latencies, 0.99));
  choice.keyFrame.push_back(tools::percentile(keyFrames, 0.5));
  choice.streams = std::move(report.streams);
}

double ssimOf(const Bytes& stream, CameraClip& clip, client::FrameSize size) {
  const std::string path = std::filesystem::temp_directory_path() / "lumora-presets.h264";
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char*>(stream.data()),
             static_cast<std::streamsize>(stream.size()));
  const double ssim = measureSSIM(path, clip, firstNumbers(frames), size);
  std::filesystem::remove(path);
  return ssim;
}

void compare(client::FrameSize size) {
  CameraClip clip({1920, 1080}, 60);
  const auto previews = readyPictures(clip, 640, 360);
  const auto pictures = readyPictures(clip, size.width, size.height);
  std::vector<Choice> choices = makeChoices();
  for (int round = 0; round < rounds; ++round) {
    for (Choice& choice : choices) {
      measure(choice, {previewSettings(""), previews},
              {takeSettings(size.width, size.height, ""), pictures});
    }
  }
  const auto median = [](const std::vector<double>& values) {
    return tools::percentile(values, 0.5);
  };
  std::printf("%-28s %8s %8s %8s %8s %8s %9s %9s\n", "settings", "cpu ms", "p50 ms", "p99 ms",
              "key ms", "kB/frame", "SSIM take", "preview");
  for (const Choice& choice : choices) {
    std::printf("%-28s %8.2f %8.2f %8.2f %8.2f %8.1f %9.4f %9.4f\n", choice.name,
                median(choice.cpu), median(choice.usual), median(choice.slow),
                median(choice.keyFrame),
                static_cast<double>(choice.streams[1].size()) / frames / 1000,
                ssimOf(choice.streams[1], clip, size), ssimOf(choice.streams[0], clip, {640, 360}));
    std::fflush(stdout);
  }
}

}  // namespace

int main(int argc, char** argv) {
  client::FrameSize size{1920, 1080};
  if (argc > 1 && std::sscanf(argv[1], "%dx%d", &size.width, &size.height) != 2) return 2;
  try {
    compare(size);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
  }
}
