#pragma once

// Time, serial queues and detached work. A serial queue runs its work items one at a time, in the
// order in which they were enqueued, on a thread of its own. State that only one queue uses needs
// no lock.

#include <functional>
#include <memory>
#include <string>

namespace lumora {

// Seconds on the system's uptime clock: monotonic, the same for all processes of the machine.
class Clock {
 public:
  virtual ~Clock() = default;
  virtual double uptime() const = 0;
};

using Work = std::function<void()>;
using FailureHandler = std::function<void(const std::string& reason)>;

class SerialQueue {
 public:
  virtual ~SerialQueue() = default;
  // Any thread. Never runs `work` inside the call.
  virtual void async(Work work) = 0;
  // Any thread. Runs `work` on the queue once `seconds` have passed.
  virtual void asyncAfter(double seconds, Work work) = 0;
  // On the queue. From now on `handler` gets the reason of every exception that escapes a work
  // item. Without a handler such an exception ends the process.
  virtual void setFailureHandler(FailureHandler handler) = 0;
};

class Dispatch {
 public:
  virtual ~Dispatch() = default;
  // A new serial queue whose thread is called `label`. Work that was enqueued still runs after the
  // last reference to the queue is gone.
  virtual std::shared_ptr<SerialQueue> makeQueue(const std::string& label) = 0;
  // Runs `work`, which may block, on a thread of its own called `label`. Exceptions that escape it
  // are ignored. Like `makeQueue`, this throws std::system_error if no thread can be made.
  virtual void runDetached(const std::string& label, Work work) = 0;
};

}  // namespace lumora
