#include <lumora/helper.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

#include "client/feeder.h"
#include "client/frame_layout.h"
#include "client/frame_slots.h"
#include "client/posted_handlers.h"
#include "client/program.h"
#include "client/quiet_thread.h"
#include "client/take_command.h"
#include "client/take_state.h"
#include "client/takes.h"

namespace lumora::client {
namespace {

constexpr Seconds timeToBecomeReady(10);
// These times count from `stop`. A helper ends within 2.2 s after it is asked to, even if it must
// finish a take.
constexpr Seconds timeToTerminate(2.25);
constexpr Seconds timeToKill(4.5);
constexpr Seconds timeToGiveUp(4.9);

// The limits of docs/protocol.md. A helper ends when it gets a frame outside them.
void check(FrameSize size) {
  const auto [least, most] = std::minmax(size.width, size.height);
  const bool fits =
      least >= 2 && least <= 1080 && most <= 1920 && size.width % 2 == 0 && size.height % 2 == 0;
  if (!fits)
    throw std::invalid_argument(
        "the sides of a frame must be even and above 0, the longer at most 1920, the shorter at "
        "most 1080");
}

void check(const FrameFormat& format) {
  if ((format.matrix || format.range) && !layoutOf(format.encoding).hasMatrix)
    throw std::invalid_argument("this encoding has no choice of matrix and range");
}

void check(SoundFormat format) {
  const bool hasRate = format.rate >= 8000 && format.rate <= 96000;
  if (!hasRate || (format.channels != 1 && format.channels != 2))
    throw std::invalid_argument("sound must have 1 or 2 channels and a rate of 8000 to 96000");
}

void checkToken(const std::string& token) {
  constexpr auto allowed = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-";
  const bool hasLength = token.size() >= 16 && token.size() <= 128;
  if (!hasLength || token.find_first_not_of(allowed) != std::string::npos)
    throw std::invalid_argument("a token must be 16 to 128 characters of A-Z a-z 0-9 _ -");
}

std::string text(const std::optional<SoundFormat>& format) {
  if (!format) return "";
  return std::to_string(format->rate) + "x" + std::to_string(format->channels);
}

std::shared_ptr<FrameSlots> makeSlots(const HelperOptions& options) {
  const bool shares = options.frames == FrameTransport::memory;
  auto shared = shares ? FrameSlots::makeShared(options.format) : nullptr;
  return shared ? shared : FrameSlots::makePrivate(options.format);
}

std::shared_ptr<ChildProcess> launch(const HelperOptions& options, const std::string& token,
                                     int frameMemory) {
  return std::make_shared<ChildProcess>(LaunchOptions{
      findProgram(options.program), token, options.arguments, options.environment, frameMemory,
      options.format == FrameFormat{} ? "" : options.format.text(), text(options.sound)});
}

}  // namespace

class Helper::Impl {
 public:
  Impl(const HelperOptions& options, EventHandler onEvent)
      : token_(options.token.empty() ? makeToken() : options.token),
        format_(options.format),
        sound_(options.sound),
        likelySize_(options.frameSize),
        handlers_(options.queue),
        onEvent_(handlers_.post(std::move(onEvent))),
        slots_(makeSlots(options)),
        process_(launch(options, token_, slots_->descriptor())),
        feeder_(std::make_shared<Feeder>(process_)) {}

  ~Impl() {
    if (!reader_.joinable()) return;
    stop();
    reader_.join();
    if (stopper_.joinable()) stopper_.join();
    handlers_.close();
  }
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  // From now on the handler is called.
  void begin() {
    reader_ = startQuietThread([this] {
      readerID_ = std::this_thread::get_id();  // before a handler can call `stop`
      readEvents();
    });
  }

  // Waits until the helper is ready. Throws StartError.
  void awaitStart() {
    std::unique_lock hold(mutex_);
    changed_.wait(hold, [this] { return isReady_ || isOver_; });
    if (!isReady_) throw StartError("the helper did not start: " + exit_->reason);
  }

  std::uint16_t port() const { return port_; }
  const std::string& token() const { return token_; }
  int pid() const { return process_->pid(); }
  FrameTransport frameTransport() const {
    const std::lock_guard hold(mutex_);
    return slots_->descriptor() >= 0 ? FrameTransport::memory : FrameTransport::pipe;
  }

  std::optional<Frame> acquireFrame(FrameSize size) {
    check(size);
    const auto slots = readySlots();
    auto frame = slots ? slots->acquire(size) : std::nullopt;
    if (!frame) feeder_->countDropped();
    return frame;
  }

  void publish(Frame frame, std::uint64_t id) {
    if (frame.format() != format_)
      throw std::invalid_argument("the frame has another format than this helper's");
    feeder_->write(std::move(frame), id);
  }

