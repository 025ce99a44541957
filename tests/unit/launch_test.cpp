// Options, words of frame formats, event lines: what the parent passes in and what it gets to read.

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

TEST(Options, ReplaceTheirDefaultsTheEnvironmentAndEachOther) {
  EXPECT_FALSE(options({}, {}));
  EXPECT_EQ(parse({}), (Configuration{"127.0.0.1", 0, goodToken, 640, 360, false}));
  EXPECT_EQ(
      parse({"--preview-width", "320", "--host", "::1", "--port", "+80", "--host", "localhost"},
            {{"TAVO_PREVIEW_WIDTH", "400"},
             {"TAVO_PREVIEW_HEIGHT", "300"},
             {"TAVO_FRAME_MEMORY", "12"},
             {"TAVO_FRAME_FORMAT", "nv21"}}),
      (Configuration{"localhost", 80, goodToken, 320, 300, true, 12, *parseFrameFormat("nv21")}));
}

TEST(Options, AcceptTheLimitsAndRefuseWhatLiesBeyond) {
  const auto expect = [](bool accepted, const std::string& name, const Arguments& values) {
    for (const std::string& value : values) {
      const bool isOption = name.starts_with("--");
      const auto parsed = isOption ? parse({name, value}) : parse({}, {{name, value}});
      EXPECT_EQ(parsed.has_value(), accepted) << name << " " << value;
    }
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
  expect(false, "TAVO_PREVIEW_WIDTH", {"400"});  // without a height
  expect(false, "TAVO_FRAME_MEMORY", {"", "x", "3 ", "99999999999"});
  expect(false, "TAVO_FRAME_FORMAT", {""});
  expect(true, "TAVO_VIDEO_TOKEN", {"0_-aZ9aaaaaaaaaa", std::string(128, '-')});
  expect(false, "TAVO_VIDEO_TOKEN", {std::string(15, 'a'), std::string(129, 'a'), goodToken + "="});
  expect(false, "TAVO_VIDEO_TOKEN", {goodToken + "/", goodToken + " ", goodToken + "\xC3\xA9"});
  EXPECT_FALSE(parse({"--port"}));
  EXPECT_FALSE(parse({"--preview-height", "300"}, {{"TAVO_PREVIEW_WIDTH", "400"}}));
  EXPECT_FALSE(parse({}, {{"TAVO_PREVIEW_WIDTH", "400"}, {"TAVO_PREVIEW_HEIGHT", ""}}));
}

TEST(FrameFormat, LetsEachPropertyBeSetOnce) {
  using enum FrameEncoding;
  constexpr auto bt601 = ColourMatrix::bt601, bt709 = ColourMatrix::bt709;
  const std::pair<const char*, FrameFormat> cases[] = {
      {"rgba", {}},
      {"bgra,top", {bgra, true, {PixelLayout::bgra, bt709, false}}},
      {"rgb24", {rgb24, true, {PixelLayout::bgra, bt709, false}}},
      {"nv12", {nv12, true, {PixelLayout::nv12, bt601, false}}},
      {"i420,full,bottom,bt709", {i420, false, {PixelLayout::i420, bt709, true}}},
      {"uyvy,limited,bt601,top", {uyvy, true, {PixelLayout::i420, bt601, false}}},
      {"mjpeg", {mjpeg, true, {PixelLayout::i420, bt601, true}}}};
  for (const auto& [words, format] : cases) EXPECT_EQ(parseFrameFormat(words), format) << words;
  for (const char* words : {"", "NV12", "top", "nv12,", ",nv12", "nv12, top", "nv12,nv12"})
    EXPECT_FALSE(parseFrameFormat(words)) << words;
  for (const char* words : {"nv12,top,bottom", "nv12,full,limited", "rgba,bt709", "mjpeg,full"})
    EXPECT_FALSE(parseFrameFormat(words)) << words;
}

TEST(FrameFormat, KnowsTheLengthOfItsRecords) {
  using enum FrameEncoding;
  const PictureSize small{4, 2};
  EXPECT_TRUE(isPictureLength(nv21, small, 12));
  EXPECT_FALSE(isPictureLength(nv21, small, 11) || isPictureLength(nv21, small, 13));
  EXPECT_TRUE(isPictureLength(mjpeg, small, 2) && isPictureLength(mjpeg, small, 65536));
  EXPECT_FALSE(isPictureLength(mjpeg, small, 1) || isPictureLength(mjpeg, small, 65537));
  EXPECT_TRUE(isPictureLength(mjpeg, {640, 360}, 460800));
  EXPECT_FALSE(isPictureLength(mjpeg, {640, 360}, 460801));
}

TEST(Events, SortKeysEscapeSlashesAndHaveLimits) {
  EXPECT_EQ(eventLine({{"type", "x"}, {"hd", true}, {"path", "/a\"b\\\n\xC3\xA9"}}),
            "{\"hd\":true,\"path\":\"\\/a\\\"b\\\\\\n\xC3\xA9\",\"type\":\"x\"}\n");
  const auto sized = [](std::size_t bytes, const std::string& end = "") {
    const std::size_t frame = std::string("{'a':''}\n").size() + end.size();
    return eventLine({{"a", std::string(bytes - frame, 'x') + end}});
  };
  EXPECT_EQ(sized(4096)->size(), 4096u);
  EXPECT_FALSE(sized(4097));
  EXPECT_FALSE(sized(4096, "/"));  // its escape counts
  EXPECT_FALSE(eventLine({{"a", "\xFF"}}));
  std::string accents;
  for (int i = 0; i < 241; ++i) accents += "\xC3\xA9";
  EXPECT_EQ(errorEvent(accents)["message"], accents.substr(0, 480));
}

}  // namespace
}  // namespace lumora
