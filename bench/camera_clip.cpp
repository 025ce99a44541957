#include "bench/camera_clip.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <new>
#include <numbers>
#include <random>

#include "bench/pipeline.h"

namespace lumora::bench {
namespace {

constexpr int marginPixels = 64;      // of scenery around the first picture
constexpr double swayPixels = 12;     // at 1920 pixels of width
constexpr double zoom = 0.01;         // of the width
constexpr double noiseDeviation = 3;  // of 255
constexpr std::size_t noiseSamples = std::size_t{1} << 20;

using Plane = std::vector<float>;

struct Scene {
  int width;
  int height;
  std::array<Plane, 3> colours;  // red, green, blue; 0 to 255

  void add(std::size_t at, float red, float green, float blue) {
    colours[0][at] += red;
    colours[1][at] += green;
    colours[2][at] += blue;
  }
};

// Smooth noise of one size of detail, added to every colour in another measure.
void addDetail(Scene& scene, double period, float strength, std::mt19937& random) {
  const int columns = static_cast<int>(scene.width / period) + 2;
  const int rows = static_cast<int>(scene.height / period) + 2;
  Plane knots(static_cast<std::size_t>(columns) * static_cast<std::size_t>(rows));
  std::uniform_real_distribution<float> value(-1, 1);
  for (float& knot : knots) knot = value(random);
  const float green = value(random) * 0.2F + 0.8F;
  const float blue = value(random) * 0.4F + 0.6F;
  for (int y = 0; y < scene.height; ++y) {
    const double knotY = y / period;
    const auto row = static_cast<std::size_t>(knotY) * static_cast<std::size_t>(columns);
    const auto down = static_cast<float>(knotY - std::floor(knotY));
    for (int x = 0; x < scene.width; ++x) {
      const double knotX = x / period;
      const std::size_t at = row + static_cast<std::size_t>(knotX);
      const auto right = static_cast<float>(knotX - std::floor(knotX));
      const auto below = at + static_cast<std::size_t>(columns);
      const float above = std::lerp(knots[at], knots[at + 1], right);
      const float sum =
          strength * std::lerp(above, std::lerp(knots[below], knots[below + 1], right), down);
      scene.add(static_cast<std::size_t>(y) * static_cast<std::size_t>(scene.width) +
                    static_cast<std::size_t>(x),
                sum, sum * green, sum * blue);
    }
  }
}

// Things with edges: boxes of one colour, lighter at one side.
void addBoxes(Scene& scene, int count, std::mt19937& random) {
  const auto any = [&random](int from, int to) {
    return std::uniform_int_distribution(from, to)(random);
  };
  for (int i = 0; i < count; ++i) {
    const int width = any(scene.width / 30, scene.width / 6);
    const int height = any(scene.height / 30, scene.height / 4);
    const int left = any(0, scene.width - width);
    const int top = any(0, scene.height - height);
    const std::array colour = {static_cast<float>(any(-60, 60)), static_cast<float>(any(-60, 60)),
                               static_cast<float>(any(-60, 60))};
    for (int y = top; y < top + height; ++y) {
      for (int x = left; x < left + width; ++x) {
        const float shade = 0.5F + 0.5F * static_cast<float>(x - left) / static_cast<float>(width);
        scene.add(static_cast<std::size_t>(y) * static_cast<std::size_t>(scene.width) +
                      static_cast<std::size_t>(x),
                  colour[0] * shade, colour[1] * shade, colour[2] * shade);
      }
    }
  }
}

Scene drawScene(client::FrameSize size) {
  Scene scene{size.width + 2 * marginPixels, size.height + 2 * marginPixels, {}};
  const auto pixels =
      static_cast<std::size_t>(scene.width) * static_cast<std::size_t>(scene.height);
  for (Plane& plane : scene.colours) plane.assign(pixels, 118);
  std::mt19937 random(20);
  // As in nature, the smaller the detail the weaker.
  for (double period = size.width / 3.0; period >= 2; period /= 2.2) {
    addDetail(scene, period, static_cast<float>(8 + 2.2 * std::sqrt(period)), random);
  }
  addBoxes(scene, 60, random);
  return scene;
}

// Where the camera looks in one picture.
struct View {
  double left;
  double top;
  double scale;
};

float sample(const Plane& plane, int width, double x, double y) {
  const auto at =
      static_cast<std::size_t>(y) * static_cast<std::size_t>(width) + static_cast<std::size_t>(x);
  const auto right = static_cast<float>(x - std::floor(x));
  const auto down = static_cast<float>(y - std::floor(y));
  const auto below = at + static_cast<std::size_t>(width);
  const float above = plane[at] + (plane[at + 1] - plane[at]) * right;
  return above + (plane[below] + (plane[below + 1] - plane[below]) * right - above) * down;
}

std::vector<std::int8_t> sensorNoise() {
  std::vector<std::int8_t> noise(noiseSamples);
  std::mt19937 random(21);
  std::normal_distribution<double> deviation(0, noiseDeviation);
  for (auto& value : noise) {
    value = static_cast<std::int8_t>(std::clamp(std::lround(deviation(random)), -127L, 127L));
  }
  return noise;
}

// A ball that goes round in front of the scene, striped so that it has texture.
bool isBall(double x, double y, client::FrameSize size, double turn, float& light) {
  const double radius = size.height / 7.0;
  const double fromX = x - size.width * (0.5 + 0.2 * std::cos(turn));
  const double fromY = y - size.height * (0.5 + 0.2 * std::sin(turn));
  if (fromX * fromX + fromY * fromY > radius * radius) return false;
  light = static_cast<float>(150 + 60 * std::sin(fromX * 40 / radius) - fromY * 40 / radius);
  return true;
}

}  // namespace

CameraClip::CameraClip(client::FrameSize size, int frames) : size_(size) {
  const Scene scene = drawScene(size);
  const std::vector<std::int8_t> noise = sensorNoise();
  std::mt19937 random(22);
  for (int i = 0; i < frames; ++i) {
    const double turn = 2 * std::numbers::pi * i / frames;
    const double sway = swayPixels * size.width / 1920;
    const View view{marginPixels - zoom * size.width / 2 + sway * std::sin(turn),
                    marginPixels - zoom * size.height / 2 + sway * std::sin(2 * turn) / 2,
                    1 + zoom / 2 + zoom / 2 * std::cos(turn)};
    PictureMemory& frame = memory_.emplace_back(PicturePool::make()->allocate(size.bytes()));
    if (!frame) throw std::bad_alloc();
    for (int y = 0; y < size.height; ++y) {
      std::uint8_t* to = frame.get() + static_cast<std::size_t>(size.height - 1 - y) *
                                           static_cast<std::size_t>(size.width) * 4;
      std::size_t grain = random() % noiseSamples;
      for (int x = 0; x < size.width; ++x, to += 4) {
        float light = 0;
        const bool ball = isBall(x, y, size, turn, light);
        for (std::size_t c = 0; c < 3; ++c) {
          const float seen = ball ? light
                                  : sample(scene.colours[c], scene.width,
                                           view.left + x * view.scale, view.top + y * view.scale);
          grain = (grain + 1) % noiseSamples;
          to[c] = static_cast<std::uint8_t>(
              std::clamp(seen + static_cast<float>(noise[grain]), 0.0F, 255.0F));
        }
        to[3] = 255;
      }
    }
    frames_.emplace_back(frame.get(), size.bytes());
  }
  runPipeline({"cat"}, *this, firstNumbers(frames));
}

std::span<const std::uint8_t> CameraClip::next(std::uint64_t number, double) {
  return frames_[(number - 1) % frames_.size()];
}

}  // namespace lumora::bench