  FrameCounts frameCounts() const { return feeder_->counts(); }

  bool writeSound(std::span<const std::int16_t> samples, Uptime::time_point capturedAt) {
    if (!sound_) throw std::invalid_argument("the helper was started without sound");
    return feeder_->writeSound(samples, *sound_, capturedAt);
  }

  Take startTake(const TakeOptions& options, Take::EventHandler onEvent) {
    Recording asked;
    asked.id = randomTakeID();
    asked.path = options.path;
    const auto startedAt = options.startedAt.value_or(Uptime::now());
    const std::string command = startCommand(asked.id, options, startedAt);
    // A take may outlive its helper.
    const auto send = [feeder = std::weak_ptr(feeder_)](const std::string& stop) {
      if (const auto alive = feeder.lock()) alive->write(commandRecord(stop));
    };
    const auto state =
        std::make_shared<Take::State>(asked, startedAt, send, handlers_.post(std::move(onEvent)));
    takes_.add(state);
    feeder_->write(commandRecord(command));
    return {asked.id, asked.path, state};
  }

  std::optional<Exited> exited() const {
    const std::lock_guard hold(mutex_);
    return exit_;
  }

  Exited stop() {
    if (std::this_thread::get_id() == readerID_) {
      throw std::logic_error("a helper can't be stopped by its own event handler");
    }
    endProcess();
    std::unique_lock hold(mutex_);
    changed_.wait(hold, [this] { return isOver_; });
    return *exit_;
  }

  void requestStop() {
    const std::lock_guard hold(mutex_);
    if (!stopper_.joinable()) stopper_ = startQuietThread([this] { endProcess(); });
  }

 private:
  std::shared_ptr<FrameSlots> readySlots() const {
    const std::lock_guard hold(mutex_);
    return isReady_ ? slots_ : nullptr;
  }

  void readEvents() {
    readStart();
    // The output may stay open after the helper has ended: another process may hold it, or may
    // still pass on the helper's last lines. Reading then stops once no line comes for 0.1 s.
    for (bool hasEnded = false; process_->hasOutput();) {
      auto line = process_->nextLine(Seconds(hasEnded ? 0.1 : 0));
      if (!line && hasEnded) break;
      if (!line) {
        takes_.failUnanswered(Uptime::now());  // all answers so far have been read
        hasEnded = awaitExit(Seconds(0)).has_value();
        if (!hasEnded) line = process_->nextLine(Seconds(1));
      }
      if (line) tell(parseEvent(*std::move(line)));
    }
    std::optional<Exited> end;
    while (!(end = awaitExit(Seconds(1)))) takes_.failUnanswered(Uptime::now());
    end->reason = problem_;
    if (problem_.empty() && !readySlots()) end->reason = "it ended at once with " + toText(*end);
    {
      const std::lock_guard hold(mutex_);
      exit_ = end;
    }
    takes_.abandonAll("the helper has ended with " + toText(*end));
    tell({{}, *end});
    const std::lock_guard hold(mutex_);
    isOver_ = true;
    changed_.notify_all();
  }

  // Reads the events up to "ready". If it does not come, ends the helper.
  void readStart() {
    try {
      if (likelySize_) slots_->prepare(*likelySize_);
    } catch (const std::bad_alloc&) {  // there may be enough memory later
    }
    const Deadline deadline(timeToBecomeReady);
    while (auto line = process_->nextLine(deadline.left())) {
      tell(parseEvent(*std::move(line)));
      if (readySlots()) return;
      if (deadline.left() == Seconds(0)) break;
    }
    // A program that has closed its output is about to end.
    const bool hasEnded = awaitExit(Seconds(process_->hasOutput() ? 0 : 1)).has_value();
    if (!hasEnded && problem_.empty()) problem_ = "it did not become ready";
    const std::lock_guard hold(mutex_);
    process_->sendSignal(SIGKILL);
    process_->abandon();  // another process may keep the helper's output open
  }

