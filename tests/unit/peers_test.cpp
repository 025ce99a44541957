// The preview. Its encoder: key frames, replacement of sessions, failures. Its clients: admission,
// lines, acknowledgements, delivery, deadlines.

#include "tests/unit/probe.h"

namespace lumora {
namespace {

using Encode = ServiceTest;

TEST_F(Encode, ForcesAKeyFrameForEachNewSessionAndClient) {
  const auto first = probe.connectClient();
  probe.frame(1, keySample());
  first->finishSend();
  probe.frame(2, deltaSample());
  first->finishSend();
  probe.connectClient();
  probe.frame(3, keySample());
  EXPECT_EQ(probe.lastSession().submitted, (Submitted{{1, true}, {2, false}, {3, true}}));

  first->finishSend();
  probe.feed(4, 320, 240);  // the camera changes size
  EXPECT_TRUE(probe.encoders->sessions[0]->invalidated);
  EXPECT_EQ(probe.encoders->sessions[0]->flushes, 0);
  EXPECT_EQ(probe.lastSession().submitted, (Submitted{{4, true}}));  // frame numbers go on
  probe.clock->now += 0.5;
  probe.answer(deltaSample());
  EXPECT_EQ(probe.statistics()["encode_ms"], 500);
  EXPECT_EQ(first->sent.size(), 3u);  // not frame 4: every client waits for the new key frame
}

TEST_F(Encode, EndsTheProcessWithTheReasonOfAFailure) {
  const auto key = keySample();
  const auto malformed = std::make_shared<MemorySample>(Bytes{0, 0, 0, 9, 1}, nullptr);
  // The message of the error, the call that fails, and the answer of the session.
  using Sample = std::shared_ptr<const EncodedSample>;
  using Case = std::tuple<const char*, const char*, Status, Sample>;
  for (const auto& [message, call, status, sample] :
       {Case{"encoder property failed (-7)", "setProperty", 0, key},
        {"encoder preparation failed (-7)", "prepare", 0, key},
        {"no pixel buffer pool", "getPool", 0, key},
        {"RGBA conversion failed", "convert", 0, key},
        {"frame submission failed (-7)", "submit", 0, key},
        {"frame encoding failed (0)", "", 0, nullptr},
        {"frame encoding failed (-5)", "", -5, key},
        {"invalid encoded NAL size", "", 0, malformed}}) {
    probe.restart();
    probe.failures->fail(call, 1, -7);
    const auto client = probe.connectClient();
    probe.feed(1, 1280, 720);  // larger than the preview, so the frame is converted
    for (const auto& opened : probe.encoders->sessions)
      if (!opened->pending.empty()) probe.answer(sample, status);
    EXPECT_EQ(probe.error(), message);
    EXPECT_EQ(probe.process->exitCodes, std::vector<int>{1});
    EXPECT_TRUE(client->sent.empty() && !probe.isRawBusy());
    for (const auto& opened : probe.encoders->sessions) EXPECT_TRUE(opened->invalidated);
  }
}

std::string helloWith(const std::string& token) {
  return R"({"type":"hello","token":")" + token + "\"}";
}
const std::string hello = helloWith("0123456789abcdef");

std::string ack(const std::string& frameID) {
  return "{\"type\":\"ack\",\"frame_id\":" + frameID + "}\n";
}

struct Peers : ServiceTest {
  // Encodes frame `id`, whose send is completed at once.
  void frameFor(FakeConnection& client, std::uint64_t id, bool keyframe = false) {
    probe.frame(id, keyframe ? keySample() : deltaSample());
    client.finishSend();
  }
};

TEST_F(Peers, AreDroppedUnlessTheirFirstLineIsAValidHello) {
  for (const std::string& line : std::initializer_list<std::string>{
           "", "x", "[]", "{}", R"({"type":1})", R"({"type":"hello"})",
           R"({"type":"hello","token":7})", ack("1").substr(0, 27), helloWith("0123456789abcde"),
           helloWith("0123456789abcdeg"), helloWith("0123456789abcdef0")}) {
    const auto client = probe.connect();
    client->deliver(line + "\n");
    EXPECT_TRUE(client->cancelled && !client->onReceive) << line;
  }
  expectKeys(probe.statistics(), {{"dropped_peers", 11}, {"pending_hello", 0}});
}

TEST_F(Peers, AreAtMostTwoClientsAndFourWithoutAHello) {
  const auto first = probe.connectClient();
  const std::vector waiting = {probe.connect(), probe.connect(), probe.connect(), probe.connect()};
  const auto fifth = probe.connect();
  EXPECT_TRUE(fifth->cancelled && !fifth->started);
  waiting[0]->deliver(hello + "\n");
  EXPECT_FALSE(waiting[0]->cancelled);
  waiting[1]->deliver(hello + "\n");
  EXPECT_TRUE(waiting[1]->cancelled && probe.connect()->cancelled);
  expectKeys(probe.statistics(), {{"clients", 2}, {"pending_hello", 2}, {"dropped_peers", 3}});
}

TEST_F(Peers, AcknowledgeAllFramesUpToTheNamedOne) {
  const auto client = probe.connectClient();
  frameFor(*client, 8, true);
  probe.clock->now += 0.0625;  // a double holds these times exactly
  frameFor(*client, 9);
  probe.clock->now += 0.5;
  for (const std::uint64_t id : {12u, 15u}) frameFor(*client, id);
  client->deliver(ack("9.0") + std::string(4069, ' ') + ack("9") + ack("8"));  // line 2: 4096 bytes
  probe.clock->now += 0.125;
  client->deliver(ack("12"));
  const Json all = probe.statistics();
  expectKeys(all, {{"max_pending_acks", 1}, {"ack_rtt_ms", 453.125}, {"ack_rtt_max_ms", 500}});
  expectKeys(all, {{"ack_oldest_ms", 507.8125}});
  EXPECT_FALSE(client->cancelled);
  client->deliver(ack("14"));  // this id is above the last acknowledged one, but was never sent
  EXPECT_TRUE(client->cancelled);
}

TEST_F(Peers, AreDroppedForABadAcknowledgementASecondHelloOrALineOfMoreThan4096Bytes) {
  for (const std::string& line :
       {ack("0"), ack("2"), ack("-1"), ack("1.5"), ack("true"), ack("\"1\""), ack("null"),
        ack("[1]"), ack("18446744073709551616"), ack("1e999"), hello + "\n",
        std::string("{\"type\":\"ack\"}\n"), std::string("{\"type\":\"nack\",\"frame_id\":1}\n"),
        std::string(4097, ' ')}) {
    const auto client = probe.connectClient();
    probe.frame(1, keySample());
    ASSERT_FALSE(client->cancelled);
    client->deliver(line);
    EXPECT_TRUE(client->cancelled) << line;
  }
}

using Delivery = Peers;

TEST_F(Delivery, BeginsWithAKeyFrameAndDropsFramesDuringASendAndThenUntilAKeyFrame) {
  const auto client = probe.connectClient();
  EXPECT_TRUE(probe.encoders->sessions.empty());
  for (const std::uint64_t id : {1u, 2u}) probe.frame(id, deltaSample());
  EXPECT_TRUE(client->sent.empty());
  EXPECT_TRUE(probe.lastSession().submitted.at(1).second);  // forced until a key frame comes
  probe.frame(3, makeSample({0x41, 0x65}));
  EXPECT_EQ(client->sent.at(0).size(), 31u + 30u);  // the stream's configuration and the frame
  for (const std::uint64_t id : {4u, 5u}) probe.frame(id, deltaSample());
  EXPECT_TRUE(probe.lastSession().submitted.at(4).second);
  client->finishSend();
  probe.frame(6, deltaSample());
  probe.frame(7, keySample());
  EXPECT_EQ(client->sent.size(), 2u);
  const Json all = probe.statistics();
  expectKeys(all, {{"send_drops", 2}, {"idr_resyncs", 1}, {"resync_wait_drops", 3}});
  expectKeys(all, {{"credit_drops", 0}, {"encoded_frames", 7}});
}

TEST_F(Delivery, DropsFramesForAClientWithSixUnacknowledged) {
  const auto slow = probe.connectClient();
  for (std::uint64_t id = 1; id <= 8; ++id) {
    probe.frame(id, id == 1 ? keySample() : deltaSample());
    if (slow->onSent && id != 6) slow->finishSend();  // the sixth send ends only after frame 7
  }
  EXPECT_EQ(slow->sent.size(), 6u);
  // Frame 7 comes while six frames lack an acknowledgement and the sixth is still being sent. It
  // counts as a credit drop only.
  const Json all = probe.statistics();
  expectKeys(all, {{"credit_drops", 2}, {"send_drops", 0}, {"idr_resyncs", 1}});
  expectKeys(all, {{"max_unacked_observed", 6}, {"max_pending_acks", 6}});
}

TEST_F(Peers, AreDroppedAfterTheirDeadlines) {
  const auto silent = probe.connect();
  const auto client = probe.connectClient();
  const auto stalled = probe.connectClient();
  const double start = probe.clock->now;
  frameFor(*client, 1, true);
  stalled->deliver(ack("1"));  // but its send never completes
  probe.tickAt(start + 0.5);
  EXPECT_FALSE(client->cancelled || stalled->cancelled);
  probe.tickAt(start + 0.5001);
  EXPECT_TRUE(client->cancelled && client->wasReset && stalled->cancelled);
  probe.tickAt(start + 1.0);
  EXPECT_FALSE(silent->cancelled);
  probe.tickAt(start + 1.0001);
  EXPECT_TRUE(silent->cancelled && !silent->wasReset);  // no hello
  const auto idle = probe.connectClient();
  frameFor(*idle, 2, true);
  idle->deliver(ack("2"));
  probe.tickAt(start + 9);
  EXPECT_FALSE(idle->cancelled);
}

TEST_F(Peers, AreDroppedOnceAndTheirLateCallbacksDoNothing) {
  const auto client = probe.connectClient();
  probe.frame(1, keySample());
  const auto late = client->onSent;
  const auto handler = client->endHandler;
  probe.process->takeEvents();
  client->finishSend(std::make_error_code(std::errc::broken_pipe));
  late({});
  handler();
  expectKeys(probe.process->takeEvent("stats"), {{"dropped_peers", 1}, {"clients", 0}});
  const auto leaving = probe.connectClient();
  leaving->deliver("", true);
  EXPECT_TRUE(leaving->cancelled && client->cancelled);
  EXPECT_FALSE(leaving->wasReset || client->wasReset);
}

}  // namespace
}  // namespace lumora
