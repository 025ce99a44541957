// Frame conversion for every pair of sizes that cameras, previews and recording profiles make,
// each beside its physical limit: copying the source once.

#include <benchmark/benchmark.h>
#include <libyuv.h>

#include <cstring>
#include <new>
#include <span>

#include "base/picture_memory.h"
#include "encode/picture_size.h"
#include "picture/rgb_to_yuv.h"
#include "picture/system_image_converter.h"

namespace lumora {
namespace {

// Memory as the service has it for its pictures, touched.
PictureMemory picture(PictureSize size) {
  const auto bytes = static_cast<std::size_t>(size.width * size.height * 4);
  PictureMemory pixels = PicturePool::make()->allocate(bytes);
  if (!pixels) throw std::bad_alloc();
  std::uint32_t state = 1;
  for (std::uint8_t& byte : std::span(pixels.get(), bytes)) {
    state = state * 1664525 + 1013904223;
    byte = static_cast<std::uint8_t>(state >> 24);
  }
  return pixels;
}

void convert(benchmark::State& state) {
  const PictureSize from{state.range(0), state.range(1)};
  const PictureSize to = fitRectangle(from, {state.range(2), state.range(3)}).size;
  const PictureMemory source = picture(from);
  const PictureMemory destination = picture(to);
  SystemImageConverter images;
  for (auto _ : state) {
    images.convert(pictureAt<const std::uint8_t>(source.get(), {}, from),
                   pictureAt(destination.get(), {PixelLayout::bgra}, to), {0, 0, to});
    benchmark::ClobberMemory();
  }
}

void copySource(benchmark::State& state) {
  const PictureSize size{state.range(0), state.range(1)};
  const PictureMemory source = picture(size);
  const PictureMemory destination = picture(size);
  for (auto _ : state) {
    std::memcpy(destination.get(), source.get(),
                static_cast<std::size_t>(size.width * size.height * 4));
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

// To 4:2:0 with `convertPicture(bgra, y, u, v)`.
template <typename Convert>
void subsample(benchmark::State& state, Convert convertPicture) {
  const PictureSize size{state.range(0), state.range(1)};
  const PictureMemory bgra = picture(size);
  const PictureMemory planes = picture(size);
  const Plane y{planes.get(), size.width};
  const Plane u{y.samples + size.width * size.height, size.width / 2};
  const Plane v{u.samples + size.width * size.height / 4, size.width / 2};
  for (auto _ : state) {
    convertPicture(pictureAt<const std::uint8_t>(bgra.get(), {PixelLayout::bgra}, size), y, u, v);
    benchmark::ClobberMemory();
  }
}

void toBT709(benchmark::State& state) {
  subsample(state, [](const PictureView& bgra, Plane y, Plane u, Plane v) {
    convertToI420(bgra, y, u, v);
  });
}

// libyuv's, for BT.601; it has none for BT.709.
void toBT601(benchmark::State& state) {
  subsample(state, [](const PictureView& bgra, Plane y, Plane u, Plane v) {
    const int width = static_cast<int>(bgra.size.width);
    libyuv::ARGBToI420(bgra.planes[0].samples, width * 4, y.samples, width, u.samples, width / 2,
                       v.samples, width / 2, width, static_cast<int>(bgra.size.height));
  });
}

BENCHMARK(convert)->Apply(pairs);
BENCHMARK(copySource)->Unit(benchmark::kMillisecond)->Args({1920, 1080})->Args({1280, 720});
BENCHMARK(toBT709)->Unit(benchmark::kMillisecond)->Args({1920, 1080})->Args({640, 360});
BENCHMARK(toBT601)->Unit(benchmark::kMillisecond)->Args({1920, 1080})->Args({640, 360});

}  // namespace
}  // namespace lumora
