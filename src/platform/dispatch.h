#pragma once

// Serial queues, timers and detached work. A serial queue runs its work items one at a time, in
// the order they were enqueued, on a thread of its own, so what belongs to a queue needs no lock.

#include <functional>
#include <memory>
#include <string>

namespace lumora {

using Work = std::function<void()>;
using FailureHandler = std::function<void(const std::string& reason)>;

class SerialQueue {
 public:
  virtual ~SerialQueue() = default;
  // Any thread. Never runs `work` before it returns.
  virtual void async(Work work) = 0;
  // Any thread. Runs `work` on the queue once `seconds` have passed.
  virtual void asyncAfter(double seconds, Work work) = 0;
  // On the queue. What escapes a work item from now on goes to `handler`, in words; without one it
  // is forgotten with the item.
  virtual void setFailureHandler(FailureHandler handler) = 0;
};

// Fires on its queue until cancelled or destroyed. Cancel on that queue: no firing follows.
class TimerSource {
 public:
  virtual ~TimerSource() = default;
  virtual void cancel() = 0;
};

class Dispatch {
 public:
  virtual ~Dispatch() = default;
  // A new serial queue; its thread carries `label`. Work enqueued before the last reference goes
  // still runs.
  virtual std::shared_ptr<SerialQueue> makeQueue(const std::string& label) = 0;
  // A timer on the state queue: first after `interval` seconds, then every `interval` seconds.
  virtual std::unique_ptr<TimerSource> makeTimer(double interval, Work handler) = 0;
  // Runs `work`, which may block for as long as it likes, on a thread of its own that carries
  // `label`. What escapes it is forgotten. Throws std::system_error without a thread, as
  // `makeQueue` does.
  virtual void runDetached(const std::string& label, Work work) = 0;
};

}  // namespace lumora
