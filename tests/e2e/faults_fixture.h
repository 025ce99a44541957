#pragma once

// For tests of the real helper, in which the fault library (tests/faults) makes calls fail.

#include <map>
#include <string>

#include "tests/e2e/helper_fixture.h"

namespace lumora::tests {

inline constexpr FrameSize tiny{64, 36};

struct Faults : HelperTest {
#if defined(__SANITIZE_THREAD__)
  void SetUp() override {
    GTEST_SKIP()
        << "ThreadSanitizer and the fault library exclude each other: each must be loaded first";
  }
#endif
  // False when the helper is not ready within 20 s, or ends before.
  bool startWith(const std::string& faults, Environment more = {}) {
    std::filesystem::remove(hitPath());
    more.insert(environment.begin(), environment.end());
    more.insert({{"LD_PRELOAD", LUMORA_FAULTS},
                 {"LUMORA_FAULT", faults},
                 {"LUMORA_FAULT_HIT", hitPath()},
                 {"TAVO_H264_ENCODER", "software"},
                 {"ASAN_OPTIONS", "verify_asan_link_order=0:detect_leaks=0"}});
    launch({}, std::move(more));
    takes = {};
    error = said = "";
    return hear([](const Event& event) { return event["type"] == "ready"; });
  }
  // Reads events until `isLast` returns true. False when the output ends or 20 s have passed.
  bool hear(const HelperProcess::Wanted& isLast = [](const Event&) { return false; }) {
    for (const double patience = uptime() + 20; uptime() < patience;) {
      const auto event = helper->nextEvent(Seconds(std::max(patience - uptime(), 0.0)));
      if (!event) return false;
      said += event->dump() + "\n";
      if (event->at("type") == "ready") port = event->at("port");
      if (event->at("type") == "error") error = event->at("message");
      if (event->at("type") == "recording")
        takes[event->at("id")][event->at("state")] = event->at("path");
      if (isLast(*event)) return true;
    }
    return false;
  }
  void feedAll() {
    const Pixels pixels = quarters(tiny);
    for (int i = 0; i < frames && helper->writePixels(tiny, ++lastID, pixels); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
      if (hasSound) feedSound(uptime() * speed);
    }
  }
  const std::map<std::string, std::string>& takeOne() {
    startTake(keys);
    feedAll();
    stopTake();
    const auto& states = takes[takeID];
    const bool isHeard =
        hear([&](const Event&) { return states.contains("saved") || states.contains("failed"); });
    EXPECT_TRUE(isHeard || !helper->hasOutput()) << said;
    return states;
  }
  // Runs the helper with one client and records a short take. If the last of `faults` has occurred
  // by then and `withAnother` is true, records a second take. That take may fail only if the helper
  // ends.
  client::Exited run(const std::string& faults, bool withAnother) {
    if (startWith(faults)) {
      std::unique_ptr<client::StreamClient> viewer;
      try {
        viewer = connect();
        viewer->sayHello(token);
      } catch (const std::exception&) {  // the helper's listener may be gone
      }
      takeOne();
      if (withAnother && hasHit()) {
        const auto first = std::pair(takeID, path);
        turnTo(folder / "another.mp4");
        const auto& states = takeOne();
        EXPECT_TRUE(states.empty() || states.contains("saved") || error != "") << said;
        std::tie(takeID, path) = first;
      }
    }
    helper->closeInput();
    hear();
    const auto exit = helper->wait(Seconds(20)).value_or(client::Exited{.status = -1});
    helper.reset();
    return exit;
  }
  // Makes the calls of the kind `call` fail, one in each run. `before` lists the faults that every
  // run has first. `look` judges each run. In the first run the first call fails, in the second
  // run the second, and so on for `all` calls. After these, runs skip more and more calls. The last
  // run ends before the call that should fail. With sound there are fewer runs, because the runs
  // without sound already cover most of the calls.
  void sweep(const std::string& before, const std::string& call, bool withAnother,
             const std::function<void(const client::Exited&, long nth)>& look) {
    const long all = sanitized ? 2 : hasSound ? 8 : 40, divisor = hasSound ? 3 : 8;
    const auto next = [&](long nth) { return nth + 1 + (nth < all ? 0 : nth / divisor); };
    long nth = 1;
    for (bool hit = true; hit; nth = next(nth)) {
      SCOPED_TRACE(before + call + " " + std::to_string(nth));
      const auto exit = run(before + call + ":" + std::to_string(nth), withAnother);
      hit = hasHit();
      look(exit, nth);
      std::filesystem::remove_all(folder);
      std::filesystem::create_directory(folder);
    }
    EXPECT_GT(nth, next(1)) << call << " never occurs";
  }
  // Expects exit status 0, or 1 after an error event. A take that starts must be either saved or
  // failed.
  void judge(const client::Exited& exit, const std::string& kind) {
    EXPECT_EQ(exit.signal, 0);
    EXPECT_TRUE(exit.status == 0 || exit.status == 1) << exit.status;
    // Event lines may be lost if `write` fails.
    EXPECT_TRUE(kind == "write" || (exit.status == 0) == error.empty()) << error;
    // If an allocation fails, a library may abort. In no other case may the helper abort.
    const bool hasAborted = error == "unexpected failure";
    EXPECT_TRUE(!hasAborted || kind == "malloc");
    for (const auto& [id, states] : takes) {
      const bool isSaved = states.contains("saved"), isFailed = states.contains("failed");
      EXPECT_FALSE(isSaved && isFailed);
      EXPECT_TRUE(states.empty() || isSaved || isFailed || hasAborted || kind == "write") << said;
      EXPECT_TRUE(!isSaved || std::filesystem::exists(states.at("saved")));
      EXPECT_TRUE(!isFailed || kind == "unlink" ||
                  !std::filesystem::exists(states.at("failed") + "." + id + ".partial"));
    }
  }
  std::string recoveredPath() const {
    return path.substr(0, path.size() - 4) + ".recovered-" + takeID + ".mp4";
  }
  std::string hitPath() const { return folder / "hit"; }
  bool hasHit() const { return std::filesystem::exists(hitPath()); }
  // LUMORA_HELPER may name the portable program. That program contains libavcodec, so the fault
  // library can't make its calls of libavcodec fail.
  static bool canFailCodec() { return std::getenv("LUMORA_HELPER") == nullptr; }

  Environment environment;
  Event keys = smallTake;
  int frames = 6;  // of a take
  int speed = 1;   // of the helper's clock
  bool hasSound = false;

  // What the helper has said.
  std::map<std::string, std::map<std::string, std::string>> takes;  // id -> state -> path
  std::string error, said;
};

// Takes without and with sound.
struct FaultyTakes : Faults, testing::WithParamInterface<bool> {
  FaultyTakes() {
    hasSound = GetParam();
    if (!hasSound) return;
    environment["TAVO_SOUND"] = "48000x2";
    keys["sound"] = true;
  }
};

}  // namespace lumora::tests
