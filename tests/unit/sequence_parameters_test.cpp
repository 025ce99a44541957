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

std::string traced;

void keepLine(void*, int, const char* format, va_list arguments) {
  char line[512];
  std::vsnprintf(line, sizeof line, format, arguments);
  traced += line;
}

// The syntax elements of a set that libavcodec takes for a valid one, in their order.
std::vector<std::pair<std::string, std::string>> trace(ByteView unit) {
  AVBSFContext* filter = nullptr;
  EXPECT_EQ(av_bsf_alloc(av_bsf_get_by_name("trace_headers"), &filter), 0);
  filter->par_in->codec_id = AV_CODEC_ID_H264;
  Packet packet(av_packet_alloc());
  EXPECT_EQ(av_new_packet(packet.get(), static_cast<int>(unit.size() + 4)), 0);
  std::fill_n(packet->data, 3, std::uint8_t{0});
  packet->data[3] = 1;
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
  std::vector<std::pair<std::string, std::string>> elements;
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

// A set of 64 × 64 frames up to the usability information: "Constrained Baseline", or "High" with
// all that can stand there.
BitWriter beginSet(bool high) {
  BitWriter set;
  set.bits(0x67, 8);
  set.bits(high ? 0x640029 : 0x42C029, 24);
  set.expGolomb(0);
  if (high) {
    for (const std::uint32_t each : {1, 0, 0}) set.expGolomb(each);  // 4:2:0, 8 bits
    set.flag(false);
    set.flag(true);  // eight lists
    set.flag(true);  // the first ends early: 8 - 8 = 0
    set.expGolomb(16);
    set.bits(0, 5);
    set.flag(true);  // one of 64, up and down
    for (int i = 0; i < 64; ++i) set.expGolomb(i % 2 != 0 ? 2 : 1);
    set.flag(false);
  }
  set.expGolomb(0);
  set.expGolomb(high ? 1 : 2);  // picture order
  if (high) {
    set.flag(false);
    for (const std::uint32_t each : {3, 4, 2, 5, 6}) set.expGolomb(each);
  }
  set.expGolomb(2);  // references
  set.flag(false);
  set.expGolomb(3);
  set.expGolomb(high ? 1 : 3);
  set.flag(!high);  // frames only
  if (high) set.flag(false);
  set.flag(true);
  set.flag(high);
  if (high) {
    for (const std::uint32_t each : {0, 1, 0, 1}) set.expGolomb(each);  // cropping
  }
  return set;
}

// Behind every two zeros a 3, where what follows could be taken for a start code.
Bytes asUnit(BitWriter set) {
  Bytes unit;
  for (const std::uint8_t byte : set.finish()) {
    const bool zeros = unit.size() > 1 && unit.back() == 0 && unit[unit.size() - 2] == 0;
    if (zeros && byte < 4) unit.push_back(3);
    unit.push_back(byte);
  }
  return unit;
}

void writeHrd(BitWriter& set) {
  set.expGolomb(1);
  set.bits(0x12, 8);
  for (const std::uint32_t each : {70, 80}) {
    set.expGolomb(each);
    set.expGolomb(each);
    set.flag(true);
  }
  set.bits(0xABCDE, 20);
}

Bytes withoutVui() {
  BitWriter set = beginSet(false);
  set.flag(false);
  return asUnit(std::move(set));
}

// With everything or nothing in front of the restriction, and that, or not.
Bytes withVui(bool all, std::optional<std::uint32_t> reordered) {
  BitWriter set = beginSet(all);
  set.flag(true);
  set.flag(all);
  if (all) {
    set.bits(255, 8);
    set.bits(0x00100011, 32);
  }
  set.flag(all);
  if (all) set.flag(true);
  set.flag(all);
  if (all) set.bits(0b1010'1, 5);
  if (all) set.bits(0x010D01, 24);
  set.flag(all);
  if (all) set.expGolomb(0);
  if (all) set.expGolomb(0);
  set.flag(true);  // timing: zeros in a row, so bytes that keep start codes out
  set.bits(1, 32);
  set.bits(120, 32);
  set.flag(true);
  set.flag(all);
  if (all) writeHrd(set);
  set.flag(all);
  if (all) writeHrd(set);
  if (all) set.flag(false);
  set.flag(true);
  set.flag(reordered.has_value());
  if (reordered) {
    set.flag(true);
    for (const std::uint32_t each : {0U, 0U, 11U, 11U, *reordered, 2U}) set.expGolomb(each);
  }
  return asUnit(std::move(set));
}

TEST(SequenceParameters, SayThatNothingIsReorderedAndElseWhatTheySaid) {
  for (const Bytes& unit :
       {withoutVui(), withVui(false, {}), withVui(true, {}), withVui(false, 2), withVui(true, 1)}) {
    const Bytes changed = declaringNoReordering(unit);
    auto before = trace(unit);
    const auto after = trace(changed);
    ASSERT_GE(before.size(), 15u);
    const std::map<std::string, std::string> said(after.begin(), after.end());
    EXPECT_EQ(said.at("bitstream_restriction_flag"), "1");
    EXPECT_EQ(said.at("max_num_reorder_frames"), "0");
    EXPECT_EQ(said.at("max_dec_frame_buffering"), "2");
    // Up to where they differ all else is as it was.
    while (before.back().first != "vui_parameters_present_flag" &&
           before.back().first != "bitstream_restriction_flag") {
      before.pop_back();
    }
    before.pop_back();
    EXPECT_TRUE(std::equal(before.begin(), before.end(), after.begin()));
    EXPECT_EQ(declaringNoReordering(changed), changed);
  }
}

TEST(SequenceParameters, WhatSaysSoAlreadyOrCannotBeReadStaysAsItIs) {
  const Bytes whole = withVui(true, 0);
  EXPECT_EQ(declaringNoReordering(whole), whole);
  for (std::size_t length = 0; length < whole.size() - 1; ++length) {
    const Bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length));
    EXPECT_EQ(declaringNoReordering(cut), cut);
  }
  const Bytes ones(40, 0xFF);
  const Bytes zeros(40, 0);
  EXPECT_EQ(declaringNoReordering(zeros), zeros);
  declaringNoReordering(ones);
}

}  // namespace
}  // namespace lumora
