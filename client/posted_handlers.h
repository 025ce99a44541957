#pragma once

#include <lumora/event_queue.h>

#include <functional>
#include <memory>
#include <mutex>
#include <utility>

namespace lumora::client {

// Passes calls of an application's handlers to the application's queue. Without a queue, handlers
// are called directly. The queue calls no handler after `close`.
class PostedHandlers {
 public:
  explicit PostedHandlers(std::shared_ptr<EventQueue> queue) : queue_(std::move(queue)) {}

  // Returns a function that queues a call of `handler`. Any thread may call the function. Without a
  // queue, returns `handler` itself.
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

  // From now on the queue calls no handler. If it is calling one on another thread, waits until
  // that handler returns.
  void close() const {
    const std::lock_guard hold(gate_->mutex);
    gate_->isOpen = false;
  }

 private:
  struct Gate {
    std::recursive_mutex mutex;  // held while a handler runs; the handler may call `close`
    bool isOpen = true;
  };
  const std::shared_ptr<EventQueue> queue_;
  const std::shared_ptr<Gate> gate_ = std::make_shared<Gate>();
};

}  // namespace lumora::client
