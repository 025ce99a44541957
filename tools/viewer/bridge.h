#pragma once

// Connects a helper with the page: passes the stream and the events on, and does what the page
// asks. It runs on the thread of its context; what other threads report is posted there.

#include <boost/asio/steady_timer.hpp>
#include <map>
#include <nlohmann/json.hpp>

#include "tools/viewer/camera.h"
#include "tools/viewer/frame_flow.h"
#include "tools/viewer/page_messages.h"
#include "tools/viewer/web_server.h"
#include "tools/watched_stream.h"

namespace lumora::viewer {

class Bridge {
 public:
  explicit Bridge(boost::asio::io_context& context);

  // Watches a helper that runs already.
  void join(const tools::HelperAddress& helper);
  // Starts a Camera, and throws what its constructor throws. The page proposes `folder` for takes.
  void own(const client::HelperOptions& options, std::unique_ptr<tools::FrameSource> source,
           std::unique_ptr<tools::Microphone> microphone, int framesPerSecond,
           const std::string& folder);

  WebHandlers webHandlers();
  // If `own` started the helper, makes it save a running take and exit. Then stops the context.
  void end();
  bool hasFailed() const { return failed_; }
  // The helper that `own` started.
  client::Helper& helper() { return camera_->helper(); }
  // What the helper said last, and how it ended.
  std::vector<std::string> lastLines() const { return {lastLines_.begin(), lastLines_.end()}; }

 private:
  using Json = nlohmann::json;

  // Makes a function that any thread may call. `method` then runs on the thread of the context.
  template <typename... Arguments>
  auto posting(void (Bridge::*method)(Arguments...));

  void pageJoined(const std::shared_ptr<PageSocket>& page);
  void pageSpoke(std::string_view text);
  void obey(const Shown& message) { acknowledge(flow_.shown(message.frameID)); }
  void obey(const Ping& message);
  void obey(const Restarted&) { flow_.pageRestarted(); }
  void obey(const Visible& message) { flow_.setVisible(message.visible); }
  void obey(const StartTake& message);
  void obey(const StopTake&);
  void obey(const RecoverTakes&);
  void takePlanned(const std::optional<client::TakeOptions>& plan, const std::string& problem);

  void connectTo(const tools::HelperAddress& helper);
  void packetCame(const client::Packet& packet);
  void streamBegan();
  void streamFailed(const std::string& why);
  void eventCame(const std::string& line);
  void show(const Json& event);
  void inputEnded(std::uint64_t frames);
  void soundEnded(bool hasHeard);
  void helperEnded(const client::Exited& exited);
  void remember(const std::string& line);
  void takeSaid(const client::Recording& recording);
  void takesRecovered(const std::vector<std::string>& lines, std::size_t left);

  void tick();
  void acknowledge(std::optional<std::uint64_t> frameID);
  void tell(const Json& message);
  void refuse(const std::string& why) { tell({{"type", "refused"}, {"message", why}}); }
  void finish();

  boost::asio::io_context& context_;
  boost::asio::steady_timer ticks_;
  boost::asio::steady_timer goodbye_;
  FrameFlow flow_;
  std::shared_ptr<PageSocket> page_;

  // Messages for a page that opens later.
  Json session_;
  std::map<std::string, Json> latestEvents_;  // by type
  std::deque<std::string> lastLines_;         // for a report, not for a page
  Json interruption_;                         // why there is no stream; or null
  Json interruptedTakes_;                     // how many, and what a recovery did; or null
  std::vector<std::uint8_t> configuration_;   // the latest configuration packet

  std::optional<client::Take> take_;                     // while it runs
  std::map<std::string, std::filesystem::path> movies_;  // of saved takes, by "takes/ID.mp4"
  std::string folder_;                                   // that the page proposes
  std::filesystem::path program_;                        // of the helper; empty: see HelperOptions
  std::jthread recovery_;                                // of interrupted takes
  std::jthread planning_;                                // of the next take
  bool isTakeLost_ = false;                              // the take that ended last has failed
  std::string lastFailure_;                              // of the stream; empty while it works
  std::string inputEnd_;                                 // a sentence, once the input has ended
  bool ending_ = false;
  bool failed_ = false;
  std::unique_ptr<tools::WatchedStream> stream_;
  std::jthread watcher_;            // of the stream
  std::unique_ptr<Camera> camera_;  // null when the helper is not ours
};

}  // namespace lumora::viewer
