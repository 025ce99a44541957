// What finishing a take costs, by the length of the take; beside it a sync of an empty file.

#include <benchmark/benchmark.h>
#include <malloc.h>
#include <unistd.h>

#include <filesystem>
#include <future>

#include "platform/hybrid_movie_writer.h"
#include "platform/memory_sample.h"

namespace lumora {
namespace {

std::size_t heapBytesInUse() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

void finishTake(benchmark::State& state) {
  const auto samples = state.range(0) * 60;
  const auto format =
      std::make_shared<MemoryFormatDescription>(Bytes{0x67, 0x64, 0x00, 0x1F}, Bytes{0x68, 0xEE},
                                                1920, 1080, ColourDescription{1, 13, 6, false});
  const MemorySample sample(Bytes{0, 0, 0, 4, 0x65, 0, 0, 0}, format);
  const std::string path = std::filesystem::temp_directory_path() / "lumora-bench.mp4";
  std::size_t grown = 0;  // what the writer holds at the end of the take
  for (auto _ : state) {
    state.PauseTiming();
    std::filesystem::remove(path);
    std::string error;
    const std::size_t before = heapBytesInUse();
    const auto writer = HybridMovies().createWriter(path, error);
    writer->startWriting(format);
    // Jittered, so that every sample has a duration of its own: the largest tables.
    for (std::int64_t i = 0; i < samples; ++i) {
      while (!writer->isReadyForMoreMediaData()) usleep(1000);
      writer->append(sample, i % 60 == 0, {i * 1000 + i % 7, 1000});
    }
    sleep(1);  // what is queued reaches the disk
    grown = heapBytesInUse() - before;
    std::promise<void> done;
    state.ResumeTiming();
    writer->finishWriting(samples * 1000, [&] { done.set_value(); });
    done.get_future().wait();
  }
  state.counters["memory_MB"] = static_cast<double>(grown) / 1e6;
  std::filesystem::remove(path);
}

BENCHMARK(finishTake)
    ->ArgName("seconds")
    ->Arg(10)
    ->Arg(3600)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(5);

}  // namespace
}  // namespace lumora
