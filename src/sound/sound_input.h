#pragma once

// The sound of one run. The reader hands sound records to a queue of their own, so sound and
// pictures never wait for each other. `DeviceClock` runs on that queue from the first record on, so
// it has already adapted to the device when a take begins.
//
// The last two seconds are kept for the next receiver. A take needs sound that was captured before
// the take became the receiver, for two reasons. A command is handled some time after it was read.
// And a take's first picture may arrive two seconds after its capture. Sound is kept even during a
// take, since the next take may follow at once.

#include <atomic>
#include <deque>
#include <functional>
#include <memory>

#include "platform/dispatch.h"
#include "sound/device_clock.h"

namespace lumora {

// Gets the next records with their smoothed times. `isLast`: no more come.
using SoundReceiver = std::function<void(std::vector<SoundRecord> records, bool isLast)>;

class SoundInput : public std::enable_shared_from_this<SoundInput> {
 public:
  // Throws std::system_error if the queue gets no thread.
  SoundInput(SoundFormat format, std::shared_ptr<Clock> clock, Dispatch& dispatch)
      : format_(format), clock_(std::move(clock)), queue_(dispatch.makeQueue("lumora.sound")) {}

  // Any thread. `handler` runs on the queue if work there fails.
  void setFailureHandler(FailureHandler handler);

  // Reader thread. Whether the next record may have this id and so many bytes.
  bool mayAdd(std::uint64_t id, std::uint32_t bytes) const;
  // Reader thread. Queues the record. Drops it if its time is too far from now or the queue hangs.
  void add(std::uint64_t id, Bytes pcm);
  // Reader thread. No more records come.
  void end();

  // Any thread. From now on `receiver` runs on the queue, first with the last two seconds. Null:
  // nobody wants sound.
  void sendTo(SoundReceiver receiver);
  // Any thread. Delivers the records that `DeviceClock` holds, if their times can be settled now.
  void settle();
  // Any thread. Records that were dropped.
  std::uint64_t dropped() const { return dropped_; }

 private:
  void hear(SoundRecord record);
  void deliver(std::vector<SoundRecord> records);

  const SoundFormat format_;
  const std::shared_ptr<Clock> clock_;
  const std::shared_ptr<SerialQueue> queue_;
  std::atomic<std::uint64_t> dropped_ = 0;
  std::atomic<std::int64_t> waiting_ = 0;  // samples that the queue has not taken
  std::uint64_t lastID_ = 0;               // reader thread

  // Queue only.
  DeviceClock device_{format_.rate};
  std::uint64_t heard_ = 0;  // records
  SoundReceiver receiver_;
  std::deque<SoundRecord> recent_;
  bool hasEnded_ = false;
};

}  // namespace lumora
