// What the viewer decides: which frames a page gets, who may ask for what, what a page may say.

#include <gtest/gtest.h>

#include "tools/viewer/frame_flow.h"
#include "tools/viewer/page_messages.h"
#include "tools/viewer/takes.h"
#include "tools/viewer/web_rules.h"

namespace lumora::viewer {
namespace {

using Acknowledged = std::optional<std::uint64_t>;

TEST(FrameFlow, AcknowledgesWhatThePageHasShownUntilANewStreamBegins) {
  FrameFlow flow;
  EXPECT_FALSE(flow.frameCame(1, true, 0));  // there is no page
  flow.pageJoined();
  EXPECT_FALSE(flow.frameCame(2, false, 0));  // a page starts with a key frame
  EXPECT_TRUE(flow.frameCame(3, true, 0));
  EXPECT_TRUE(flow.frameCame(4, false, 0.1));
  EXPECT_TRUE(flow.frameCame(5, false, 0.2));
  EXPECT_EQ(flow.shown(2), std::nullopt);
  EXPECT_EQ(flow.shown(4), Acknowledged(4));  // which acknowledges the third as well
  EXPECT_EQ(flow.acknowledgeOverdue(0.45), std::nullopt);
  EXPECT_EQ(flow.takeWithheld(), 0u);
  flow.streamBegan();
  EXPECT_EQ(flow.acknowledgeOverdue(9), std::nullopt);
  EXPECT_EQ(flow.shown(5), std::nullopt);  // the new stream does not know it
  EXPECT_FALSE(flow.frameCame(6, false, 9));
  EXPECT_TRUE(flow.frameCame(7, true, 9));
}

TEST(FrameFlow, ASlowPageGetsNothingUntilItSpeaksAndAKeyFrameComes) {
  FrameFlow flow;
  flow.pageJoined();
  EXPECT_TRUE(flow.frameCame(1, true, 0));
  EXPECT_TRUE(flow.frameCame(2, false, 0.1));
  EXPECT_EQ(flow.acknowledgeOverdue(FrameFlow::patience), std::nullopt);
  EXPECT_EQ(flow.acknowledgeOverdue(FrameFlow::patience + 0.001), Acknowledged(2));
  EXPECT_FALSE(flow.frameCame(3, true, 0.3));
  flow.pageSpoke();
  EXPECT_FALSE(flow.frameCame(4, false, 0.4));
  EXPECT_TRUE(flow.frameCame(5, true, 0.5));
  EXPECT_EQ(flow.takeWithheld(), 2u);
  flow.pageRestarted();
  EXPECT_FALSE(flow.frameCame(6, false, 0.5));
  EXPECT_EQ(flow.acknowledgeOverdue(9),
            std::nullopt);  // refusing frame 6 acknowledged frame 5, too
  EXPECT_TRUE(flow.frameCame(7, true, 0.6));
  EXPECT_EQ(flow.takeWithheld(), 0u);  // the page was not slow
}

TEST(FrameFlow, AHiddenPageAndOneThatLeftHoldNothingUp) {
  FrameFlow flow;
  flow.pageJoined();
  EXPECT_TRUE(flow.frameCame(1, true, 0));
  flow.setVisible(false);
  EXPECT_EQ(flow.acknowledgeOverdue(0.001), Acknowledged(1));
  EXPECT_FALSE(flow.frameCame(2, true, 0.1));
  flow.pageSpoke();
  flow.setVisible(true);
  EXPECT_TRUE(flow.frameCame(3, true, 0.2));
  flow.shown(3);
  flow.setVisible(false);
  EXPECT_FALSE(flow.frameCame(4, false, 0.2));
  flow.setVisible(true);
  EXPECT_FALSE(flow.frameCame(5, false, 0.2));  // it needs the fourth
  EXPECT_TRUE(flow.frameCame(6, true, 0.2));
  flow.pageLeft();
  EXPECT_EQ(flow.acknowledgeOverdue(0.2), Acknowledged(6));
  flow.pageJoined();
  EXPECT_FALSE(flow.frameCame(7, false, 0.3));
  EXPECT_TRUE(flow.frameCame(8, true, 0.3));
  EXPECT_EQ(flow.takeWithheld(), 0u);  // a page that has just joined has missed nothing
}

TEST(ViewerTakes, NeedAFolderByItsWholePath) {
  for (const char* folder : {"/no such folder", "tmp", "", "/\xFF"})
    EXPECT_THROW(planTake({"640x360", 30, folder, true}, 5.5), std::runtime_error) << folder;
  EXPECT_THROW(planTake({"640x360", 30, {"/tmp\0/", 6}, true}, 5.5), std::runtime_error);
  const auto planned = planTake({"640x360", 30, "/tmp", true}, 5.5);
  EXPECT_TRUE(planned.path.starts_with("/tmp/take-") && planned.path.ends_with(".mp4"));
  EXPECT_EQ(planned.startedAt, 5.5);
}

TEST(WebRules, OnlyOurOwnPageAtItsNumericAddressGetsAnything) {
  using Origin = std::optional<std::string_view>;
  const WebRules rules(4711, "secret");
  const char* const host = "127.0.0.1:4711";
  const char* const origin = "http://127.0.0.1:4711";
  EXPECT_EQ(rules.address(), "http://127.0.0.1:4711/secret/");
  EXPECT_EQ(rules.resource(host, {}, "/secret/"), "");
  EXPECT_EQ(rules.resource(host, origin, "/secret/a.js?x=/"), "a.js");
  EXPECT_EQ(rules.resource(host, origin, "/secret/socket"), "socket");
  EXPECT_EQ(WebRules(80, "s").resource("127.0.0.1", "http://127.0.0.1", "/s/"), "");
  const struct {
    const char* host;
    Origin origin;
    const char* target;
  } refused[] = {
      {"evil.example:4711", {}, "/secret/"},
      {"localhost:4711", {}, "/secret/"},
      {"localhost:4711", "http://localhost:4711", "/secret/"},
      {"[::1]:4711", {}, "/secret/"},
      {"127.0.0.1", {}, "/secret/"},
      {"127.0.0.1:4712", {}, "/secret/"},
      {"", {}, "/secret/"},
      {host, "http://evil.example", "/secret/"},
      {host, "http://localhost:4711", "/secret/"},
      {host, "http://127.0.0.1:4712", "/secret/"},
      {host, "https://127.0.0.1:4711", "/secret/"},
      {host, "null", "/secret/"},
      {host, "", "/secret/"},
      {host, {}, "/secret/socket"},
      {host, {}, "/secreT/"},
      {host, {}, "/secre/"},
      {host, {}, "/secret"},
      {host, {}, "/secret?/"},
      {host, {}, "secret/"},
      {host, {}, "/"},
      {host, {}, ""},
  };
  for (const auto& [from, by, target] : refused)
    EXPECT_EQ(rules.resource(from, by, target), std::nullopt)
        << from << ", " << by.value_or("no origin") << ", " << target;
}

TEST(WebRules, PartsOfAFile) {
  using enum ByteRange::Kind;
  const struct {
    const char* header;
    ByteRange::Kind kind;
    std::uint64_t first, length;
  } cases[] = {
      {"bytes=0-", part, 0, 100},          {"bytes=10-19", part, 10, 10},
      {"bytes=99-99", part, 99, 1},        {"bytes=90-200", part, 90, 10},
      {"bytes=100-", unsatisfiable, 0, 0}, {"", whole, 0, 100},
      {"bytes=9-8", whole, 0, 100},        {"bytes=0-1,5-6", whole, 0, 100},
      {"bytes=x-", whole, 0, 100},         {"lines=0-1", whole, 0, 100},
      {"bytes=-5", whole, 0, 100},
  };
  for (const auto& [header, kind, first, length] : cases) {
    const ByteRange range = parseRange(header, 100);
    EXPECT_TRUE(range.kind == kind && range.first == first && range.length == length) << header;
  }
  EXPECT_EQ(parseRange("bytes=0-", 0).kind, unsatisfiable);
}

TEST(PageMessages, WhatNoPageSaysIsRefused) {
  EXPECT_EQ(
      std::get<Shown>(*parsePageMessage(R"({"type":"shown","frame_id":9007199254740991})")).frameID,
      9007199254740991u);
  const auto start = std::get<StartTake>(*parsePageMessage(
      R"({"type":"start","resolution":"640x360","target_fps":30,"folder":"/v"})"));
  EXPECT_TRUE(start.resolution == "640x360" && start.targetFPS == 30 && start.folder == "/v" &&
              !start.steady);
  for (const char* text :
       {"", "{", "[]", "7", R"({"type":"none"})", R"({"type":"shown"})",
        R"({"type":"shown","frame_id":-1})", R"({"type":"shown","frame_id":1.5})",
        R"({"type":"shown","frame_id":"1"})", R"({"type":7})", R"({"type":"visible","visible":1})",
        R"({"type":"start","resolution":"640x360","target_fps":1001,"folder":"/v"})",
        R"({"type":"start","resolution":1,"target_fps":30,"folder":"/v"})"})
    EXPECT_FALSE(parsePageMessage(text)) << text;
  EXPECT_FALSE(parsePageMessage(R"({"type":"stop"})" + std::string(maximumMessageBytes, ' ')));
}

}  // namespace
}  // namespace lumora::viewer
