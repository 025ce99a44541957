// A tone of 1 kHz is encoded and decoded: how much comes back, from where on, and how clean it is.

#include <gtest/gtest.h>

#include <complex>
#include <numbers>

#include "codec/aac_encoder.h"

namespace lumora {
namespace {

constexpr double turn = 2 * std::numbers::pi;

// The left channel, without priming.
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

// Fits the tone to 4096 samples, with a Hann window. `angle` is its angle at the first one.
void expectTone(const float* samples, double angle, double step, double noise) {
  std::complex<double> tone;
  double energy = 0;
  for (int i = 0; i < 4096; ++i) {
    const double weight = (1 - std::cos(turn * i / 4096)) / 2048;
    tone += std::polar(weight * samples[i], turn / 4 - angle - step * i);
    energy += weight * samples[i] * samples[i];
  }
  EXPECT_LT(std::abs(std::arg(tone)), step / 2);  // half a sample
  EXPECT_LT(energy - std::norm(tone), noise * noise);
}

// The compensation is lower and higher than `ppm` by `jump`, each for half a second.
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
    // A click is what this filter leaves. It removes the tone even if that is 500 ppm off.
    for (auto at = left.begin() + begin; at < left.begin() + begin + 2048; ++at)
      ASSERT_LT(std::abs(at[0] - 2 * std::cos(step) * at[-1] + at[-2]), 0.0005) << begin;
  }
}

TEST(SoundEncoder, KeepsAToneCleanAndInItsPlaceAtTheRateOfAnyClock) {
  static_assert(soundTrackRate(44100) == 44100 && soundTrackRate(50000) == 48000);
  for (const int ppm : {0, 300, -500}) keepTone(48000, 1, 60, ppm, 0);
  keepTone(48000, 1, 10, 250, 250);
  keepTone(8000, 1, 3, 0, 0);
  for (const int rate : {22050, 44100, 50000, 96000}) keepTone(rate, 2, 3, 0, 0);
}

}  // namespace
}  // namespace lumora
