#pragma once

// Between the helper and the page. On the thread of its context; what comes from other threads is
// posted there.

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "tools/viewer/camera.h"
#include "tools/viewer/frame_flow.h"
#include "tools/viewer/page.h"
#include "tools/viewer/page_messages.h"
#include "tools/viewer/stream_source.h"
#include "tools/viewer/takes.h"
#include "tools/viewer/web_server.h"

namespace lumora::viewer {

class Bridge {
 public:
  explicit Bridge(boost::asio::io_context& context);

  // Either: watches a helper that runs already,
  void join(const HelperAddress& helper);
  // or starts one. `folder` is where the page proposes to put takes. Throws client::StartError.
  void own(const client::HelperOptions& options, std::unique_ptr<tools::FrameSource> source,
           int framesPerSecond, std::string folder);

  WebHandlers webHandlers();
  // Lets a helper of our own save its take and end, then stops the context.
  void end();
  bool hasFailed() const { return failed_; }

 private:
  using Json = nlohmann::json;

  void pageJoined(const std::shared_ptr<Page>& page);
  void pageSpoke(std::string_view text);
  void obey(const Shown& message);
  void obey(const Ping& message);
  void obey(const Restarted&) { flow_.pageRestarted(); }
  void obey(const Visible& message) { flow_.setVisible(message.visible); }
  void obey(const StartTake& message);
  void obey(const StopTake&);

  void connectTo(const HelperAddress& helper);
  void packetCame(const client::Packet& packet);
  void frameCame(const client::Packet& packet);
  void connectionChanged(const std::optional<std::string>& problem);
  void eventCame(const std::string& line);
  void inputEnded(std::uint64_t frames);
  void helperEnded(const client::Exited& exited);
  void reportTake();

  void tick();
  void acknowledge(std::optional<std::uint64_t> frameID);
  void tell(const Json& message);
  void refuse(const std::string& why) { tell({{"type", "refused"}, {"message", why}}); }
  void finish();

  boost::asio::io_context& context_;
  boost::asio::steady_timer ticks_;
  boost::asio::steady_timer goodbye_;
  FrameFlow flow_;
  Takes takes_;
  std::shared_ptr<Page> page_;
  Page::Bytes configuration_;                 // the latest
  std::map<std::string, Json> latestEvents_;  // by type, for a page that comes later
  Json session_;
  Json interrupted_;  // what is told of the stream's break or end, once it has come
  bool ending_ = false;
  bool failed_ = false;
  bool failedAtEnd_ = false;                  // a take that was running when the end was asked for
  std::optional<std::uint64_t> inputFrames_;  // of an input that has ended
  std::unique_ptr<StreamSource> stream_;
  std::unique_ptr<Camera> camera_;
  std::optional<client::Take> take_;  // the latest that was asked for
  bool isTakeReported_ = false;       // its end
};

}  // namespace lumora::viewer
