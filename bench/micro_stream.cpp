// What a frame costs besides conversion and encoding: reading it, walking and packing its sample,
// writing an event. Each beside its physical limit: a copy of the same bytes, a bare `read` loop.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <thread>

#include "app/event.h"
#include "client/records.h"
#include "encode/nal_units.h"
#include "input/raw_frame.h"
#include "input/record_header.h"
#include "platform/annex_b.h"
#include "platform/memory_sample.h"
#include "stream/packet.h"

namespace lumora {
namespace {

// A key frame as a 4 Mbit/s preview has them.
constexpr std::size_t sampleBytes = 40'000;
constexpr std::size_t frameBytes = 1920 * 1080 * 4;

std::shared_ptr<MemorySample> makeSample() {
  Bytes unit(sampleBytes, 0x55);
  unit[0] = 0x65;
  Bytes data;
  appendLengthPrefixed(data, unit);
  return std::make_shared<MemorySample>(
      std::move(data), std::make_shared<MemoryFormatDescription>(Bytes(24, 0x67), Bytes(4, 0x68),
                                                                 640, 360, ColourDescription()));
}

void buildPackets(benchmark::State& state) {
  const auto sample = makeSample();
  for (auto _ : state) benchmark::DoNotOptimize(prepareFrame(*sample, 7, 640, 360));
}

void copySample(benchmark::State& state) {
  const Bytes from(sampleBytes);
  for (auto _ : state) {
    Bytes copy(from);
    benchmark::DoNotOptimize(copy);
  }
}

void walkSample(benchmark::State& state) {
  Bytes data;
  for (int i = 0; i < 8; ++i) appendLengthPrefixed(data, Bytes(sampleBytes / 8, 0x41));
  for (auto _ : state) benchmark::DoNotOptimize(walkNalUnits(ByteView(data)));
}

void splitStartCodes(benchmark::State& state) {
  Bytes stream(sampleBytes, 0x55);
  for (std::size_t i = 0; i < 8; ++i)
    stream[i * 5000] = stream[i * 5000 + 1] = 0, stream[i * 5000 + 2] = 1;
  for (auto _ : state) benchmark::DoNotOptimize(splitAnnexB(stream));
}

void writeEvent(benchmark::State& state) {
  Json event = {{"type", "stats"}};
  for (int i = 0; i < 24; ++i) event["some_statistic_" + std::to_string(i)] = i * 1.25;
  for (auto _ : state) benchmark::DoNotOptimize(eventLine(event));
}

// A parent that writes frames into a pipe for as long as somebody reads.
class Writer {
 public:
  Writer() {
    if (pipe(ends_) != 0) std::abort();
    fcntl(ends_[0], F_SETPIPE_SZ, 1 << 20);
    thread_ = std::thread([this] {
      const Bytes frame(frameBytes, 1);
      const auto header = client::frameHeader({1920, 1080}, 1);
      while (put(header.data(), header.size()) && put(frame.data(), frame.size())) {
      }
    });
  }
  ~Writer() {
    close(ends_[0]);
    thread_.join();
    close(ends_[1]);
  }
  Writer(const Writer&) = delete;
  Writer& operator=(const Writer&) = delete;

  bool get(std::uint8_t* space, std::size_t size) const {
    while (size > 0) {
      const ssize_t count = read(ends_[0], space, size);
      if (count <= 0) return false;
      space += count;
      size -= static_cast<std::size_t>(count);
    }
    return true;
  }

 private:
  bool put(const std::uint8_t* bytes, std::size_t size) const {
    while (size > 0) {
      const ssize_t count = write(ends_[1], bytes, size);
      if (count <= 0) return false;
      bytes += count;
      size -= static_cast<std::size_t>(count);
    }
    return true;
  }

  int ends_[2] = {};
  std::thread thread_;
};

// As the reader does it: header, checks, a recycled buffer, the payload straight into it.
void readRecord(benchmark::State& state) {
  const Writer parent;
  const auto pool = std::make_shared<FrameBufferPool>();
  for (auto _ : state) {
    std::uint8_t bytes[recordHeaderBytes];
    parent.get(bytes, sizeof bytes);
    const RecordHeader header = decodeRecordHeader(bytes);
    if (!isValidFrame(header, 0)) state.SkipWithError("bad frame");
    const FrameBuffer buffer = pool->take(header.length);
    parent.get(buffer.data(), header.length);
  }
}

void readBare(benchmark::State& state) {
  const Writer parent;
  const Bytes space(frameBytes + recordHeaderBytes);
  for (auto _ : state) parent.get(const_cast<std::uint8_t*>(space.data()), space.size());
}

BENCHMARK(buildPackets)->Unit(benchmark::kMicrosecond);
BENCHMARK(copySample)->Unit(benchmark::kMicrosecond);
BENCHMARK(walkSample)->Unit(benchmark::kMicrosecond);
BENCHMARK(splitStartCodes)->Unit(benchmark::kMicrosecond);
BENCHMARK(writeEvent)->Unit(benchmark::kMicrosecond);
BENCHMARK(readRecord)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(readBare)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace lumora

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);  // the parent of a pipe that is closed stops writing
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
}
