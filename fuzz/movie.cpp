// Fuzzes the movie writer, with and without sound: the samples, their durations, the movie's end.
// libavformat reads each finished movie, then the same file cut off as after a crash.

#include <fuzzer/FuzzedDataProvider.h>

#include <future>

#include "fuzz/fuzzed_service.h"
#include "mp4/hybrid_movie_writer.h"
#include "tests/unit/movie_reader.h"

namespace lumora {
namespace {

struct MemorySink final : ByteSink {
  MemorySink(Bytes& to, std::vector<std::size_t>& sizes) : bytes(to), synced(sizes) {}
  int reserve(std::uint64_t) override { return 0; }
  void releaseRoom() override {}
  int write(ByteView more) override {
    bytes.insert(bytes.end(), more.begin(), more.end());
    return 0;
  }
  int overwrite(std::uint64_t offset, ByteView with) override {
    std::ranges::copy(with, bytes.begin() + static_cast<std::ptrdiff_t>(offset));
    return 0;
  }
  int sync() override {
    synced.push_back(bytes.size());
    return 0;
  }
  std::uint64_t size() const override { return bytes.size(); }
  std::optional<std::uint64_t> freeBytes() const override { return {}; }
  Bytes& bytes;
  std::vector<std::size_t>& synced;  // the size of the file at each sync
};

void fuzzMovie(FuzzedDataProvider& input) {
  Bytes bytes;
  std::vector<std::size_t> synced;
  std::vector<std::size_t> samplesAtSync = {0};
  std::vector<MovieTiming> timings;
  const bool hasSound = input.ConsumeBool();
  std::size_t packets = 0;  // of sound
  std::int64_t end = 0;
  WriterStatus status = WriterStatus::idle;
  {
    HybridMovieWriter writer(std::make_unique<MemorySink>(bytes, synced), 0);
    require(!hasSound || writer.addTrack({48000, 2, 1024, {0x11, 0x90}}));
    require(writer.startWriting(keySample()->format(), 0));
    std::int64_t time = 0;
    std::int64_t fragment = 0;
    while (input.remaining_bytes() > 8 && timings.size() < 400) {
      for (int i = hasSound ? input.ConsumeIntegralInRange(0, 60) : 0; i > 0; --i, ++packets)
        require(writer.append(Bytes(9 + packets % 300, 0x11)));
      const std::int64_t duration =
          input.ConsumeBool() ? input.ConsumeIntegralInRange<std::int64_t>(1, 5000)
                              : input.ConsumeIntegralInRange<std::int64_t>(1, longestSample);
      const bool keyframe = input.ConsumeBool();
      const std::size_t size = input.ConsumeIntegralInRange<std::size_t>(4, 3000);
      timings.push_back({time, duration});
      require(writer.append(keyframe ? *keySample(size) : *deltaSample(size), keyframe,
                            timings.back()));
      time += duration;
      if (time - fragment < HybridMovieWriter::fragmentDuration) continue;
      samplesAtSync.push_back(timings.size());
      fragment = time;
    }
    if (samplesAtSync.back() != timings.size()) samplesAtSync.push_back(timings.size());
    end = input.ConsumeBool() ? time : input.ConsumeIntegralInRange<std::int64_t>(0, time + 100000);
    std::promise<void> done;
    writer.finishWriting(end, [&] { done.set_value(); });
    done.get_future().wait();
    status = writer.status();
  }
  const auto inside = static_cast<std::size_t>(
      std::ranges::count_if(timings, [&](const MovieTiming& one) { return one.time < end; }));
  require((status == WriterStatus::completed) == (inside > 0));
  if (inside == 0) return;
  const MovieContents read = readMovie(bytes);
  require(read.opened && read.times.size() == inside);
  for (std::size_t i = 0; i < inside; ++i) require(read.times[i] == timings[i].time);
  require(read.duration ==
          timings[inside - 1].time + std::min(end - timings[inside - 1].time, longestSample));
  const auto soundEnd = static_cast<std::uint64_t>(1024 + end * 48000 / movieTimescale);
  packets = std::min<std::size_t>(packets, (soundEnd + 1023) / 1024);
  // A single packet is not counted: it is all priming, which the edit list hides.
  require(packets < 2 || readMovie(bytes, 1).times.size() == packets);
  // Puts back the placeholder of an unfinished movie, then cuts the file off at page boundaries.
  const Bytes free = {0, 0, 0, 16, 'f', 'r', 'e', 'e', 0, 0, 0, 0, 0, 0, 0, 0};
  std::ranges::copy(free, bytes.begin() + static_cast<std::ptrdiff_t>(placeholderOffset()));
  constexpr std::size_t page = 4096;
  const std::size_t step = page * (1 + bytes.size() / page / 3);
  for (std::size_t cut = step; cut < bytes.size(); cut += step) {
    const MovieContents part = readMovie(ByteView(bytes).first(cut));
    const auto syncs = std::ranges::count_if(synced, [&](std::size_t at) { return at <= cut; });
    require(part.opened);
    require(syncs == 0 || hasSound ||  // with sound, some syncs add no picture
            part.times.size() >= samplesAtSync.at(static_cast<std::size_t>(syncs) - 1));
  }
}

}  // namespace
}  // namespace lumora

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider input(data, size);
  lumora::fuzzMovie(input);
  return 0;
}
