// Sound: which records are valid, and where they lie in a take of two hours. A tone of 1 kHz is
// encoded and decoded. Its length, its place and its noise are checked.

#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <deque>
#include <numbers>
#include <random>
#include <utility>

#include "codec/aac_encoder.h"
#include "sound/device_clock.h"
#include "sound/sound_placing.h"

namespace lumora {
namespace {

TEST(SoundRecord, HasAGrowingIdWholeSamplesAndARecentTime) {
  const SoundFormat stereo{11025, 2};  // a quarter of a second is 2756.25 samples
  EXPECT_TRUE(isValidSound(1, 0, 4, stereo) && isValidSound(9, 8, 2756 * 4, stereo));
  EXPECT_FALSE(isValidSound(0, 0, 4, stereo) || isValidSound(8, 8, 4, stereo));
  for (const std::uint32_t bytes : {0u, 6u, 2757u * 4, 0xFFFFFFFCu})
    EXPECT_FALSE(isValidSound(9, 8, bytes, stereo)) << bytes;
  EXPECT_TRUE(isTimely(100.0499, 100) && isTimely(70.001, 100));
  EXPECT_FALSE(isTimely(100.051, 100) || isTimely(69.999, 100));
}

TEST(SoundRecord, IsDroppedWhenItAndLaterOnesSpanTooMuchTimeOrTooManySamples) {
  std::deque<SoundRecord> records = {{1, 4000}, {2, 4000}, {2.5, 4000}};
  keepLatest(records, 1.5, 8000);
  EXPECT_EQ(records.size(), 3u);
  records.push_back({2.6, 0});
  keepLatest(records, 1.5, 8000);
  EXPECT_EQ(records.front().capturedAt, 2);
  records.push_back({1, 4001});  // the clock has jumped
  keepLatest(records, 1.5, 8000);
  EXPECT_EQ(records.front().capturedAt, 2.5);
}

TEST(DeviceClock, HoldsRecordsWithUnexpectedTimesUntilTheyAreCertain) {
  DeviceClock clock(48000);
  double captured = 10;
  const auto add = [&](double late) {
    return clock.add({std::exchange(captured, captured + 0.02) + late, 960}).size();
  };
  EXPECT_EQ(add(0) + add(0) + add(0), 3u);
  EXPECT_EQ(add(0.2), 0u);  // read late
  EXPECT_EQ(add(0), 2u);
  EXPECT_EQ(add(1) + add(1) + add(1), 0u);  // a jump
  EXPECT_EQ(add(1), 4u);
  int held = 0;
  for (double late = 2; add(late) == 0; late += 0.03) ++held;
  EXPECT_NEAR(held, 12, 1);  // no two agree, so they are held until their times span 0.6 s
  held = 0;
  for (double late = 9; add(late) == 0; late -= 0.019) ++held;
  EXPECT_NEAR(held, 100, 1);  // read together, so they are held until their sound lasts 2 s
  EXPECT_EQ(add(1), 0u);
  EXPECT_EQ(clock.flush().size(), 1u);
}

TEST(DeviceClock, FollowsAShortStepAtOnceUnlessTimesScatter) {
  DeviceClock clock(48000);
  double captured = 10;
  double off = 0;    // seconds between the stated and the smoothed time of the last record
  double drift = 0;  // as the clock measures it
  const auto add = [&](double late) {
    const double stated = std::exchange(captured, captured + 0.05 * (1 + 1e-4)) + late;
    const std::vector<SoundRecord> known = clock.add({stated, 2400});
    if (known.empty()) return known.size();
    off = std::abs(known.back().capturedAt - stated);
    drift = known.back().drift;
    return known.size();
  };
  EXPECT_EQ(add(0), 1u);
  EXPECT_EQ(add(0.015), 1u);  // at first, times may scatter
  for (int i = 0; i < 300; ++i) EXPECT_EQ(add(0), 1u);
  for (const double late : {0.02, 0.04, 0.02}) {
    EXPECT_EQ(add(late) + add(late) + add(late), 0u) << late;
    EXPECT_EQ(add(late), 4u) << late;
    EXPECT_LT(off, 1e-3);
  }
  for (int i = 0; i < 80; ++i) EXPECT_EQ(add(0.02), 1u);
  EXPECT_EQ(add(0.04), 1u);  // not held: soon after a step back, another step may be scatter
  EXPECT_GT(off, 0.015);
  for (int i = 0; i < 25; ++i) EXPECT_EQ(add(0.04), 1u);
  EXPECT_LT(off, 1e-3);
  EXPECT_NEAR(drift, 1e-4, 2e-5);  // steps do not change the drift
  EXPECT_EQ(add(0.06) + add(0.06) + add(0.06), 0u);
  for (int i = 0; i < 600; ++i) add(0.06);
  EXPECT_EQ(add(0.04) + add(0.04) + add(0.04), 0u);
  EXPECT_EQ(add(0.04), 4u);
  EXPECT_EQ(add(0.06), 0u);  // held: the step back came 30 s after the step, so this is no scatter
}

TEST(DeviceClock, FollowsASteadyParentThatWritesTwoRecordsAtATime) {
  DeviceClock clock(48000);
  double last = 0;
  for (double at = 10; at < 40; at += at < 20 ? 0.5 : 0.6) {  // from 20 on, 0.1 s is lost each time
    EXPECT_LE(clock.add({at, 12000}).size(), 3u);
    for (const SoundRecord& known : clock.add({at + 0.25, 12000})) last = known.capturedAt;
    for (const SoundRecord& known : clock.flush()) last = known.capturedAt;
    EXPECT_NEAR(last, at + 0.25, 0.01);
  }
}

TEST(DeviceClock, HasNoJumpsWhereManyShortRecordsAreReadTogether) {
  DeviceClock clock(48000);
  double last = 0;
  for (int i = 0; i < 6000; ++i) {
    const double readAt = std::ceil((i + 1) / 20.0) * 0.2 + i * 1e-6;
    for (const SoundRecord& known : clock.add({readAt, 480})) {
      const double step = known.capturedAt - std::exchange(last, known.capturedAt);
      EXPECT_TRUE(i < 1000 || std::abs(step - 0.01) < 0.005) << i;
    }
  }
  EXPECT_NEAR(last, 60, 1);
}

TEST(SoundPlacing, FillsGapsAndCutsTheBeginningExactToASample) {
  SoundPlacing early(48000, 10);
  EXPECT_EQ(early.place({9.98, 960}, 0).cut, 960);
  EXPECT_EQ(early.place({9.995, 960}, 0).cut, 240);
  EXPECT_NEAR(early.missing(10.02), 0.005, 1e-9);
  SoundPlacing late(8000, 10);
  EXPECT_EQ(late.place({10.005, 2000}, 0).silence, 40);
  EXPECT_NEAR(late.missing(10.001), 0.001, 1e-9);  // never more than the movie's length
  SoundPlacing stopped(48000, 10);
  stopped.place({10, 48000}, 0);
  EXPECT_EQ(stopped.fill(31, 1), 20 * 48000);
  EXPECT_NEAR(stopped.missing(11.5), 0.5, 1e-9);  // the movie ends within this gap
  EXPECT_EQ(stopped.place({32, 960}, 21).silence, 48000);
  EXPECT_EQ(stopped.place({33, 960}, 22.02).silence, 47040);
  EXPECT_NEAR(stopped.missing(11.5), 0.5, 1e-9);  // the later gap lies behind the movie's end
  EXPECT_EQ(stopped.gaps(11.5), 1);
  EXPECT_EQ(stopped.gaps(33), 2);
  EXPECT_EQ(early.gaps(20) + late.gaps(20), 0);
}

struct Device {
  const char* what;
  int rate = 48000;
  double before = 10;     // seconds of sound in front of the take
  int samples = 960;      // of a record; 0: random numbers
  double slow = 100;      // ppm at the start; falls by a third as the device warms up
  double jump = 0;        // seconds that the times gain after an hour
  int lost = 0;           // 1 record in `lost` is lost; 0: none
  int gaps = 0;           // expected in the track
  double missing = 0;     // expected; seconds
  double jitter = 0.005;  // seconds that the parent's times are off, at most
  double delay = 0;  // seconds by which the times are late on average; a few are late by much more
  double hang = 0;   // seconds each minute in which the parent reads nothing
  double interval = 0;  // seconds between the parent's looks for records; 0: looks all the time
};

// A take of two hours, with a resampler that is exact.
struct Take {
  static constexpr double start = 1000.03;
  static constexpr double end = start + 7200;
  Device device;
  DeviceClock clock{device.rate};
  SoundPlacing placing{device.rate, start};
  std::deque<double> capturedAt = {};  // true times of the records that the clock still holds
  double length = 0;
  int compensation = 0;
  double worst = 0;        // seconds off
  double afterAnHour = 0;  // seconds off
  int mostCompensation = 0;
  int mostChanged = 0;  // the largest change of `compensation` between two records

