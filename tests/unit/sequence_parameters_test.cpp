// Sequence parameter sets before and after the change, as libavcodec's `trace_headers` reads them.

#include <gtest/gtest.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavutil/log.h>
}

#include <map>
#include <sstream>

#include "codec/libav_encoder.h"
#include "h264/bits.h"
#include "h264/sequence_parameters.h"

namespace lumora {
namespace {

using Elements = std::vector<std::pair<std::string, std::string>>;

std::string traced;

void keepLine(void*, int, const char* format, va_list arguments) {
  char line[512];
  std::vsnprintf(line, sizeof line, format, arguments);
  traced += line;
}

// The syntax elements of a set that libavcodec takes for a valid one, in their order.
Elements trace(ByteView unit) {
  AVBSFContext* filter = nullptr;
  EXPECT_EQ(av_bsf_alloc(av_bsf_get_by_name("trace_headers"), &filter), 0);
  filter->par_in->codec_id = AV_CODEC_ID_H264;
  Packet packet(av_packet_alloc());
  EXPECT_EQ(av_new_packet(packet.get(), static_cast<int>(unit.size() + 4)), 0);
  std::ranges::copy(Bytes{0, 0, 0, 1}, packet->data);
  std::ranges::copy(unit, packet->data + 4);
  traced.clear();
  av_log_set_level(AV_LOG_INFO);
  av_log_set_callback(keepLine);
  EXPECT_EQ(av_bsf_init(filter), 0);
  EXPECT_EQ(av_bsf_send_packet(filter, packet.get()), 0);
  EXPECT_EQ(av_bsf_receive_packet(filter, packet.get()), 0);
  av_log_set_callback(av_log_default_callback);
  av_log_set_level(AV_LOG_QUIET);
  av_bsf_free(&filter);
  // "4           profile_idc      01100100 = 100"
  Elements elements;
  std::istringstream lines(traced);
  for (std::string line; std::getline(lines, line);) {
    const auto equals = line.rfind(" = ");
    std::istringstream words(line);
    std::string position, name;
    words >> position >> name;
    if (equals != std::string::npos) elements.emplace_back(name, line.substr(equals + 3));
  }
  return elements;
}

// A set from its syntax elements: "8:103" is u(8), "2" is ue(v). Behind every two zeros a 3, where
// what follows could be taken for a start code.
Bytes makeSet(const std::string& elements) {
  BitWriter set;
  std::istringstream words(elements);
  for (std::string word; words >> word;) {
    const auto colon = word.find(':');
    const auto value = static_cast<std::uint32_t>(
        std::stoul(colon == std::string::npos ? word : word.substr(colon + 1), nullptr, 0));
    colon == std::string::npos ? set.expGolomb(value) : set.bits(value, std::stoi(word));
  }
  Bytes unit;
  for (const std::uint8_t byte : set.finish()) {
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
// Usability information in front of the restriction: timing alone, with zeros in a row, or all.
const std::string hrd = "1 8:0x12 70 70 1:1 80 80 1:1 20:0xABCDE ";
const std::string timing = "1:1 32:1 32:120 1:1 ";
const std::string some = baseline + "1:1 4:0 " + timing + "2:0 1:1 ";
const std::string all = high + "1:1 1:1 8:255 32:0x100011 2:3 1:1 5:23 24:0x090E09 1:1 0 0 " +
                        timing + "1:1 " + hrd + "1:1 " + hrd + "1:0 1:1 ";
const std::string restricted = "1:1 1:1 0 0 11 11 ";

Bytes completed(ByteView unit) { return withUsabilityInformation(unit, {1, 13, 1, false}); }

// Takes what says how colours are to be understood.
std::string takeColours(Elements& elements) {
  std::string colours;
  std::erase_if(elements, [&](const auto& element) {
    const bool any = element.first.starts_with("video_") || element.first.starts_with("colour_") ||
                     element.first == "transfer_characteristics" ||
                     element.first == "matrix_coefficients";
    if (any) colours += element.second + " ";
    return any;
  });
  return colours;
}

TEST(SequenceParameters, SayThatNothingIsReorderedAndElseWhatTheySaid) {
  for (const Bytes& unit : {makeSet(baseline + "1:0"), makeSet(some + "1:0"), makeSet(all + "1:0"),
                            makeSet(some + restricted + "2 2"), makeSet(some + restricted + "0 2"),
                            makeSet(all + restricted + "1 2")}) {
    const Bytes changed = completed(unit);
    auto before = trace(unit);
    auto after = trace(changed);
    ASSERT_GE(before.size(), 15u);
    const std::map<std::string, std::string> now(after.begin(), after.end());
    EXPECT_EQ(now.at("bitstream_restriction_flag"), "1");
    EXPECT_EQ(now.at("max_num_reorder_frames"), "0");
    EXPECT_EQ(now.at("max_dec_frame_buffering"), "2");
    const std::string said = takeColours(before);
    EXPECT_EQ(takeColours(after), said.size() > 2 ? said : "1 5 0 1 1 13 1 ");
    // Up to where they differ all else is as it was.
    while (before.back().first != "vui_parameters_present_flag" &&
           before.back().first != "bitstream_restriction_flag")
      before.pop_back();
    before.pop_back();
    EXPECT_TRUE(std::equal(before.begin(), before.end(), after.begin()));
    EXPECT_EQ(completed(changed), changed);
  }
}

TEST(SequenceParameters, WhatSaysSoAlreadyOrCannotBeReadStaysAsItIs) {
  const Bytes whole = makeSet(all + restricted + "0 2");
  EXPECT_EQ(completed(whole), whole);
  for (std::size_t length = 0; length < whole.size() - 1; ++length) {
    const Bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length));
    EXPECT_EQ(completed(cut), cut);
  }
  EXPECT_EQ(completed(Bytes(40, 0)), Bytes(40, 0));
  const Bytes read = completed(Bytes(40, 0xFF));
  EXPECT_EQ(completed(read), read);
}

}  // namespace
}  // namespace lumora
