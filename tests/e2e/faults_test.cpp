// The real helper on a machine whose calls fail, one at a time, and whose power goes.

#include <fstream>
#include <set>

#include "tests/e2e/helper_fixture.h"
#include "tests/faults/disk_log.h"

namespace lumora::tests {
namespace {

struct Faults : TakeTest {
  // Starts the helper with calls that fail, or says how it ended.
  bool startWith(const std::string& faults, std::map<std::string, std::string> more = {}) {
    std::filesystem::remove(hit());
    more.insert({{"LD_PRELOAD", LUMORA_FAULTS},
                 {"LUMORA_FAULT", faults},
                 {"LUMORA_FAULT_HIT", hit()},
                 {"TAVO_H264_ENCODER", "software"},
                 {"ASAN_OPTIONS", "verify_asan_link_order=0:detect_leaks=0"}});
    helper = std::make_unique<client::HelperProcess>(
        client::LaunchOptions{LUMORA_HELPER, token, {}, std::move(more)});
    const auto ready = helper->nextEvent("ready", 20);
    if (ready) port = ready->at("port");
    return ready.has_value();
  }
  std::string hit() const { return folder / "hit"; }

  // A short take beside a client, as far as they get; the path of what was saved, if anything.
  std::string run(const std::string& faults) {
    lastID = 0;
    ++takeID.back();
    if (takeID.back() > '9') takeID.back() = '0';
    std::string saved;
    if (startWith(faults)) {
      std::unique_ptr<client::StreamClient> viewer;
      try {
        viewer = connect();
        viewer->sayHello(token);
      } catch (const std::exception&) {  // its listener may be gone
      }
      startTake();
      feedAll();
      helper->writeCommand({{"type", "record_stop"}, {"id", takeID}});
      saved = outcome();
    }
    helper->closeInput();
    const auto status = helper->wait(20);
    EXPECT_TRUE(status && status->signal == 0 && (status->code == 0 || status->code == 1))
        << (status ? status->signal : -1) << ", " << (status ? status->code : -1);
    helper.reset();
    return saved;
  }
  void feedAll() {
    const Pixels pixels = quarters({64, 36}, {200, 0, 0}, {0, 200, 0}, {0, 0, 200}, {90, 90, 90});
    for (int i = 0; i < 6; ++i) {
      if (!helper->writeFrame({64, 36}, ++lastID, pixels)) return;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }
  void startTake() {
    helper->writeCommand({{"type", "record_start"},
                          {"id", takeID},
                          {"path", path},
                          {"resolution", "640x360"},
                          {"target_fps", 60}});
  }
  std::string outcome() {
    while (const auto event = helper->nextEvent("recording", 3)) {
      if (event->at("state") == "failed") return "";
      if (event->at("state") == "saved") return event->at("path");
    }
    return "";
  }
};

// Calls that come often are not all tried: every one of the first, then ever fewer.
long after(long nth) { return nth < LUMORA_FAULTS_TRIED ? nth + 1 : nth + nth / 8 + 1; }

TEST_F(Faults, WhicheverCallFailsEveryRunEndsWellAndWhatIsSavedDecodes) {
  const std::string noRename = "renameat2:0:22,";  // as on file systems that know no such move
  const std::pair<std::string, std::string> kinds[] = {
      {"open", ""},         {"read", ""},           {"write", ""},           {"pwrite", ""},
      {"fdatasync", ""},    {"fsync", ""},          {"renameat2", ""},       {"link", noRename},
      {"unlink", noRename}, {"ftruncate", ""},      {"fallocate", ""},       {"pthread_create", ""},
      {"socket", ""},       {"bind", ""},           {"listen", ""},          {"accept", ""},
      {"recv", ""},         {"sendmsg", ""},        {"epoll_ctl", ""},       {"epoll_create1", ""},
      {"eventfd", ""},      {"timerfd_create", ""}, {"timerfd_settime", ""}, {"pipe", ""},
      {"close", ""},
#ifndef LUMORA_OWN_HEAP
      {"malloc", ""},
#endif
  };
  for (const auto& [kind, before] : kinds) {
    long nth = 1;
    for (bool more = true; more; nth = after(nth)) {
      SCOPED_TRACE(kind + " " + std::to_string(nth));
      const std::string saved = run(before + kind + ":" + std::to_string(nth));
      more = std::filesystem::exists(hit());
      EXPECT_EQ(saved.empty() ? "" : decodeErrors(saved), "");
      EXPECT_TRUE(kind != "unlink" || !more || saved == path) << saved;
      std::filesystem::remove_all(folder);
      std::filesystem::create_directory(folder);
    }
    EXPECT_GT(nth, after(1)) << kind << " never occurs";
  }
}

}  // namespace
}  // namespace lumora::tests
