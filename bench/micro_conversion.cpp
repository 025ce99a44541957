// Measures the scaling of camera pictures to the sizes of previews and takes, and the
// conversion of RGB to 4:2:0. Also measures plain copies of RGBA and NV12 pictures, for comparison.
// Pictures are read from memory, not from the cache.

#include <benchmark/benchmark.h>
#include <libyuv.h>

#include <cstring>
#include <new>
#include <span>
#include <vector>

#include "base/picture_memory.h"
#include "encode/picture_size.h"
#include "picture/rgb_to_yuv.h"
#include "picture/system_image_converter.h"

namespace lumora {
namespace {

// A picture of noise in memory from a pool, as in the service. Its pages are in memory before a
// benchmark begins.
PictureMemory picture(PictureSize size, PixelLayout layout = PixelLayout::rgba) {
  const std::size_t bytes = pictureBytes(layout, size);
  PictureMemory pixels = PicturePool::make()->allocate(bytes);
  if (!pixels) throw std::bad_alloc();
  std::uint32_t state = 1;
  for (std::uint8_t& byte : std::span(pixels.get(), bytes)) {
    state = state * 1664525 + 1013904223;
    byte = static_cast<std::uint8_t>(state >> 24);
  }
  return pixels;
}

// Gives pictures in turn, as a camera does. Together they are larger than most caches. So a picture
// is not in the cache when its turn comes.
class ColdPictures {
 public:
  ColdPictures(PictureSize size, PixelLayout layout) {
    constexpr std::size_t wanted = 128'000'000;
    const std::size_t bytes = pictureBytes(layout, size);
    for (std::size_t total = 0; total < wanted; total += bytes)
      pictures_.push_back(picture(size, layout));
  }
  const std::uint8_t* next() { return pictures_[++last_ % pictures_.size()].get(); }

 private:
  std::vector<PictureMemory> pictures_;
  std::size_t last_ = 0;
};

void convert(benchmark::State& state, PixelLayout from, PixelLayout to) {
  const PictureSize camera{state.range(0), state.range(1)};
  const PictureSize session{state.range(2), state.range(3)};
  ColdPictures source(camera, from);
  const PictureMemory destination = picture(session, to);
  SystemImageConverter images;
  for (auto _ : state) {
    images.convert(pictureAt(source.next(), {.layout = from}, camera),
                   pictureAt(destination.get(), {.layout = to}, session),
                   fitRectangle(camera, session));
    benchmark::ClobberMemory();
  }
}

void copySource(benchmark::State& state, PixelLayout layout) {
  const PictureSize size{state.range(0), state.range(1)};
  ColdPictures source(size, layout);
  const PictureMemory destination = picture(size, layout);
  for (auto _ : state) {
    std::memcpy(destination.get(), source.next(), pictureBytes(layout, size));
    benchmark::ClobberMemory();
  }
}

void pairs(benchmark::internal::Benchmark* bench) {
  bench->Unit(benchmark::kMillisecond)->ArgNames({"w", "h", "to_w", "to_h"});
  for (const PictureSize camera :
       {PictureSize{1920, 1080}, {1280, 720}, {640, 480}, {1080, 1920}}) {
    for (const PictureSize to : {PictureSize{640, 360}, {1080, 720}, {1920, 1080}}) {
      bench->Args({camera.width, camera.height, to.width, to.height});
    }
  }
}

// Measures `convertPicture(bgra, planes)`, which converts to 4:2:0.
template <typename Convert>
void subsample(benchmark::State& state, Convert convertPicture) {
  const PictureSize size{state.range(0), state.range(1)};
  ColdPictures source(size, PixelLayout::bgra);
  const PictureMemory planes = picture(size, PixelLayout::i420);
  const Picture i420 = pictureAt(planes.get(), {.layout = PixelLayout::i420}, size);
  for (auto _ : state) {
    convertPicture(pictureAt(source.next(), {.layout = PixelLayout::bgra}, size), i420.planes);
    benchmark::ClobberMemory();
  }
}

void toBT709(benchmark::State& state) {
  subsample(state, [](const PictureView& bgra, const auto& planes) {
    convertToI420(bgra, planes[0], planes[1], planes[2]);
  });
}

// libyuv's `ARGBToI420` converts for BT.601 only.
void toBT601(benchmark::State& state) {
  subsample(state, [](const PictureView& bgra, const auto& planes) {
    const int width = static_cast<int>(bgra.size.width);
    libyuv::ARGBToI420(bgra.planes[0].samples, width * 4, planes[0].samples, width,
                       planes[1].samples, width / 2, planes[2].samples, width / 2, width,
                       static_cast<int>(bgra.size.height));
  });
}

void cameras(benchmark::internal::Benchmark* bench) {
  bench->Unit(benchmark::kMillisecond)->Args({1920, 1080})->Args({1280, 720});
}

BENCHMARK_CAPTURE(convert, rgba, PixelLayout::rgba, PixelLayout::bgra)->Apply(pairs);
BENCHMARK_CAPTURE(convert, nv12, PixelLayout::nv12, PixelLayout::nv12)->Apply(pairs);
BENCHMARK_CAPTURE(copySource, rgba, PixelLayout::rgba)->Apply(cameras);
BENCHMARK_CAPTURE(copySource, nv12, PixelLayout::nv12)->Apply(cameras);
BENCHMARK(toBT709)->Unit(benchmark::kMillisecond)->Args({1920, 1080})->Args({640, 360});
BENCHMARK(toBT601)->Unit(benchmark::kMillisecond)->Args({1920, 1080})->Args({640, 360});

}  // namespace
}  // namespace lumora
