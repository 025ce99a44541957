#include "client/feeder.h"

#include <lumora/uptime.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "client/frame_slots.h"
#include "client/quiet_thread.h"

namespace lumora::client {

Feeder::Feeder(std::shared_ptr<ChildProcess> helper)
    : helper_(std::move(helper)), thread_(startQuietThread([this] { run(); })) {}

Feeder::~Feeder() {
  end();
  thread_.join();
}

void Feeder::write(Frame frame, std::uint64_t id) {
  if (!frame.loan_) throw std::invalid_argument("this frame was already published");
  if (frame.length_ == 0) throw std::invalid_argument("the length of the picture was not set");
  std::list<Entry> entry;
  entry.push_back({std::move(frame), id});
  const std::lock_guard hold(mutex_);
  if (id <= lastID_) throw std::invalid_argument("frame ids must grow");
  lastID_ = id;
  if (framesHaveEnded_ || ending_) {
    ++counts_.dropped;
    return;
  }
  dropOlderFrame();
  waiting_.splice(waiting_.end(), entry);
  changed_.notify_one();
}

bool Feeder::write(std::string commandRecord) {
  const std::lock_guard hold(mutex_);
  if (ending_) return false;
  waiting_.push_back({std::nullopt, 0, std::move(commandRecord)});
  changed_.notify_one();
  return true;
}

bool Feeder::writeSound(std::span<const std::int16_t> samples, SoundFormat format,
                        Uptime::time_point capturedAt) {
  constexpr std::size_t mostSeconds = 2;
  const auto channels = static_cast<std::size_t>(format.channels);
  if (samples.size() % channels != 0)
    throw std::invalid_argument("all channels of sound must have the same number of samples");
  // The id of sound is its time, and ids must grow. If one sound had a time in the future, all
  // sound after it would get wrong times, too.
  const bool isTime = capturedAt >= Uptime::time_point() && capturedAt <= Uptime::now() + mostAhead;
  if (!isTime) return false;
  const std::size_t most = mostSeconds * static_cast<std::size_t>(format.rate) * channels;
  const std::lock_guard hold(mutex_);
  if (ending_ || soundBytes_ + samples.size_bytes() > most * sizeof(std::int16_t)) return false;
  if (samples.empty()) return true;
  waiting_.push_back({std::nullopt, 0,
                      soundRecords(samples, format, frameID(capturedAt), lastSoundID_),
                      samples.size_bytes()});
  soundBytes_ += samples.size_bytes();
  changed_.notify_one();
  return true;
}

void Feeder::countDropped() {
  const std::lock_guard hold(mutex_);
  ++counts_.dropped;
}

void Feeder::endFrames() {
  const std::lock_guard hold(mutex_);
  framesHaveEnded_ = true;
}

void Feeder::end() {
  const std::lock_guard hold(mutex_);
  ending_ = true;
  changed_.notify_one();
}

FrameCounts Feeder::counts() const {
  const std::lock_guard hold(mutex_);
  return counts_;
}

// A frame in front of a command stays: it may be the last one before a take's stop.
void Feeder::dropOlderFrame() {
  const auto isSound = [](const Entry& entry) { return entry.soundBytes > 0; };
  const auto last = std::find_if_not(waiting_.rbegin(), waiting_.rend(), isSound);
  if (last == waiting_.rend() || !last->frame) return;
  waiting_.erase(std::next(last).base());
  ++counts_.dropped;
}

void Feeder::run() {
  std::unique_lock hold(mutex_);
  for (;;) {
    changed_.wait(hold, [this] { return ending_ || !waiting_.empty(); });
    if (waiting_.empty()) break;
    std::list<Entry> entry;
    entry.splice(entry.begin(), waiting_, waiting_.begin());
    soundBytes_ -= entry.front().soundBytes;
    hold.unlock();
    const bool written = writeEntry(entry.front());
    const bool wasFrame = entry.front().frame.has_value();
    entry.clear();
    hold.lock();
    if (wasFrame) ++(written ? counts_.written : counts_.dropped);
    if (written) continue;
    ending_ = true;  // the helper has closed its input or was abandoned
    counts_.dropped += static_cast<std::uint64_t>(
        std::ranges::count_if(waiting_, [](const Entry& each) { return each.frame.has_value(); }));
    waiting_.clear();
  }
  helper_->closeInput();
}

bool Feeder::writeEntry(const Entry& entry) {
  if (!entry.frame) {
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(entry.record.data());
    return helper_->writeBytes({bytes, entry.record.size()});
  }
  return helper_->writeFrame(*entry.frame, entry.id);
}

}  // namespace lumora::client
