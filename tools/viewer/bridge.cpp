#include "tools/viewer/bridge.h"

#include <boost/asio/post.hpp>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <utility>

#include <lumora/uptime.h>

namespace lumora::viewer {
namespace asio = boost::asio;
using client::uptime;

namespace {

constexpr std::chrono::milliseconds tickInterval{50};
constexpr std::chrono::milliseconds timeForGoodbye{300};

Page::Bytes bytesOf(const client::Packet& packet) {
  return std::make_shared<const std::vector<std::uint8_t>>(toBytes(packet));
}

}  // namespace

Bridge::Bridge(asio::io_context& context) : context_(context), ticks_(context), goodbye_(context) {
  tick();
}

void Bridge::join(const HelperAddress& helper) {
  session_ = {{"type", "session"},
              {"mode", "guest"},
              {"helper", helper.host + ":" + std::to_string(helper.port)}};
  connectTo(helper);
}

void Bridge::own(const client::HelperOptions& options, std::unique_ptr<tools::FrameSource> source,
                 int framesPerSecond, std::string folder) {
  session_ = {{"type", "session"},
              {"mode", "owner"},
              {"folder", std::move(folder)},
              {"helper", options.program.empty()
                             ? "lumora-video"
                             : std::filesystem::path(options.program).filename().string()}};
  const Camera::Handlers handlers{
      .event =
          [this](const std::string& line) {
            asio::post(context_, [this, line] { eventCame(line); });
          },
      .inputEnded =
          [this](std::uint64_t frames) {
            asio::post(context_, [this, frames] { inputEnded(frames); });
          },
      .ended =
          [this](const client::Exited& exited) {
            asio::post(context_, [this, exited] { helperEnded(exited); });
          }};
  camera_ = std::make_unique<Camera>(options, std::move(source), framesPerSecond, handlers);
  connectTo({"127.0.0.1", camera_->port(), camera_->token()});
}

WebHandlers Bridge::webHandlers() {
  return {.pageJoined = [this](const std::shared_ptr<Page>& page) { pageJoined(page); },
          .movie = [this](const std::string& name) { return takes_.movie(name); }};
}

void Bridge::pageJoined(const std::shared_ptr<Page>& page) {
  if (page_) {
    page->sendText(
        Json{{"type", "busy"}, {"message", "Another page is open on this viewer. Close it first."}}
            .dump());
    return page->close();
  }
  page_ = page;
  page->onMessage = [this](std::string_view text) { pageSpoke(text); };
  page->onClosed = [this] {
    page_.reset();
    flow_.pageLeft();
  };
  flow_.pageJoined();
  tell(session_);
  for (const auto& [type, message] : latestEvents_) tell(message);
  if (!interrupted_.is_null()) tell(interrupted_);
}

void Bridge::pageSpoke(std::string_view text) {
  flow_.pageSpoke();
  const auto message = parsePageMessage(text);
  if (!message) return refuse("The viewer does not understand this page.");
  try {
    std::visit([this](const auto& said) { obey(said); }, *message);
  } catch (const std::exception& error) {
    refuse(error.what());
  }
}

void Bridge::obey(const Shown& message) { acknowledge(flow_.shown(message.frameID)); }

void Bridge::obey(const Ping& message) {
  tell({{"type", "pong"}, {"sent", message.sent}, {"clock", client::frameID(uptime())}});
}

void Bridge::obey(const StartTake& message) {
  if (!camera_) return refuse("Only the application that started the helper can record.");
  if (take_ && !take_->latest().isOver()) return refuse("A take is running.");
  std::string problem;
  const auto options = takes_.plan(message, uptime(), problem);
  if (!options) return refuse(problem);
  take_ = camera_->startTake(*options);
  isTakeReported_ = false;
}

void Bridge::obey(const StopTake&) {
  if (take_) take_->stop();
}

void Bridge::connectTo(const HelperAddress& helper) {
  stream_ = std::make_unique<StreamSource>(
      helper, StreamSource::Handlers{
                  .packet =
                      [this](client::Packet packet) {
                        asio::post(context_,
                                   [this, packet = std::move(packet)] { packetCame(packet); });
                      },
                  .connected =
                      [this] { asio::post(context_, [this] { connectionChanged(std::nullopt); }); },
                  .failed =
                      [this](const std::string& why) {
                        asio::post(context_, [this, why] { connectionChanged(why); });
                      }});
}

void Bridge::packetCame(const client::Packet& packet) {
  if (packet.type == client::Packet::Type::configuration) {
    configuration_ = bytesOf(packet);
  } else {
    frameCame(packet);
  }
}

void Bridge::frameCame(const client::Packet& packet) {
  const auto decision = flow_.frameCame(packet.frameID, packet.keyframe, uptime());
  acknowledge(decision.acknowledge);
  if (!decision.forward || !page_) return;
  if (const auto withheld = flow_.takeWithheld()) {
    tell({{"type", "skipped"}, {"frames", withheld}});
  }
  if (packet.keyframe && configuration_) page_->sendBytes(configuration_);
  page_->sendBytes(bytesOf(packet));
}

void Bridge::connectionChanged(const std::optional<std::string>& problem) {
  if (!problem) flow_.streamBegan();
  if (problem && !ending_) std::fprintf(stderr, "%s\n", problem->c_str());
  if (camera_) return;  // its events tell more
  const Json before = interrupted_;
  interrupted_ =
      problem ? Json{{"type", "lost"}, {"message", *problem + " Trying again."}} : Json();
  if (interrupted_ == before) return;
  tell(problem ? interrupted_ : session_);
}

void Bridge::eventCame(const std::string& line) {
  const Json event = Json::parse(line, nullptr, /*allow_exceptions=*/false);
  if (!event.is_object()) return;
  if (event.value("type", "") == "error") {
    std::fprintf(stderr, "%s\n", event.value("message", "").c_str());
  }
  takes_.eventCame(event);
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  const Json message = {{"type", "event"},
                        {"event", event},
                        {"at", std::chrono::duration_cast<std::chrono::milliseconds>(now).count()}};
  latestEvents_[event.value("type", "")] = message;
  tell(message);
  reportTake();
}

void Bridge::inputEnded(std::uint64_t frames) {
  if (ending_) return;
  std::fprintf(stderr, frames == 0 ? "The input gave no picture.\n" : "The input has ended.\n");
  inputFrames_ = frames;
}

void Bridge::helperEnded(const client::Exited& exited) {
  const bool isClean = exited.status == 0 && exited.signal == 0;
  const bool isTakeLost = take_ && take_->latest().state == client::TakeState::failed;
  failed_ = !isClean || inputFrames_ == 0 || isTakeLost;
  reportTake();
  std::string words = inputFrames_ == 0 ? "The input gave no picture. "
                      : inputFrames_    ? "The input has ended. "
                                        : "";
  words += "The helper has ended with " +
           (exited.signal != 0 ? "signal " + std::to_string(exited.signal)
                               : "status " + std::to_string(exited.status)) +
           ".";
  if (!isClean) std::fprintf(stderr, "%s\n", words.c_str());
  interrupted_ = {{"type", "ended"}, {"message", words}, {"status", failed_ ? 1 : 0}};
  tell(interrupted_);
  finish();
}

// Once, when the take is over.
void Bridge::reportTake() {
  if (!take_ || isTakeReported_) return;
  const client::Recording take = take_->latest();
  if (!take.isOver()) return;
  isTakeReported_ = true;
  if (take.state == client::TakeState::saved) {
    std::printf("Saved %s\n", take.path.c_str());
    return;
  }
  std::fprintf(stderr, "The take was not saved: %s.\n", take.error.c_str());
  std::error_code unknown;
  const std::string rest = take_->stagingPath();
  if (std::filesystem::exists(rest, unknown)) {
    std::fprintf(stderr, "What there is of it: %s\n", rest.c_str());
  }
}

void Bridge::end() {
  if (std::exchange(ending_, true)) return;
  if (camera_) return camera_->stop();  // what is left is told before its end
  tell({{"type", "ended"}, {"message", "The viewer has ended."}, {"status", 0}});
  finish();
}

void Bridge::finish() {
  if (page_) page_->close();
  goodbye_.expires_after(timeForGoodbye);
  goodbye_.async_wait([this](const boost::system::error_code&) { context_.stop(); });
}

void Bridge::tick() {
  ticks_.expires_after(tickInterval);
  ticks_.async_wait([this](const boost::system::error_code& error) {
    if (error) return;
    acknowledge(flow_.acknowledgeOverdue(uptime()));
    tick();
  });
}

void Bridge::acknowledge(std::optional<std::uint64_t> frameID) {
  if (frameID && stream_) stream_->acknowledge(*frameID);
}

void Bridge::tell(const Json& message) {
  if (page_) page_->sendText(message.dump(-1, ' ', false, Json::error_handler_t::replace));
}

}  // namespace lumora::viewer
