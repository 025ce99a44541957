// Packets and samples: limits, what an encoder makes wrong, start codes. The client's parser reads
// what the service writes.

#include <lumora/packets.h>
#include "encode/encoder_failure.h"
#include "encode/recording_keyframe.h"
#include "h264/nal_units.h"
#include "stream/packet.h"
#include "tests/unit/probe.h"

namespace lumora {
namespace {

// A sample whose every part can be made to fail.
struct BrokenSample final : EncodedSample, FormatDescription {
  bool dataIsReady() const override { return ready; }
  std::optional<std::size_t> dataLength() const override {
    return hasLength ? std::optional(data.size()) : std::nullopt;
  }
  Status copyBytes(std::size_t offset, MutableByteView space) const override {
    std::ranges::copy(ByteView(data).subspan(offset, space.size()), space.begin());
    return copyStatus;
  }
  std::shared_ptr<const FormatDescription> format() const override {
    return hasFormat ? std::shared_ptr<const FormatDescription>(this, [](auto*) {}) : nullptr;
  }
  ParameterSet parameterSet(std::size_t) const override { return {setStatus, set, prefix}; }
  int width() const override { return 640; }
  int height() const override { return 360; }
  ColourDescription colour() const override { return {}; }

  bool ready = true, hasLength = true, hasFormat = true;
  static constexpr std::uint8_t oneUnit[] = {0, 0, 0, 1, 0x65};
  Bytes data = Bytes(std::begin(oneUnit), std::end(oneUnit));
  Status copyStatus = 0, setStatus = 0;
  Bytes set = Bytes(4096, 0x67);
  std::size_t prefix = 4;
};

TEST(Packets, SayWhatIsWrongWithASample) {
  using Case = std::tuple<std::string, std::string, std::function<void(BrokenSample&)>>;
  const auto bytes = [](Bytes data) { return [data](BrokenSample& s) { s.data = data; }; };
  const std::string size = "invalid encoded NAL size", takeSize = "invalid camera NAL size";
  const std::string tooLarge = "encoded sample too large", set = "H264 parameter set failed ";
  const std::string empty = "encoded sample has no bytes", takeEmpty = "camera sample has no bytes";
  const Case cases[] = {
      {empty, takeEmpty, [](auto& s) { s.ready = false; }},
      {empty, takeEmpty, [](auto& s) { s.hasLength = false; }},
      {tooLarge, "camera sample too large", bytes({0, 0, 0, 0})},
      {tooLarge, takeSize, [](auto& s) { s.data.resize(2097143); }},
      {"encoded sample copy failed (-7)", takeSize, [](auto& s) { s.copyStatus = -7; }},
      {"invalid encoded NAL header", "invalid camera NAL header", bytes({0, 0, 0, 1, 9, 0, 0, 0})},
      {size, takeSize, bytes({0, 0, 0, 2, 0x65})},
      {size, takeSize, bytes({0, 0, 0, 0, 0x65})},
      {size, takeSize, bytes({255, 255, 255, 255, 0x65})},
      {"missing H264 description", "", [](auto& s) { s.hasFormat = false; }},
      {set + "(-3)", "", [](auto& s) { s.setStatus = -3; }},
      {set + "(0)", "", [](auto& s) { s.set.clear(); }},
      {set + "(0)", "", [](auto& s) { s.set.resize(4097); }},
      {set + "(0)", "", [](auto& s) { s.prefix = 2; }}};
  const auto failure = [](const auto& call) -> std::string {
    try {
      call();
      return "";
    } catch (const EncoderFailure& failed) {
      return failed.what();
    }
  };
  for (const auto& [preview, take, change] : cases) {
    BrokenSample sample;
    change(sample);
    EXPECT_EQ(failure([&] { prepareFrame(sample, 1, 640, 360); }), preview);
    EXPECT_EQ(failure([&] { recordingKeyframe(sample); }), take) << preview;
  }
  EXPECT_NO_THROW(prepareFrame(BrokenSample(), 1, 65535, 360));
  EXPECT_THROW(prepareFrame(BrokenSample(), 1, 65536, 360), EncoderFailure);
}

TEST(Packets, AreReadByTheClientUpToTheLargest) {
  const auto sample = keySample(2097138);
  Bytes data(sample->dataLength().value());
  EXPECT_EQ(sample->copyBytes(0, data), 0);
  const FramePackets packets = prepareFrame(*sample, 0x0102030405060708, 640, 360);
  client::PacketParser parser;
  parser.feed(*packets.configuration);
  parser.feed(*packets.frame);
  EXPECT_EQ(client::parseConfiguration(parser.next()->payload).width, 640);
  const auto frame = parser.next();
  EXPECT_EQ(frame->frameID, 0x0102030405060708u);
  EXPECT_TRUE(frame->keyframe);
  EXPECT_EQ(frame->payload, data);
}

TEST(PacketParser, RefusesWhatNoHelperSends) {
  // Too short, too long, of no type.
  for (const Bytes& bytes :
       {Bytes{0, 0, 0, 9, 2}, {0, 0x20, 0, 1, 2}, {0, 0, 0, 10, 3, 0, 0, 0, 0, 0, 0, 0, 1, 0}}) {
    client::PacketParser parser;
    parser.feed(bytes);
    EXPECT_THROW(parser.next(), std::runtime_error);
  }
  EXPECT_THROW(client::parseConfiguration(Bytes{0, 1, 0, 1, 0, 9, 0, 9}), std::runtime_error);
  EXPECT_THROW(client::toAnnexB({client::Packet::Type::frame, 1, false, {0, 0, 0, 9, 1}}),
               std::runtime_error);
}

TEST(AnnexB, SplitsBothStartCodesAndDropsPadding) {
  const Bytes stream = {0, 0, 0, 1, 0x67, 1, 0, 0, 1, 0x68, 0, 0, 0, 1, 0x65, 0, 0, 3, 1, 0, 0};
  using testing::ElementsAre;
  EXPECT_THAT(splitAnnexB(stream),
              ElementsAre(ElementsAre(0x67, 1), ElementsAre(0x68), ElementsAre(0x65, 0, 0, 3, 1)));
  EXPECT_TRUE(splitAnnexB(Bytes{0, 0}).empty());
  EXPECT_TRUE(splitAnnexB(Bytes{1, 0, 0, 1}).empty());
}

}  // namespace
}  // namespace lumora
