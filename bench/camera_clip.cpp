#include "bench/camera_clip.h"

#include <algorithm>
#include <stdexcept>
#include <string>

#include "tools/programs.h"

namespace lumora::bench {
namespace {

constexpr int framesOneWay = 30;

std::string join(int left, const char* between, int right) {
  return std::to_string(left) + between + std::to_string(right);
}

// ffmpeg's filters that mix smooth noise of several grain sizes with a test picture, which has
// edges. Coarse noise is stronger, as in nature.
std::string scenery(int width, int height) {
  std::string graph;
  std::string layers;
  for (const int period : {256, 64, 16, 4}) {
    const std::string layer = "[every" + std::to_string(period) + "]";
    graph += "color=gray:size=" + join(width / period + 2, "x", height / period + 2) +
             ",format=gbrp,noise=alls=100,scale=" + join(width, ":", height) + layer + ";";
    layers += layer;
  }
  return graph + "testsrc2=size=" + join(width, "x", height) + ",format=gbrp[edges];" + layers +
         "[edges]mix=inputs=5:weights=4 3 2 2 3";
}

}  // namespace

// One picture, a little larger than a frame, swings about its middle. At a width of 1920 pixels,
// its left and right sides move by up to a pixel from one frame to the next. The sensor's noise has
// a standard deviation of 2.5 in each of red, green and blue, whose maximum is 255.
CameraClip::CameraClip(client::FrameSize camera, const client::FrameFormat& format,
                       client::FrameSize size)
    : size_(size), format_(format) {
  const std::string graph =
      scenery(camera.width * 11 / 10, camera.height * 11 / 10) +
      ",loop=loop=-1:size=1,rotate=a=0.01*cos(PI*n/" + std::to_string(framesOneWay) +
      "),crop=" + join(camera.width, ":", camera.height) + ",noise=alls=5:allf=t," +
      (isNV12() ? tools::nv12Filters(size) : std::string("vflip,format=rgba"));
  tools::CommandSource drawn("ffmpeg -v error -nostdin -f lavfi -i " + tools::shellQuoted(graph) +
                                 " -frames:v " + std::to_string(framesOneWay + 1) +
                                 " -f rawvideo -",
                             size, format);
  for (int i = 0; i <= framesOneWay; ++i) {
    const auto picture = drawn.next(0, 0);
    if (picture.empty()) throw std::runtime_error("ffmpeg did not draw the clip");
    frames_.emplace_back(picture.begin(), picture.end());
  }
}

std::span<const std::uint8_t> CameraClip::next(std::uint64_t number, double) {
  const std::size_t at = (number - 1) % length();
  return frames_[std::min(at, length() - at)];
}

}  // namespace lumora::bench
