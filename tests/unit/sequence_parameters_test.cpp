// Sequence parameter sets before and after the change, written as their syntax elements.

#include <gtest/gtest.h>

#include <bitset>
#include <sstream>

#include "h264/sequence_parameters.h"

namespace lumora {
namespace {

// A set from its syntax elements: "8:103" is u(8), "2" is ue(v). Behind every two zeros a 3, where
// what follows could be taken for a start code.
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

// 64 × 64 Constrained Baseline, and High with all that can stand there: scaling lists (one that
// ends early, one that goes up and down), picture order 1, fields, cropping.
const std::string baseline = "8:0x67 24:0x42C029 0 0 2 2 1:0 3 3 1:1 1:1 1:0 ";
const std::string high = [] {
  std::string list;
  for (int i = 0; i < 32; ++i) list += "1 2 ";
  return "8:0x67 24:0x640029 0 1 0 0 1:0 1:1 1:1 16 5:0 1:1 " + list +
         "1:0 0 1 1:0 3 4 2 5 6 2 1:0 3 1 1:0 1:0 1:1 1:1 0 1 0 1 ";
}();
// What stands in front of the restriction: timing alone, with zeros in a row, or all there is.
const std::string hrd = "1 8:0x12 70 70 1:1 80 80 1:1 20:0xABCDE ";
const std::string timing = "1:1 32:1 32:120 1:1 ";
const std::string behindColours = "1:0 " + timing + "2:0 1:1 ";
const std::string some = baseline + "1:1 3:0 " + behindColours;
const std::string all = high + "1:1 1:1 8:255 32:0x100011 2:3 1:1 5:23 24:0x090E09 1:1 0 0 " +
                        timing + "1:1 " + hrd + "1:1 " + hrd + "1:0 1:1 ";
const std::string restricted = "1:1 1:1 0 0 11 11 ";
// What is added.
const std::string colours = "1:1 3:5 1:0 1:1 8:1 8:13 8:1 ";
const std::string restriction = "1:1 1:1 0 0 15 15 0 2 ";

Bytes completed(ByteView unit) { return withUsabilityInformation(unit, {1, 13, 1, false}); }

TEST(SequenceParameters, SayThatNothingIsReorderedAndWhatTheColoursAre) {
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
  EXPECT_EQ(completed(Bytes(40, 0)), Bytes(40, 0));
  const Bytes read = completed(Bytes(40, 0xFF));
  EXPECT_EQ(completed(read), read);
}

}  // namespace
}  // namespace lumora
