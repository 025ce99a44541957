// Options and event lines: what the parent passes in and what it gets to read.

#include <gtest/gtest.h>

#include "app/event.h"
#include "app/options.h"

namespace lumora {
namespace {

using Arguments = std::vector<std::string>;
const std::string goodToken = "abcdefghijklmnop";

std::optional<Configuration> parse(const Arguments& arguments, Environment extra = {}) {
  extra.emplace("TAVO_VIDEO_TOKEN", goodToken);
  return options(arguments, extra);
}

TEST(Options, DefaultsNeedOnlyAToken) {
  EXPECT_EQ(parse({}), (Configuration{"127.0.0.1", 0, goodToken, 640, 360, false}));
  EXPECT_FALSE(options({}, {}));
}

TEST(Options, OptionsReplaceTheEnvironmentAndEachOther) {
  EXPECT_EQ(
      parse({"--preview-width", "320", "--host", "::1", "--port", "+80", "--host", "localhost"},
            {{"TAVO_PREVIEW_WIDTH", "400"}, {"TAVO_PREVIEW_HEIGHT", "300"}}),
      (Configuration{"localhost", 80, goodToken, 320, 300, true}));
}

TEST(Options, AcceptsTheLimitsAndRefusesWhatLiesBeyond) {
  const auto expect = [](bool accepted, const char* option, const Arguments& values) {
    for (const std::string& value : values)
      EXPECT_EQ(parse({option, value}).has_value(), accepted) << option << " " << value;
  };
  expect(true, "--port", {"0", "-0", "65535"});
  expect(false, "--port", {"65536", "-1", "8o", "", " 80", "+-8", "99999999999999999999"});
  expect(true, "--preview-width", {"2", "+360", "640"});
  expect(false, "--preview-width", {"642", "641", "639", "0", "-2", "64.0", "0x40"});
  expect(true, "--preview-height", {"360"});
  expect(false, "--preview-height", {"362"});
  expect(true, "--host", {std::string(253, 'a')});
  expect(false, "--host", {std::string(254, 'a'), ""});
  expect(false, "--verbose", {"1"});
  EXPECT_FALSE(parse({"--port"}));
}

TEST(Options, EnvironmentSizesComeInPairs) {
  EXPECT_FALSE(parse({}, {{"TAVO_PREVIEW_WIDTH", "400"}}));
  EXPECT_FALSE(parse({"--preview-height", "300"}, {{"TAVO_PREVIEW_WIDTH", "400"}}));
  EXPECT_FALSE(parse({}, {{"TAVO_PREVIEW_WIDTH", "400"}, {"TAVO_PREVIEW_HEIGHT", ""}}));
}

TEST(Options, FrameMemoryIsTheNumberOfADescriptor) {
  EXPECT_EQ(parse({}, {{"TAVO_FRAME_MEMORY", "12"}})->frameMemoryDescriptor, 12);
  for (const char* bad : {"", "x", "3 ", "99999999999"})
    EXPECT_FALSE(parse({}, {{"TAVO_FRAME_MEMORY", bad}})) << bad;
}

TEST(Options, TokensAreSixteenTo128PlainCharacters) {
  const auto accepts = [](const std::string& token) {
    return parse({}, {{"TAVO_VIDEO_TOKEN", token}}).has_value();
  };
  EXPECT_TRUE(accepts("0_-aZ9aaaaaaaaaa") && accepts(std::string(128, '-')));
  for (const auto& bad : {std::string(15, 'a'), std::string(129, 'a')}) EXPECT_FALSE(accepts(bad));
  for (const char* bad : {"=", "+", "/", " ", "\xC3\xA9"}) EXPECT_FALSE(accepts(goodToken + bad));
}

TEST(EventLine, SortsKeysAndEscapesSlashes) {
  EXPECT_EQ(eventLine({{"type", "x"},
                       {"recording_height", 1u},
                       {"recording_hd", true},
                       {"path", "/a\"b\\\n\xC3\xA9"}}),
            "{\"path\":\"\\/a\\\"b\\\\\\n\xC3\xA9\",\"recording_hd\":true,"
            "\"recording_height\":1,\"type\":\"x\"}\n");
}

TEST(EventLine, RefusesLongLinesAndBrokenText) {
  const std::size_t frame = std::string("{\"a\":\"\"}").size();
  EXPECT_EQ(eventLine({{"a", std::string(4095 - frame, 'x')}})->size(), 4096u);
  EXPECT_FALSE(eventLine({{"a", std::string(4096 - frame, 'x')}}));
  // The escape counts: the limit is on what is written.
  EXPECT_FALSE(eventLine({{"a", std::string(4094 - frame, 'x') + "//"}}));
  EXPECT_FALSE(eventLine({{"a", "\xFF"}}));
}

TEST(ErrorEvent, CutsTheMessageTo240Characters) {
  EXPECT_EQ(errorEvent(std::string(300, 'x'))["message"], std::string(240, 'x'));
  std::string accents;
  for (int i = 0; i < 241; ++i) accents += "\xC3\xA9";
  EXPECT_EQ(errorEvent(accents)["message"].get<std::string>().size(), 480u);
}

}  // namespace
}  // namespace lumora
