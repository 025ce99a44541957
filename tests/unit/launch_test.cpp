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
  const auto configuration = parse({});
  ASSERT_TRUE(configuration);
  EXPECT_EQ(configuration->host, "127.0.0.1");
  EXPECT_EQ(configuration->port, 0);
  EXPECT_EQ(configuration->token, goodToken);
  EXPECT_EQ(configuration->previewWidth, 640);
  EXPECT_EQ(configuration->previewHeight, 360);
  EXPECT_FALSE(configuration->exactPreviewDimensions);
  EXPECT_FALSE(options({}, {}));
}

TEST(Options, OptionsReplaceTheEnvironmentAndEachOther) {
  const auto configuration =
      parse({"--preview-width", "320", "--host", "::1", "--port", "+80", "--host", "localhost"},
            {{"TAVO_PREVIEW_WIDTH", "400"}, {"TAVO_PREVIEW_HEIGHT", "300"}});
  ASSERT_TRUE(configuration);
  EXPECT_EQ(configuration->previewWidth, 320);
  EXPECT_EQ(configuration->previewHeight, 300);
  EXPECT_TRUE(configuration->exactPreviewDimensions);
  EXPECT_EQ(configuration->host, "localhost");
  EXPECT_EQ(configuration->port, 80);
}

TEST(Options, AcceptsTheLimitsAndRefusesWhatLiesBeyond) {
  const std::vector<Arguments> good = {{"--port", "0"},
                                       {"--port", "-0"},
                                       {"--port", "65535"},
                                       {"--preview-width", "2"},
                                       {"--preview-width", "640"},
                                       {"--preview-height", "2"},
                                       {"--preview-height", "+360"},
                                       {"--host", std::string(253, 'a')}};
  for (const auto& arguments : good) EXPECT_TRUE(parse(arguments)) << arguments[1];
  const std::vector<Arguments> bad = {{"--port", "65536"},
                                      {"--port", "-1"},
                                      {"--port", "8o"},
                                      {"--port", ""},
                                      {"--port", " 80"},
                                      {"--port", "+-8"},
                                      {"--port", "99999999999999999999"},
                                      {"--preview-width", "641"},
                                      {"--preview-width", "639"},
                                      {"--preview-width", "642"},
                                      {"--preview-width", "0"},
                                      {"--preview-width", "-2"},
                                      {"--preview-height", "362"},
                                      {"--preview-height", "1"},
                                      {"--host", ""},
                                      {"--host", std::string(254, 'a')},
                                      {"--port"},
                                      {"--verbose", "1"},
                                      {"--HOST", "::1"},
                                      {"--preview-width", "64.0"},
                                      {"--preview-width", "0x40"}};
  for (const auto& arguments : bad) EXPECT_FALSE(parse(arguments)) << arguments.back();
}

TEST(Options, EnvironmentSizesComeInPairs) {
  EXPECT_FALSE(parse({}, {{"TAVO_PREVIEW_WIDTH", "400"}}));
  EXPECT_FALSE(parse({"--preview-height", "300"}, {{"TAVO_PREVIEW_WIDTH", "400"}}));
  EXPECT_FALSE(parse({}, {{"TAVO_PREVIEW_WIDTH", "400"}, {"TAVO_PREVIEW_HEIGHT", ""}}));
}

TEST(Options, TokensAreSixteenTo128PlainCharacters) {
  for (const auto& token :
       {std::string(16, 'Z'), std::string(128, '-'), std::string("0_-aZ9aaaaaaaaaa")}) {
    EXPECT_TRUE(parse({}, {{"TAVO_VIDEO_TOKEN", token}})) << token;
  }
  for (const auto& token :
       {std::string(15, 'a'), std::string(129, 'a'), goodToken + "=", goodToken + "+",
        goodToken + "/", goodToken + " ", goodToken + "\xC3\xA9"}) {
    EXPECT_FALSE(parse({}, {{"TAVO_VIDEO_TOKEN", token}})) << token;
  }
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
