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
#include "client/program.h"
#include "client/quiet_thread.h"
#include "client/take_command.h"
#include "client/take_state.h"
#include "client/takes.h"

namespace lumora::client {
namespace {

constexpr double secondsToBecomeReady = 10;
// Since `stop`. A helper that is asked to end does so within 2.2 s, even if it must finish a take.
constexpr double secondsToTerminate = 2.25;
constexpr double secondsToKill = 4.5;
constexpr double secondsToGiveUp = 4.9;

// The limits of docs/protocol.md. A helper ends when it gets any other frame.
void check(FrameSize size) {
  const auto [least, most] = std::minmax(size.width, size.height);
  const bool fits =
      least >= 2 && least <= 1080 && most <= 1920 && size.width % 2 == 0 && size.height % 2 == 0;
  if (!fits)
    throw std::invalid_argument("the sides of a frame must be even, at most 1920 and 1080");
}

void check(const FrameFormat& format) {
  if ((format.matrix || format.range) && !layoutOf(format.encoding).hasMatrix)
    throw std::invalid_argument("this encoding has no choice of matrix and range");
}

std::shared_ptr<FrameSlots> makeSlots(const HelperOptions& options) {
  const bool shares = options.frames == FrameTransport::memory;
  auto shared = shares ? FrameSlots::makeShared(options.format) : nullptr;
  return shared ? shared : FrameSlots::makePrivate(options.format);
}

std::shared_ptr<ChildProcess> launch(const HelperOptions& options, const std::string& token,
                                     int frameMemory) {
  const std::string program = findProgram(options.program);
  try {
    return std::make_shared<ChildProcess>(
        LaunchOptions{program, token, options.arguments, options.environment, frameMemory,
                      options.format == FrameFormat{} ? "" : options.format.text()});
  } catch (const std::system_error& error) {
    throw StartError("the helper could not be started: " + std::string(error.what()));
  }
}

std::string describe(const Exited& end) {
  if (end.signal != 0) return "signal " + std::to_string(end.signal);
  return end.status < 0 ? "an unknown status" : "status " + std::to_string(end.status);
}

// Waits for "ready", and appends all events up to it to `said`.
Ready awaitReady(ChildProcess& process, std::vector<Event>& said) {
  const Deadline deadline(secondsToBecomeReady);
  std::string problem;
  while (auto line = process.nextLine(deadline.millisecondsLeft() / 1000.0)) {
    said.push_back(parseEvent(*std::move(line)));
    if (const auto* error = std::get_if<Error>(&said.back().what)) problem = error->message;
    if (const auto* ready = std::get_if<Ready>(&said.back().what)) return *ready;
  }
  if (problem.empty()) {
    const auto status = process.wait(deadline.millisecondsLeft() > 0 ? 1 : 0);
    problem = status ? "it ended at once with " + describe(*status) : "it did not become ready";
  }
  throw StartError("the helper did not start: " + problem);
}

}  // namespace

class Helper::Impl {
 public:
  Impl(const HelperOptions& options, EventHandler onEvent)
      : token_(options.token.empty() ? makeToken() : options.token),
        slots_(makeSlots(options)),
        process_(launch(options, token_, slots_->descriptor())),
        ready_(prepareAndAwaitReady(options.frameSize)),
        onEvent_(std::move(onEvent)),
        feeder_(std::make_shared<Feeder>(process_)) {
    if (slots_->descriptor() >= 0 && !slots_->isShared()) {
      // An older helper, which reads its pipe only.
      slots_ = FrameSlots::makePrivate(slots_->format());
    }
  }

