#include "tests/e2e/helper_process.h"

#include <chrono>
#include <csignal>
#include <cstring>
#include <stdexcept>
#include <thread>
#include <utility>

namespace lumora::tests {
namespace {

client::LaunchOptions withSlots(client::LaunchOptions options, const client::FrameSlots* slots) {
  if (slots != nullptr) options.frameMemory = slots->descriptor();
  return options;
}

}  // namespace

std::shared_ptr<client::FrameSlots> slotsFor(client::FrameTransport frames) {
  if (frames == client::FrameTransport::pipe) return nullptr;
  auto slots = client::FrameSlots::makeShared();
  if (!slots) throw std::runtime_error("memory can't be shared here");
  return slots;
}

HelperProcess::HelperProcess(client::LaunchOptions options,
                             std::shared_ptr<client::FrameSlots> slots)
    : ChildProcess(withSlots(std::move(options), slots.get())), slots_(std::move(slots)) {
  struct sigaction current {};
  sigaction(SIGPIPE, nullptr, &current);
  if (current.sa_handler == SIG_DFL) std::signal(SIGPIPE, SIG_IGN);
}

bool HelperProcess::copyFrame(client::FrameSize size, std::uint64_t id,
                              std::span<const std::uint8_t> rgba) {
  if (!slots_) return writePixels(size, id, rgba);
  const client::Deadline deadline(20);
  auto frame = slots_->acquire(size);
  while (!frame && takesInput() && deadline.millisecondsLeft() > 0) {
    std::this_thread::sleep_for(std::chrono::microseconds(200));
    frame = slots_->acquire(size);
  }
  if (!frame) return false;
  std::memcpy(frame->pixels().data(), rgba.data(), rgba.size());
  return writeFrame(*frame, id);
}

bool HelperProcess::writeCommand(const Event& command) {
  const std::string record = client::commandRecord(command.dump());
  return writeBytes({reinterpret_cast<const std::uint8_t*>(record.data()), record.size()});
}

bool HelperProcess::startTake(const std::string& id, const std::string& path, Event keys) {
  keys.update({{"type", "record_start"}, {"id", id}, {"path", path}});
  return writeCommand(keys);
}

bool HelperProcess::stopTake(const std::string& id, Event keys) {
  keys.update({{"type", "record_stop"}, {"id", id}});
  return writeCommand(keys);
}

std::optional<Event> HelperProcess::nextEvent(double timeoutSeconds) {
  const auto line = nextLine(timeoutSeconds);
  if (!line) return std::nullopt;
  Event event = Event::parse(*line, nullptr, /*allow_exceptions=*/false);
  if (event.is_discarded()) return std::nullopt;
  return event;
}

Event HelperProcess::waitForEvent(const std::string& type, const Wanted& wanted) {
  const client::Deadline deadline(20);
  for (;;) {
    auto event = nextEvent(deadline.millisecondsLeft() / 1000.0);
    if (deadline.millisecondsLeft() == 0)
      throw std::runtime_error("no awaited \"" + type + "\" event within 20 seconds");
    if (!event) throw std::runtime_error("the helper's events ended before \"" + type + "\"");
    if (event->value("type", "") == type && wanted(*event)) return *std::move(event);
  }
}

Event HelperProcess::waitForTake(const std::string& id, const std::string& state) {
  return waitForEvent("recording", [&](const Event& event) {
    if (event.at("id") != id) return false;
    const auto& reached = event.at("state");
    if (reached == state) return true;
    if (reached == "failed" || reached == "saved") throw std::runtime_error(event.dump());
    return false;
  });
}

}  // namespace lumora::tests
