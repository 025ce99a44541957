#pragma once

#include <lumora/event_queue.h>

#include <functional>
#include <memory>
#include <mutex>
#include <utility>

namespace lumora::client {

// Calls an application's handlers through its queue, if it has one. The queue calls none of them
// after `close`.
class PostedHandlers {
 public:
  explicit PostedHandlers(std::shared_ptr<EventQueue> queue) : queue_(std::move(queue)) {}

  // A function that any thread may call. Without a queue it is the handler itself.
  template <typename Argument>
  std::function<void(const Argument&)> post(std::function<void(const Argument&)> handler) const {
    if (!handler || !queue_) return handler;
    const auto shared = std::make_shared<decltype(handler)>(std::move(handler));
    return [queue = queue_, gate = gate_, shared](const Argument& argument) {
      queue->post([gate, shared, argument] {
        const std::lock_guard hold(gate->mutex);
        if (gate->isOpen) (*shared)(argument);
      });
    };
  }

  // From now on the queue calls no handler. Waits for one that it is calling on another thread.
  void close() const {
    const std::lock_guard hold(gate_->mutex);
    gate_->isOpen = false;
  }

 private:
  struct Gate {
    std::recursive_mutex mutex;  // held during a call, which may close the gate
    bool isOpen = true;
  };
  const std::shared_ptr<EventQueue> queue_;
  const std::shared_ptr<Gate> gate_ = std::make_shared<Gate>();
};

}  // namespace lumora::client