  ~Impl() {
    if (!reader_.joinable()) return;
    stop();
    reader_.join();
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

  std::uint16_t port() const { return ready_.port; }
  const std::string& token() const { return token_; }
  int pid() const { return process_->pid(); }
  FrameTransport frameTransport() const {
    return slots_->descriptor() >= 0 ? FrameTransport::memory : FrameTransport::pipe;
  }

  std::optional<Frame> acquireFrame(FrameSize size) {
    check(size);
    auto frame = slots_->acquire(size);
    if (!frame) feeder_->countDropped();
    return frame;
  }

  void publish(Frame frame, std::uint64_t id) {
    if (frame.format() != slots_->format())
      throw std::invalid_argument("the frame has another format than this helper's");
    feeder_->write(std::move(frame), id);
  }

  FrameCounts frameCounts() const { return feeder_->counts(); }

  Take startTake(const TakeOptions& options) {
    Recording asked;
    asked.id = randomTakeID();
    asked.path = options.path;
    const double startedAt = options.startedAt.value_or(uptime());
    const std::string command = startCommand(asked.id, options, startedAt);
    // A take may outlive its helper.
    const auto state = std::make_shared<Take::State>(
        asked, startedAt, [feeder = std::weak_ptr(feeder_)](const std::string& stop) {
          if (const auto alive = feeder.lock()) alive->write(commandRecord(stop));
        });
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
    const double askedAt = uptime();
    takes_.awaitStopped(secondsToTerminate);  // the end of the input would replace their stop times
    feeder_->end();
    for (const auto& [seconds, signal] :
         {std::pair{secondsToTerminate, SIGTERM}, {secondsToKill, SIGKILL}}) {
      if (!awaitEvents(askedAt + seconds)) sendSignal(signal);
    }
    awaitEvents(askedAt + secondsToGiveUp);
    std::unique_lock hold(mutex_);
    process_->abandon();  // even if it has ended, another process may keep its pipes open
    over_.wait(hold, [this] { return isOver_; });
    return *exit_;
  }

 private:
  Ready prepareAndAwaitReady(const std::optional<FrameSize>& size) {
    try {
      if (size) slots_->prepare(*size);
    } catch (const std::bad_alloc&) {  // there may be enough memory later
    }
    return awaitReady(*process_, saidFirst_);
  }

  void readEvents() {
    for (const Event& event : saidFirst_) tell(event);
    while (process_->hasOutput()) {
      auto line = process_->nextLine(0);
      if (!line) {
        takes_.failUnanswered(uptime());  // no answer waits to be read
        line = process_->nextLine(1);
      }
      if (line) tell(parseEvent(*std::move(line)));
    }
    const Exited end = awaitEnd();
    {
      const std::lock_guard hold(mutex_);
      exit_ = end;
    }
    takes_.abandonAll("the helper has ended with " + describe(end));
    tell({{}, end});
    const std::lock_guard hold(mutex_);
    isOver_ = true;
    over_.notify_all();
  }

  // The output has closed, so the helper has ended or is about to. `stop` must not send a signal
  // while the status is collected, since the id may belong to another process afterwards.
  Exited awaitEnd() {
    for (;;) {
      {
        const std::lock_guard hold(mutex_);
        if (const auto end = process_->wait(0)) return *end;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
  }

  void tell(const Event& event) {
    if (const auto* recording = std::get_if<Recording>(&event.what)) takes_.report(*recording);
    if (onEvent_) onEvent_(event);
  }

  // Waits until the last event has been handled; false if it was not by this uptime.
  bool awaitEvents(double latest) {
    const Deadline deadline(latest - uptime());
    std::unique_lock hold(mutex_);
    return over_.wait_until(hold, deadline.time(), [this] { return isOver_; });
  }

  void sendSignal(int signal) {
    const std::lock_guard hold(mutex_);
    process_->sendSignal(signal);
  }

  const std::string token_;
  std::shared_ptr<FrameSlots> slots_;
  const std::shared_ptr<ChildProcess> process_;
  std::vector<Event> saidFirst_;  // the events up to "ready"
  const Ready ready_;
  const EventHandler onEvent_;
  const std::shared_ptr<Feeder> feeder_;
  Takes takes_;

  mutable std::mutex mutex_;  // guards `isOver_`, `exit_`, and collecting the status
  std::condition_variable over_;
  bool isOver_ = false;  // the last event has been handled
  std::optional<Exited> exit_;

  std::thread reader_;
  std::atomic<std::thread::id> readerID_;
};

Helper::Helper(const HelperOptions& options, EventHandler onEvent) {
  if (options.frameSize) check(*options.frameSize);
  check(options.format);
  impl_ = std::make_unique<Impl>(options, std::move(onEvent));
  impl_->begin();  // the handler may call us, so `impl_` is set before
}
Helper::~Helper() = default;

std::uint16_t Helper::port() const { return impl_->port(); }
const std::string& Helper::token() const { return impl_->token(); }
int Helper::pid() const { return impl_->pid(); }
FrameTransport Helper::frameTransport() const { return impl_->frameTransport(); }
std::optional<Frame> Helper::acquireFrame(FrameSize size) { return impl_->acquireFrame(size); }
void Helper::publish(Frame frame, std::uint64_t id) { impl_->publish(std::move(frame), id); }
FrameCounts Helper::frameCounts() const { return impl_->frameCounts(); }
Take Helper::startTake(const TakeOptions& options) { return impl_->startTake(options); }
std::optional<Exited> Helper::exited() const { return impl_->exited(); }
Exited Helper::stop() { return impl_->stop(); }

bool Helper::writeFrame(FrameSize size, std::uint64_t id, std::span<const std::uint8_t> picture) {
  auto frame = acquireFrame(size);
  if (!frame) return false;
  frame->copyFrom(picture);
  publish(*std::move(frame), id);
  return true;
}

}  // namespace lumora::client