  double seconds(std::int64_t samples) const { return static_cast<double>(samples) / device.rate; }

  void run() {
    std::mt19937 random(7);
    std::uniform_real_distribution<> share;
    std::exponential_distribution<> tail;
    double time = start - device.before;
    for (int i = 1; time < end; ++i) {
      if (time > start + 3600) time += std::exchange(device.jump, 0);
      const auto any = std::llround(share(random) * (device.rate * 0.25 - 2)) + 1;
      const std::int64_t samples = device.samples > 0 ? device.samples : any;
      double late = std::max(device.hang - std::fmod(time, 60), device.delay * tail(random));
      if (device.interval > 0)
        late += device.interval / 2 - std::fmod(time + seconds(samples), device.interval);
      const SoundRecord record{time + late + device.jitter * (1 - 2 * share(random)), samples};
      const double slow = device.slow * (1 - (time - start) / (end - start) / 3);
      const double began = std::exchange(time, time + seconds(samples) * (1 + slow * 1e-6));
      if (device.lost > 0 && i % device.lost == 0) continue;
      capturedAt.push_back(began);
      for (const SoundRecord& known : clock.add(record)) place(known);
    }
  }

  void place(const SoundRecord& record) {
    length += seconds(placing.fillBefore(record, Take::end, length));
    const SoundPlacement placement = placing.place(record, length);
    const double wanted = capturedAt.front() - start + seconds(placement.cut);
    capturedAt.pop_front();
    length += seconds(placement.silence);
    if (placement.cut == record.samples) return;
    worst = std::max(worst, std::abs(length - wanted));
    if (wanted < 3600) afterAnHour = std::abs(length - wanted);
    mostCompensation = std::max(mostCompensation, std::abs(placement.compensation));
    if (wanted > 1)
      mostChanged = std::max(mostChanged, std::abs(placement.compensation - compensation));
    compensation = placement.compensation;
    length += seconds(record.samples - placement.cut) * (1 + compensation * 1e-6);
  }
};

TEST(SoundPlacing, KeepsEverySampleWithin10MillisecondsForTwoHours) {
  const Device devices[] = {
      {.what = "fast", .before = 0.03, .samples = 480, .slow = -100},
      {.what = "slow", .rate = 44100, .before = 0.03, .samples = 1024, .slow = 300},
      {.what = "slow, any sizes", .rate = 10000, .before = 0.03, .samples = 0, .slow = 500},
      {.what = "fast, long records", .before = 0.03, .samples = 12000, .slow = -500},
      {.what = "jumps ahead", .rate = 22050, .samples = 0, .jump = 0.2, .gaps = 1, .missing = 0.2},
      {.what = "jumps back", .samples = 12000, .slow = 300, .jump = -0.2, .gaps = 1},
      {.what = "jumps a little", .samples = 2400, .jump = 0.03, .gaps = 1, .missing = 0.03},
      {.what = "jumps back a little", .samples = 4096, .jump = -0.015, .gaps = 1, .jitter = 0.002},
      {.what = "unsteady", .samples = 480, .jump = 0.2, .gaps = 1, .missing = 0.2, .jitter = 0.01},
      {.what = "stops", .rate = 96000, .slow = 300, .jump = 3, .gaps = 1, .missing = 3},
      {.what = "loses records", .lost = 10007, .gaps = 36, .missing = 36 * 0.02},
      {.what = "jitters more", .samples = 9600, .jitter = 0.008},
      {.what = "jitters, long records", .samples = 12000, .jitter = 0.015},
      {.what = "busy machine", .samples = 2400, .jitter = 0, .delay = 0.003},
      {.what = "busy machine, short records", .samples = 480, .jitter = 0, .delay = 0.004},
      {.what = "busy machine, long records", .samples = 12000, .jitter = 0, .delay = 0.003},
      {.what = "hangs", .slow = -300, .hang = 0.2},
      {.what = "hangs, 50 ms", .samples = 2400, .hang = 0.7},
      {.what = "hangs, 60 ms", .samples = 2880, .hang = 0.3},
      {.what = "hangs, any sizes", .samples = 0, .hang = 0.3},
      {.what = "is read at intervals", .samples = 2229, .jitter = 0.001, .interval = 0.05},
      {.what = "is read at short intervals", .samples = 2400, .jitter = 0.001, .interval = 0.045}};
  for (const Device& device : devices) {
    Take take{device};
    take.run();
    EXPECT_LE(take.worst, 0.010) << device.what;
    EXPECT_LE(take.afterAnHour, 0.002 + device.delay) << device.what;
    EXPECT_LE(take.mostCompensation, 550) << device.what;
    EXPECT_LE(take.mostChanged, 26) << device.what;  // ppm; 25 in the longest record, 0.25 s
    EXPECT_EQ(take.placing.gaps(Take::end), device.gaps) << device.what;
    EXPECT_NEAR(take.placing.missing(Take::end), device.missing, 0.004 * (1 + device.gaps))
        << device.what;
  }
}

constexpr double turn = 2 * std::numbers::pi;

// Returns the left channel without the priming.
std::vector<float> decode(const SoundEncoder& encoder, const SoundPackets& packets) {
  const CodecContext decoder(avcodec_alloc_context3(avcodec_find_decoder(AV_CODEC_ID_AAC)));
  const Packet packet(av_packet_alloc());
  const Frame frame(av_frame_alloc());
  const ByteView head = encoder.configuration();
  decoder->extradata_size = static_cast<int>(head.size());
  decoder->extradata = static_cast<std::uint8_t*>(av_memdup(head.data(), head.size()));
  EXPECT_EQ(avcodec_open2(decoder.get(), nullptr, nullptr), 0);
  std::vector<float> left;
  for (Bytes bytes : packets) {
    packet->size = static_cast<int>(bytes.size());
    bytes.resize(bytes.size() + AV_INPUT_BUFFER_PADDING_SIZE);
    packet->data = bytes.data();
    avcodec_send_packet(decoder.get(), packet.get());
    EXPECT_EQ(avcodec_receive_frame(decoder.get(), frame.get()), 0);
    const auto* samples = reinterpret_cast<const float*>(frame->data[0]);
    left.insert(left.end(), samples, samples + frame->nb_samples);
  }
  left.erase(left.begin(), left.begin() + encoder.priming());
  return left;
}

// Fits a tone of `step` radians per sample to 4096 samples, with a Hann window. Expects the phase
// `angle` at the first sample.
void expectTone(const float* samples, double angle, double step, double noise) {
  std::complex<double> tone;
  double energy = 0;
  for (int i = 0; i < 4096; ++i) {
    const double weight = (1 - std::cos(turn * i / 4096)) / 2048;
    tone += weight * samples[i] * std::polar(1.0, turn / 4 - angle - step * i);
    energy += weight * samples[i] * samples[i];
  }
  EXPECT_LT(std::abs(std::arg(tone)), step / 2);  // half a sample
  EXPECT_LT(energy - std::norm(tone), noise * noise);
}

// The compensation alternates between `ppm - jump` and `ppm + jump` every half second.
void keepTone(int rate, int channels, int seconds, int ppm, int jump) {
  SCOPED_TRACE(std::to_string(rate) + " " + std::to_string(ppm) + " " + std::to_string(jump));
  const int trackRate = soundTrackRate(rate);
  std::unique_ptr<SoundEncoder> encoder;
  ASSERT_EQ(AacEncoder::open({rate, trackRate, channels, 160'000}, encoder), 0);
  SoundPackets packets;
  std::vector<std::int16_t> record;
  for (int i = 0; i < seconds * rate; ++i) {
    record.push_back(static_cast<std::int16_t>(30000 * std::sin(turn * 1000 * i / rate)));
    if (channels == 2) record.push_back(0);
    if ((i + 1) % (rate / 50) != 0) continue;
    EXPECT_EQ(encoder->encode(record, ppm + (i / (rate / 2) % 2 == 0 ? -jump : jump), packets), 0);
    record.clear();
  }
  const auto length = static_cast<double>(encoder->length());
  EXPECT_NEAR(length / trackRate / seconds, 1 + ppm * 1e-6, 2e-6);
  EXPECT_EQ(encoder->flush(packets), 0);
  EXPECT_EQ(static_cast<double>(encoder->length()), length);
  const auto left = decode(*encoder, packets);
  ASSERT_LT(left.size() - static_cast<std::size_t>(length), std::size_t{soundPacketSamples});
  const double step = turn * 1000 * seconds / length;
  for (int begin = 4096; begin < (seconds - 1) * trackRate; begin += 2048) {
    if (jump == 0)
      expectTone(left.data() + begin, begin * step, step, channels == 1 ? 0.001 : 0.02);
    // This filter removes the tone, even if its frequency is 500 ppm off. Only clicks are left.
    for (auto at = left.begin() + begin; at < left.begin() + begin + 2048; ++at)
      ASSERT_LT(std::abs(at[0] - 2 * std::cos(step) * at[-1] + at[-2]), 0.0005) << begin;
  }
}

TEST(SoundEncoder, KeepsAToneCleanAndInItsPlaceAtTheRateOfAnyClock) {
  for (const int ppm : {0, 300, -500}) keepTone(48000, 1, 60, ppm, 0);
  keepTone(48000, 1, 10, 250, 250);
  keepTone(8000, 1, 3, 0, 0);
  for (const int rate : {22050, 44100, 50000, 96000}) keepTone(rate, 2, 3, 0, 0);
}

}  // namespace
}  // namespace lumora
