#include "tools/viewer/bridge.h"

#include <boost/asio/post.hpp>
#include <chrono>
#include <cstdio>
#include <functional>
#include <thread>

#include "tools/viewer/page_socket.h"
#include "tools/viewer/takes.h"

namespace lumora::viewer {
namespace asio = boost::asio;

namespace {

// The event that the page shows for a take of which the helper says nothing.
nlohmann::json unansweredEvent(const client::Recording& take) {
  return {{"type", "recording"}, {"state", "failed"}, {"id", take.id}, {"path", take.path.string()},
          {"error", take.error}, {"duration", 0},     {"frames", 0},   {"dropped", 0},
          {"throttled", 0}};
}

double uptime() { return client::Uptime::now().time_since_epoch().count(); }

}  // namespace

template <typename... Arguments>
auto Bridge::posting(void (Bridge::*method)(Arguments...)) {
  return [this, method](auto&&... arguments) {
    asio::post(context_,
               std::bind_front(method, this, std::forward<decltype(arguments)>(arguments)...));
  };
}

Bridge::Bridge(asio::io_context& context) : context_(context), ticks_(context), goodbye_(context) {
  tick();
}

void Bridge::join(const tools::HelperAddress& helper) {
  session_ = {{"type", "session"},
              {"mode", "guest"},
              {"helper", helper.host + ":" + std::to_string(helper.port)}};
  connectTo(helper);
}

void Bridge::own(const client::HelperOptions& options, std::unique_ptr<tools::FrameSource> source,
                 std::unique_ptr<tools::Microphone> microphone, int framesPerSecond,
                 const std::string& folder) {
  const std::string program = options.program.filename();
  session_ = {{"type", "session"},
              {"mode", "owner"},
              {"folder", folder},
              {"sound", options.sound.has_value()},
              {"helper", program.empty() ? "lumora-video" : program}};
  folder_ = folder;
  program_ = options.program;
  takesRecovered({}, countInterruptedTakes(folder_));
  const Camera::Handlers handlers{.event = posting(&Bridge::eventCame),
                                  .inputEnded = posting(&Bridge::inputEnded),
                                  .soundEnded = posting(&Bridge::soundEnded),
                                  .ended = posting(&Bridge::helperEnded)};
  camera_ = std::make_unique<Camera>(options, std::move(source), std::move(microphone),
                                     framesPerSecond, handlers);
  connectTo({"127.0.0.1", camera_->helper().port(), camera_->helper().token()});
}

void Bridge::connectTo(const tools::HelperAddress& helper) {
  const tools::WatchedStream::Handlers handlers{.packet = posting(&Bridge::packetCame),
                                                .connected = posting(&Bridge::streamBegan),
                                                .failed = posting(&Bridge::streamFailed)};
  stream_ = std::make_unique<tools::WatchedStream>(helper, handlers);
  watcher_ = std::jthread(
      [this](const std::stop_token& stop) { stream_->watch(stop, client::Seconds::max()); });
}

WebHandlers Bridge::webHandlers() {
  return {.pageJoined = [this](const std::shared_ptr<PageSocket>& page) { pageJoined(page); },
          .movie =
              [this](const std::string& name) {
                return movies_.contains(name) ? movies_.at(name) : std::filesystem::path();
              }};
}

void Bridge::pageJoined(const std::shared_ptr<PageSocket>& page) {
  if (page_) {
    const Json busy = {{"type", "busy"},
                       {"message", "Another page is open on this viewer. Close it first."}};
    page->sendText(busy.dump());
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
  if (!interruptedTakes_.is_null()) tell(interruptedTakes_);
  if (!interruption_.is_null()) tell(interruption_);
}

void Bridge::pageSpoke(std::string_view text) {
  flow_.pageSpoke();
  const auto message = parsePageMessage(text);
  if (!message) return refuse("The viewer does not know this message. Reload the page.");
  try {
    std::visit([this](const auto& said) { obey(said); }, *message);
  } catch (const std::exception& error) {
    refuse(error.what());
  }
}

void Bridge::obey(const Ping& message) {
  tell({{"type", "pong"},
        {"sent", message.sent},
        {"clock", client::frameID(client::Uptime::now())}});
}

void Bridge::obey(const StartTake& message) {
  if (!camera_) return refuse("Only the application that started the helper can record takes.");
  if (take_ || planning_.joinable()) return refuse("A take is running already.");
  // On a thread of its own, since the folder's disk may hang.
  planning_ = std::jthread(
      [message, startedAt = client::Uptime::now(), done = posting(&Bridge::takePlanned)] {
        try {
          done(planTake(message, startedAt), "");
        } catch (const std::exception& error) {
          done(std::nullopt, std::string(error.what()));
        }
      });
}

void Bridge::takePlanned(const std::optional<client::TakeOptions>& plan,
                         const std::string& problem) try {
  planning_ = {};
  if (ending_) return;
  if (!plan) return refuse(problem);
  if (!inputEnd_.empty()) return refuse("The input has ended.");
  auto options = *plan;
  options.sound = options.sound && session_["sound"].get<bool>();  // the sound may have just ended
  take_ = camera_->helper().startTake(options, posting(&Bridge::takeSaid));
} catch (const std::exception& error) {
  refuse(error.what());
}

void Bridge::obey(const StopTake&) {
  if (take_) take_->stop();
}

// Recovers on a thread of its own, since a recovery waits for the disk.
void Bridge::obey(const RecoverTakes&) {
  if (!camera_ || recovery_.joinable()) return;
  const auto done = posting(&Bridge::takesRecovered);
  recovery_ = std::jthread([folder = folder_, program = program_, done] {
    std::vector<std::string> lines;
    try {
      lines = recoverTakes(folder, program);
    } catch (const std::exception& error) {
      lines = {error.what()};
    }
    done(lines, countInterruptedTakes(folder));
  });
}

// Tells the page what a recovery did (`lines`), and that `left` takes are unfinished or running.
void Bridge::takesRecovered(const std::vector<std::string>& lines, std::size_t left) {
  recovery_ = {};
  if (left == 0 && lines.empty() && interruptedTakes_.is_null()) return;
  interruptedTakes_ = {{"type", "interrupted"}, {"count", left}, {"lines", lines}};
  tell(interruptedTakes_);
}

void Bridge::packetCame(const client::Packet& packet) {
  if (packet.type == client::Packet::Type::configuration) {
    configuration_ = toBytes(packet);
    return;
  }
  if (!flow_.frameCame(packet.frameID, packet.keyframe, uptime())) {
    return acknowledge(packet.frameID);
  }
  // `frameCame` returns true only while there is a page, so `page_` is set.
  if (const auto withheld = flow_.takeWithheld()) {
    tell({{"type", "skipped"}, {"frames", withheld}});
  }
  if (packet.keyframe && !configuration_.empty()) page_->sendBytes(configuration_);
  page_->sendBytes(toBytes(packet));
}

void Bridge::streamBegan() {
  flow_.streamBegan();
  lastFailure_ = "";
  if (camera_ || interruption_.is_null()) return;
  interruption_ = nullptr;
  tell(session_);
}

void Bridge::streamFailed(const std::string& why) {
  flow_.streamBegan();  // frames of this connection must not be acknowledged on the next one
  if (std::exchange(lastFailure_, why) == why) return;  // the watcher retries four times a second
  if (!ending_ && inputEnd_.empty()) std::fprintf(stderr, "%s\n", why.c_str());
  if (camera_) return;  // the helper's events tell more
  interruption_ = {{"type", "lost"}, {"message", why + " Trying again."}};
  tell(interruption_);
}

void Bridge::remember(const std::string& line) {
  constexpr std::size_t most = 200;
  lastLines_.push_back(line);
  if (lastLines_.size() > most) lastLines_.pop_front();
}

void Bridge::eventCame(const std::string& line) {
  remember(line);
  const Json event = Json::parse(line, nullptr, /*allow_exceptions=*/false);
  if (!event.is_object()) return;
  const std::string type = event.value("type", "");
  if (type == "error") std::fprintf(stderr, "%s\n", event.value("message", "").c_str());
  show(event);
}

void Bridge::show(const Json& event) {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  const Json message = {{"type", "event"},
                        {"event", event},
                        {"at", std::chrono::duration_cast<std::chrono::milliseconds>(now).count()}};
  latestEvents_[event.value("type", "")] = message;
  tell(message);
}

void Bridge::inputEnded(std::uint64_t frames) {
  if (ending_) return;
  inputEnd_ = frames == 0 ? "The input gave no picture." : "The input has ended.";
  failed_ = failed_ || frames == 0;
  std::fprintf(stderr, "%s\n", inputEnd_.c_str());
}

void Bridge::soundEnded(bool hasHeard) {
  if (ending_) return;
  const std::string words =
      hasHeard ? "The sound device has ended." : "The sound device gave no sound.";
  std::fprintf(stderr, "%s\n", words.c_str());
  remember(words);
  session_["sound"] = false;
  tell({{"type", "silent"}, {"message", words}});
}

void Bridge::helperEnded(const client::Exited& exited) {
  camera_->stop();  // ffmpeg may hang in a device, and would outlive the viewer
  failed_ = failed_ || !exited.isClean() || isTakeLost_;
  const std::string words = inputEnd_ + (inputEnd_.empty() ? "" : " ") +
                            "The helper has ended with " + toText(exited) + ".";
  remember(words);
  if (!exited.isClean()) std::fprintf(stderr, "%s\n", words.c_str());
  interruption_ = {{"type", "ended"}, {"message", words}, {"status", failed_ ? 1 : 0}};
  tell(interruption_);
  finish();
}

// Reports the take's end and offers its movie. A "saved" event goes to `eventCame` next, which
// passes it to the page. Then the page loads the movie.
void Bridge::takeSaid(const client::Recording& recording) {
  if (!recording.isOver()) return;
  if (recording.failure == client::TakeFailure::noAnswer) {
    const Json event = unansweredEvent(recording);
    remember(event.dump());
    show(event);
  }
  std::filesystem::path unfinished = take_->stagingPath();
  if (recording.kept) unfinished = recording.kept->path;
  take_.reset();
  isTakeLost_ = recording.state == client::TakeState::failed;
  if (!isTakeLost_) {
    movies_["takes/" + recording.id + ".mp4"] = recording.path;
    std::printf("Saved %s\n", recording.path.c_str());
    return;
  }
  std::fprintf(stderr, "The take was not saved: %s.\n", recording.error.c_str());
  // On a thread of its own, since the disk may hang.
  std::thread([unfinished] {
    std::error_code unknown;
    if (!std::filesystem::exists(unfinished, unknown)) return;
    std::fprintf(stderr, "The recorded part is in %s\n", unfinished.c_str());
  }).detach();
}

void Bridge::end() {
  ending_ = true;
  if (camera_) return camera_->stop();  // `helperEnded` follows
  tell({{"type", "ended"}, {"message", "The viewer has ended."}, {"status", 0}});
  finish();
}

// Stops the context after a moment, in which the page reads the last messages.
void Bridge::finish() {
  if (page_) page_->close();
  goodbye_.expires_after(std::chrono::milliseconds(300));
  goodbye_.async_wait([this](const boost::system::error_code&) { context_.stop(); });
}

void Bridge::tick() {
  ticks_.expires_after(std::chrono::milliseconds(50));
  ticks_.async_wait([this](const boost::system::error_code& error) {
    if (error) return;
    acknowledge(flow_.acknowledgeOverdue(uptime()));
    tick();
  });
}

void Bridge::acknowledge(std::optional<std::uint64_t> frameID) {
  if (frameID) stream_->acknowledge(*frameID);
}

void Bridge::tell(const Json& message) {
  if (page_) page_->sendText(message.dump(-1, ' ', false, Json::error_handler_t::replace));
}

}  // namespace lumora::viewer