  // The helper's end; empty if it does not end in time. Collecting the status frees the process
  // id for another process, so `mutex_` keeps `stop` from sending a signal meanwhile.
  std::optional<Exited> awaitExit(Seconds limit) {
    for (const Deadline deadline(limit);;) {
      {
        const std::lock_guard hold(mutex_);
        if (auto end = process_->wait(Seconds(0))) return end;
      }
      if (deadline.left() == Seconds(0)) return std::nullopt;
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
  }

  void tell(const Event& event) {
    if (const auto* ready = std::get_if<Ready>(&event.what)) becomeReady(*ready);
    if (const auto* error = std::get_if<Error>(&event.what)) problem_ = error->message;
    if (const auto* recording = std::get_if<Recording>(&event.what)) takes_.report(*recording);
    if (onEvent_) onEvent_(event);
  }

  void becomeReady(const Ready& ready) {
    const std::lock_guard hold(mutex_);
    if (slots_->descriptor() >= 0 && !slots_->isShared()) {
      // An older helper, which reads its pipe only.
      unread_ = std::exchange(slots_, FrameSlots::makePrivate(format_));
    }
    port_ = ready.port;
    isReady_ = true;
    changed_.notify_all();
  }

  // Asks the helper to end. If it does not, ends it by signals, and after that gives up.
  void endProcess() {
    const auto askedAt = Uptime::now();
    feeder_->endFrames();
    // Waits for the takes that were told to stop: the end of the input would end them at once, not
    // at their stop times.
    takes_.awaitStopped(timeToTerminate);
    feeder_->end();
    for (const auto& [time, signal] :
         {std::pair{timeToTerminate, SIGTERM}, {timeToKill, SIGKILL}}) {
      if (!awaitLastEvent(askedAt + time)) sendSignal(signal);
    }
    awaitLastEvent(askedAt + timeToGiveUp);
    const std::lock_guard hold(mutex_);
    process_->abandon();  // another process may hold the pipes of a helper that has ended
  }

  // False if the last event was not handled by this time.
  bool awaitLastEvent(Uptime::time_point latest) {
    const Deadline deadline(latest - Uptime::now());
    std::unique_lock hold(mutex_);
    return changed_.wait_until(hold, deadline.time(), [this] { return isOver_; });
  }

  void sendSignal(int signal) {
    const std::lock_guard hold(mutex_);
    process_->sendSignal(signal);
  }

  const std::string token_;
  const FrameFormat format_;
  const std::optional<SoundFormat> sound_;
  const std::optional<FrameSize> likelySize_;
  const PostedHandlers handlers_;
  const EventHandler onEvent_;
  std::shared_ptr<FrameSlots> slots_;  // guarded by `mutex_` once the reader runs
  // Memory that an older helper does not read. Stays open, so that no other memory gets its
  // descriptor's number. `process_` compares such numbers to see whether the helper can read a
  // frame in place.
  std::shared_ptr<FrameSlots> unread_;
  const std::shared_ptr<ChildProcess> process_;
  const std::shared_ptr<Feeder> feeder_;
  Takes takes_;

  // Guards `slots_`, the next fields up to `stopper_`, and the collection of the exit status.
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  bool isReady_ = false;
  bool isOver_ = false;  // the last event has been handled
  std::optional<Exited> exit_;
  std::thread stopper_;

  std::atomic<std::uint16_t> port_ = 0;
  std::string problem_;  // only the reader uses it
  std::thread reader_;
  std::atomic<std::thread::id> readerID_;
};

Helper::Helper(const HelperOptions& options, EventHandler onEvent) {
  if (options.frameSize) check(*options.frameSize);
  check(options.format);
  if (options.sound) check(*options.sound);
  if (!options.token.empty()) checkToken(options.token);
  try {
    impl_ = std::make_unique<Impl>(options, std::move(onEvent));
    impl_->begin();                           // once `impl_` is set, since the handler may call us
  } catch (const std::system_error& error) {  // no process or no thread
    throw StartError("the helper could not be started: " + std::string(error.what()));
  }
  if (!options.queue) impl_->awaitStart();
}
Helper::~Helper() = default;

std::uint16_t Helper::port() const { return impl_->port(); }
const std::string& Helper::token() const { return impl_->token(); }
int Helper::pid() const { return impl_->pid(); }
FrameTransport Helper::frameTransport() const { return impl_->frameTransport(); }
std::optional<Frame> Helper::acquireFrame(FrameSize size) { return impl_->acquireFrame(size); }
void Helper::publish(Frame frame, std::uint64_t id) { impl_->publish(std::move(frame), id); }
FrameCounts Helper::frameCounts() const { return impl_->frameCounts(); }
bool Helper::writeSound(std::span<const std::int16_t> samples, Uptime::time_point capturedAt) {
  return impl_->writeSound(samples, capturedAt);
}
Take Helper::startTake(const TakeOptions& options, Take::EventHandler onEvent) {
  return impl_->startTake(options, std::move(onEvent));
}
std::optional<Exited> Helper::exited() const { return impl_->exited(); }
Exited Helper::stop() { return impl_->stop(); }
void Helper::requestStop() { impl_->requestStop(); }

bool Helper::writeFrame(FrameSize size, std::uint64_t id, std::span<const std::uint8_t> picture) {
  auto frame = acquireFrame(size);
  if (!frame) return false;
  frame->copyFrom(picture);
  publish(*std::move(frame), id);
  return true;
}

}  // namespace lumora::client
