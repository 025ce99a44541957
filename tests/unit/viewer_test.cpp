// What the viewer decides: which frames a page gets, who may ask for what, what a page may say.

#include <gtest/gtest.h>

#include "tools/viewer/frame_flow.h"
#include "tools/viewer/page_messages.h"
#include "tools/viewer/takes.h"
#include "tools/viewer/web_rules.h"

namespace lumora::viewer {
namespace {

using Acknowledged = std::optional<std::uint64_t>;

// What becomes of a frame: forwarded (nothing is acknowledged), or acknowledged unseen.
void expectForwarded(FrameFlow& flow, std::uint64_t id, bool keyframe, double now) {
  const auto decision = flow.frameCame(id, keyframe, now);
  EXPECT_TRUE(decision.forward && !decision.acknowledge) << id;
}
void expectWithheld(FrameFlow& flow, std::uint64_t id, bool keyframe, double now) {
  const auto decision = flow.frameCame(id, keyframe, now);
  EXPECT_TRUE(!decision.forward && decision.acknowledge == id) << id;
}

TEST(FrameFlow, TheEyeSetsThePaceUntilANewStreamBegins) {
  FrameFlow flow;
  expectWithheld(flow, 1, true, 0);  // nobody is there
  flow.pageJoined();
  expectWithheld(flow, 2, false, 0);  // and then only a key frame is of use
  expectForwarded(flow, 3, true, 0);
  expectForwarded(flow, 4, false, 0.1);
  expectForwarded(flow, 5, false, 0.2);
  EXPECT_EQ(flow.shown(2), std::nullopt);
  EXPECT_EQ(flow.shown(4), Acknowledged(4));  // covers the third
  EXPECT_EQ(flow.acknowledgeOverdue(0.45), std::nullopt);
  EXPECT_EQ(flow.takeWithheld(), 0u);
  flow.streamBegan();  // which knows nothing of the fifth
  EXPECT_EQ(flow.acknowledgeOverdue(9), std::nullopt);
  EXPECT_EQ(flow.shown(5), std::nullopt);
  expectWithheld(flow, 6, false, 9);
  expectForwarded(flow, 7, true, 9);
}

TEST(FrameFlow, ASlowPageGetsNothingUntilItSpeaksAndAKeyFrameComes) {
  FrameFlow flow;
  flow.pageJoined();
  expectForwarded(flow, 1, true, 0);
  expectForwarded(flow, 2, false, 0.1);
  EXPECT_EQ(flow.acknowledgeOverdue(FrameFlow::patience), std::nullopt);
  EXPECT_EQ(flow.acknowledgeOverdue(FrameFlow::patience + 0.001), Acknowledged(2));
  expectWithheld(flow, 3, true, 0.3);
  flow.pageSpoke();
  expectWithheld(flow, 4, false, 0.4);
  expectForwarded(flow, 5, true, 0.5);
  EXPECT_EQ(flow.takeWithheld(), 2u);
  flow.pageRestarted();
  expectWithheld(flow, 6, false, 0.5);  // with it the fifth is acknowledged
  EXPECT_EQ(flow.acknowledgeOverdue(9), std::nullopt);
  expectForwarded(flow, 7, true, 0.6);
}

TEST(FrameFlow, AHiddenPageAndOneThatLeftHoldNothingUp) {
  FrameFlow flow;
  flow.pageJoined();
  expectForwarded(flow, 1, true, 0);
  flow.setVisible(false);
  EXPECT_EQ(flow.acknowledgeOverdue(0.001), Acknowledged(1));
  expectWithheld(flow, 2, true, 0.1);
  flow.setVisible(true);
  flow.pageSpoke();
  expectForwarded(flow, 3, true, 0.2);
  flow.shown(3);
  flow.setVisible(false);
  expectWithheld(flow, 4, false, 0.2);
  flow.setVisible(true);
  expectWithheld(flow, 5, false, 0.2);  // the fourth is missing
  expectForwarded(flow, 6, true, 0.2);
  flow.pageLeft();
  EXPECT_EQ(flow.acknowledgeOverdue(0.2), Acknowledged(6));
  flow.pageJoined();
  expectWithheld(flow, 7, false, 0.3);
  expectForwarded(flow, 8, true, 0.3);
  EXPECT_EQ(flow.takeWithheld(), 0u);  // one that has just come has missed nothing
}

TEST(ViewerTakes, GoWhereTheyCanAndGiveOutWhatWasSaved) {
  Takes takes;
  std::string problem;
  for (const char* folder : {"/no such folder", "tmp", "", "/\xFF"}) {
    problem.clear();
    EXPECT_FALSE(takes.plan({"640x360", 30, folder, true}, 5.5, problem)) << folder;
    EXPECT_NE(problem, "") << folder;
  }
  const auto planned = takes.plan({"640x360", 30, "/tmp", true}, 5.5, problem);
  ASSERT_TRUE(planned);
  EXPECT_TRUE(planned->path.starts_with("/tmp/take-") && planned->path.ends_with(".mp4"));
  EXPECT_EQ(planned->startedAt, 5.5);
  const auto tell = [&](const char* state) {
    takes.eventCame({{"type", "recording"}, {"id", "X"}, {"state", state}, {"path", "/v/a.mp4"}});
  };
  tell("recording");
  EXPECT_EQ(takes.movie("X.mp4"), std::nullopt);
  tell("saved");
  EXPECT_EQ(takes.movie("X.mp4"), "/v/a.mp4");
  for (const char* name : {"X", "../X.mp4", "Y.mp4", ""})
    EXPECT_EQ(takes.movie(name), std::nullopt) << name;
}

TEST(WebRules, OnlyOurOwnPageUnderItsOwnNameGetsAnything) {
  const WebRules rules(4711, "secret");
  const char* const self = "127.0.0.1:4711";
  EXPECT_EQ(rules.address(), "http://127.0.0.1:4711/secret/");
  EXPECT_EQ(rules.resource(self, {}, "/secret/"), "");
  EXPECT_EQ(rules.resource("localhost:4711", "http://localhost:4711", "/secret/a.js?x=/"), "a.js");
  for (const char* host : {"evil.example:4711", "127.0.0.1", "127.0.0.1:4712", ""})
    EXPECT_EQ(rules.resource(host, std::nullopt, "/secret/"), std::nullopt) << host;
  for (const char* origin : {"http://evil.example", "null", "https://127.0.0.1:4711"})
    EXPECT_EQ(rules.resource(self, origin, "/secret/"), std::nullopt) << origin;
  for (const char* target : {"/secreT/", "/secre/", "/secret", "secret/", "", "/"})
    EXPECT_EQ(rules.resource(self, std::nullopt, target), std::nullopt) << target;
  EXPECT_EQ(WebRules(80, "s").resource("localhost", "http://localhost", "/s/"), "");
  EXPECT_TRUE(rules.allowsSocket("http://127.0.0.1:4711"));
  EXPECT_FALSE(rules.allowsSocket(std::nullopt));
  EXPECT_FALSE(rules.allowsSocket("http://127.0.0.1:4712"));
}

TEST(WebRules, PartsOfAFile) {
  using enum ByteRange::Kind;
  const auto expect = [](const char* header, ByteRange::Kind kind, std::uint64_t first,
                         std::uint64_t length) {
    const ByteRange range = parseRange(header, 100);
    EXPECT_TRUE(range.kind == kind && range.first == first && range.length == length) << header;
  };
  expect("bytes=0-", part, 0, 100);
  expect("bytes=10-19", part, 10, 10);
  expect("bytes=99-99", part, 99, 1);
  expect("bytes=90-200", part, 90, 10);
  expect("bytes=-5", part, 95, 5);
  expect("bytes=-500", part, 0, 100);
  for (const char* header : {"bytes=100-", "bytes=-0"}) expect(header, unsatisfiable, 0, 0);
  for (const char* header : {"", "bytes=9-8", "bytes=0-1,5-6", "bytes=x-", "lines=0-1", "bytes=-"})
    expect(header, whole, 0, 100);
  EXPECT_EQ(parseRange("bytes=-1", 0).kind, unsatisfiable);
}

TEST(PageMessages, WhatNoPageSaysIsRefused) {
  const auto parsed = [](const char* text) { return parsePageMessage(text); };
  EXPECT_EQ(std::get<Shown>(*parsed(R"({"type":"shown","frame_id":9007199254740991})")).frameID,
            9007199254740991u);
  EXPECT_EQ(std::get<Ping>(*parsed(R"({"type":"ping","sent":0})")).sent, 0u);
  const auto start = std::get<StartTake>(
      *parsed(R"({"type":"start","resolution":"640x360","target_fps":30,"folder":"/v"})"));
  EXPECT_TRUE(start.resolution == "640x360" && start.targetFPS == 30 && start.folder == "/v" &&
              !start.steady);
  for (const char* text :
       {"", "{", "[]", "7", R"({"type":"none"})", R"({"type":"shown"})",
        R"({"type":"shown","frame_id":-1})", R"({"type":"shown","frame_id":1.5})",
        R"({"type":"shown","frame_id":"1"})", R"({"type":7})", R"({"type":"visible","visible":1})",
        R"({"type":"start","resolution":"640x360","target_fps":1001,"folder":"/v"})",
        R"({"type":"start","resolution":1,"target_fps":30,"folder":"/v"})"})
    EXPECT_FALSE(parsed(text)) << text;
  EXPECT_FALSE(parsePageMessage(R"({"type":"stop"})" + std::string(maximumMessageBytes, ' ')));
}

}  // namespace
}  // namespace lumora::viewer
