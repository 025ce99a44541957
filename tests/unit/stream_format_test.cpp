// Packets, samples and sequence parameter sets: limits, malformed input, start codes.
// The client's parser reads what the service writes.

#include <lumora/packets.h>

#include <bitset>
#include <sstream>

#include "encode/encoder_failure.h"
#include "encode/recording_keyframe.h"
#include "h264/nal_units.h"
#include "h264/sequence_parameters.h"
#include "stream/packet.h"
#include "tests/unit/probe.h"

namespace lumora {
namespace {

std::string failureOf(const std::function<void()>& call) {
  try {
    call();
  } catch (const EncoderFailure& failed) {
    return failed.what();
  }
  return "";
}

TEST(Samples, ThatAreInvalidAreRefusedWithTheReason) {
  const auto formatWith = [](std::size_t setBytes) {
    return std::make_shared<MemoryFormatDescription>(Bytes(setBytes, 0x67), Bytes(4), 640, 360,
                                                     ColourDescription{});
  };
  const Bytes key = {0, 0, 0, 1, 0x65};
  const std::string size = "invalid encoded NAL size", takeSize = "invalid camera NAL size";
  const std::string tooLarge = "encoded sample too large", set = "H264 parameter set failed (0)";
  const std::tuple<std::string, std::string, MemorySample> cases[] = {
      {tooLarge, "camera sample too large", {{0, 0, 0, 0}, nullptr}},
      {tooLarge, takeSize, {Bytes(2097143), nullptr}},
      {tooLarge, takeSize, {Bytes(8294400), nullptr}},
      {tooLarge, "camera sample too large", {Bytes(8294401), nullptr}},
      {"invalid encoded NAL header", "invalid camera NAL header", {{0, 0, 0, 1, 9, 0, 0, 0}, {}}},
      {size, takeSize, {{0, 0, 0, 2, 0x65}, nullptr}},
      {size, takeSize, {{0, 0, 0, 0, 0x65}, nullptr}},
      {"missing H264 description", "", {key, nullptr}},
      {set, "", {key, formatWith(0)}},
      {set, "", {key, formatWith(4097)}},
      {"", "", {key, formatWith(4096)}}};
  for (const auto& [preview, take, sample] : cases) {
    EXPECT_EQ(failureOf([&] { prepareFrame(sample, 1, 640, 360); }), preview);
    EXPECT_EQ(failureOf([&] { recordingKeyframe(sample); }), take) << preview;
  }
}

TEST(Packets, OfTheLargestSizeAreReadByTheClient) {
  const FramePackets packets = prepareFrame(*keySample(2097138), 0x0102030405060708, 640, 360);
  client::PacketParser parser;
  parser.feed(*packets.frame);
  const auto frame = parser.next();
  EXPECT_EQ(frame->frameID, 0x0102030405060708u);
  EXPECT_EQ(frame->payload.size(), 2097142u);
}

TEST(PacketParser, RefusesWhatNoHelperSends) {
  // A length too short, a length too long, an unknown type.
  for (const Bytes& bytes :
       {Bytes{0, 0, 0, 9, 2}, {0, 0x20, 0, 1, 2}, {0, 0, 0, 10, 3, 0, 0, 0, 0, 0, 0, 0, 1, 0}}) {
    client::PacketParser parser;
    parser.feed(bytes);
    EXPECT_THROW(static_cast<void>(parser.next()), std::runtime_error);
  }
  EXPECT_THROW(client::parseConfiguration(Bytes{0, 1, 0, 1, 0, 9, 0, 9}), std::runtime_error);
  EXPECT_THROW(client::toAnnexB({client::Packet::Type::frame, 1, false, {0, 0, 0, 9, 1}}),
               std::runtime_error);
}

TEST(AnnexB, SplitsAtBothStartCodesAndDropsPadding) {
  const Bytes stream = {0, 0, 0, 1, 0x67, 1, 0, 0, 1, 0x68, 0, 0, 0, 1, 0x65, 0, 0, 3, 1, 0, 0};
  using testing::ElementsAre;
  EXPECT_THAT(splitAnnexB(stream),
              ElementsAre(ElementsAre(0x67, 1), ElementsAre(0x68), ElementsAre(0x65, 0, 0, 3, 1)));
  EXPECT_TRUE(splitAnnexB(Bytes{1, 0, 0, 1}).empty());
}

// Makes a set from its syntax elements: "8:103" is 103 in 8 bits, "2" is 2 in an Exp-Golomb code.
// Inserts a 3 after two zero bytes if the next byte could complete a start code.
Bytes makeSet(const std::string& elements) {
  std::string bits;
  std::istringstream words(elements + "1:1");
  for (std::string word; words >> word;) {
    const auto colon = word.find(':');
    const bool isFixed = colon != std::string::npos;
    const auto value = std::stoul(isFixed ? word.substr(colon + 1) : word, nullptr, 0);
    const std::string digits = std::bitset<32>(isFixed ? value : value + 1).to_string();
    const auto zeros = digits.find('1');
    bits += isFixed ? digits.substr(32 - std::stoul(word))
                    : std::string(31 - zeros, '0') + digits.substr(zeros);
  }
  bits.resize((bits.size() + 7) / 8 * 8, '0');
  Bytes unit;
  for (std::size_t at = 0; at < bits.size(); at += 8) {
    const auto byte = static_cast<std::uint8_t>(std::stoul(bits.substr(at, 8), nullptr, 2));
    const bool zeros = unit.size() > 1 && unit.back() == 0 && unit[unit.size() - 2] == 0;
    if (zeros && byte < 4) unit.push_back(3);
    unit.push_back(byte);
  }
  return unit;
}

// A Constrained Baseline set of 64 × 64, and a High set with much that is optional: scaling lists
// (one that ends early, one that goes up and down), picture order type 1, fields, cropping.
const std::string baseline = "8:0x67 24:0x42C029 0 0 2 2 1:0 3 3 1:1 1:1 1:0 ";
const std::string high = [] {
  std::string list;
  for (int i = 0; i < 32; ++i) list += "1 2 ";
  return "8:0x67 24:0x640029 0 1 0 0 1:0 1:1 1:1 16 5:0 1:1 " + list +
         "1:0 0 1 1:0 3 4 2 5 6 2 1:0 3 1 1:0 1:0 1:1 1:1 0 1 0 1 ";
}();
// `some` and `all` are parameter sets that are cut off before bitstream_restriction_flag. Of the
// usability information, `some` has only timing, with so many zeros that a 3 must be inserted.
// `all` has everything else, too.
const std::string hrd = "1 8:0x12 70 70 1:1 80 80 1:1 20:0xABCDE ";
const std::string timing = "1:1 32:1 32:120 1:1 ";
const std::string behindColours = "1:0 " + timing + "2:0 1:1 ";
const std::string some = baseline + "1:1 3:0 " + behindColours;
const std::string all = high + "1:1 1:1 8:255 32:0x100011 2:3 1:1 5:23 24:0x090E09 1:1 0 0 " +
                        timing + "1:1 " + hrd + "1:1 " + hrd + "1:0 1:1 ";
const std::string restricted = "1:1 1:1 0 0 11 11 ";
// What the service adds.
const std::string colours = "1:1 3:5 1:0 1:1 8:1 8:13 8:1 ";
const std::string restriction = "1:1 1:1 0 0 15 15 0 2 ";

Bytes completed(ByteView unit) { return withUsabilityInformation(unit, {1, 13, 1, false}); }

TEST(SequenceParameters, SayThatNoFrameIsReorderedAndWhatTheColoursAre) {
  const std::string coloured = baseline + "1:1 2:0 " + colours + behindColours;
  const std::pair<std::string, std::string> cases[] = {
      {baseline + "1:0 ", baseline + "1:1 2:0 " + colours + "5:0 " + restriction},
      {some + "1:0 ", coloured + restriction},
      {some + restricted + "2 2 ", coloured + restriction},
      {some + restricted + "0 2 ", coloured + restricted + "0 2 "},
      {baseline + "1:1 2:0 1:1 3:2 1:1 1:0 " + behindColours + "1:0 ", coloured + restriction},
      {all + "1:0 ", all + restriction},
      {all + restricted + "1 2 ", all + restriction},
      {all + restricted + "0 2 ", all + restricted + "0 2 "}};
  for (const auto& [before, after] : cases) {
    EXPECT_EQ(completed(makeSet(before)), makeSet(after)) << before;
    EXPECT_EQ(completed(makeSet(after)), makeSet(after)) << after;
  }
}

TEST(SequenceParameters, StayAsTheyAreWhenTheyCannotBeRead) {
  const Bytes whole = makeSet(all + restricted + "0 2 ");
  for (std::size_t length = 0; length < whole.size() - 1; ++length) {
    const ByteView cut = ByteView(whole).first(length);
    EXPECT_EQ(completed(cut), Bytes(cut.begin(), cut.end()));
  }
}

}  // namespace
}  // namespace lumora
