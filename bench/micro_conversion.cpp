// Frame conversion for every pair of sizes that cameras, previews and recording profiles make,
// each beside its physical limit: copying the source once.

#include <benchmark/benchmark.h>
#include <libyuv.h>

#include <cstring>

#include "encode/picture_size.h"
#include "platform/libav_encoder.h"
#include "platform/system_image_converter.h"

namespace lumora {
namespace {

Bytes noise(PictureSize size) {
  Bytes pixels(static_cast<std::size_t>(size.width * size.height * 4));
  std::uint32_t state = 1;
  for (auto& byte : pixels) {
    state = state * 1664525 + 1013904223;
    byte = static_cast<std::uint8_t>(state >> 24);
  }
  return pixels;
}

void convert(benchmark::State& state) {
  const PictureSize from{state.range(0), state.range(1)};
  const PictureSize to = fitRectangle(from, {state.range(2), state.range(3)}).size;
  const Bytes source = noise(from);
  Bytes destination(static_cast<std::size_t>(to.width * to.height * 4));
  SystemImageConverter images;
  for (auto _ : state) {
    images.convert({source.data(), from.width, from.height, from.width * 4},
                   {destination.data(), to.width, to.height, to.width * 4});
    benchmark::ClobberMemory();
  }
}

void copySource(benchmark::State& state) {
  const Bytes source = noise({state.range(0), state.range(1)});
  Bytes destination(source.size());
  for (auto _ : state) {
    std::memcpy(destination.data(), source.data(), source.size());
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

// Permutation and flip, then 4:2:0: everything that happens to a picture that is not scaled.
void permuteAndSubsample(benchmark::State& state) {
  const PictureSize size{1920, 1080};
  const Bytes source = noise(size);
  Bytes bgra(source.size());
  Bytes planes(source.size() / 8 * 3);
  std::uint8_t* u = planes.data() + size.width * size.height;
  std::uint8_t* v = u + size.width * size.height / 4;
  SystemImageConverter images;
  const int width = static_cast<int>(size.width);
  for (auto _ : state) {
    images.convert({source.data(), size.width, size.height, size.width * 4},
                   {bgra.data(), size.width, size.height, size.width * 4});
    libyuv::ARGBToI420(bgra.data(), width * 4, planes.data(), width, u, width / 2, v, width / 2,
                       width, static_cast<int>(size.height));
    benchmark::ClobberMemory();
  }
}

BENCHMARK(convert)->Apply(pairs);
BENCHMARK(copySource)->Unit(benchmark::kMillisecond)->Args({1920, 1080})->Args({1280, 720});
BENCHMARK(permuteAndSubsample)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace lumora
