#include <lumora/event_queue.h>

#include <sys/eventfd.h>

#include <cerrno>
#include <list>
#include <mutex>
#include <system_error>
#include <utility>

#include "client/descriptor.h"

namespace lumora::client {

struct EventQueue::State {
  using Calls = std::list<std::function<void()>>;

  // The next call as a list, which is empty if none waits.
  Calls take() {
    Calls next;
    const std::lock_guard hold(mutex);
    if (calls.empty()) return next;
    eventfd_t one = 0;
    eventfd_read(count.get(), &one);
    next.splice(next.begin(), calls, calls.begin());
    return next;
  }

  // Counts the calls that wait, so the descriptor is readable while a call waits.
  const Descriptor count{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK | EFD_SEMAPHORE)};
  std::mutex mutex;  // guards all below
  Calls calls;
};

EventQueue::EventQueue() : state_(std::make_shared<State>()) {
  if (!state_->count.isOpen()) throw std::system_error(errno, std::generic_category(), "eventfd");
}
EventQueue::~EventQueue() {
  State::Calls waiting;  // destroyed after the lock is released
  const std::lock_guard hold(state_->mutex);
  waiting.swap(state_->calls);
}

int EventQueue::descriptor() const { return state_->count.get(); }

void EventQueue::dispatch() {
  const auto state = state_;  // a call may destroy this queue
  std::unique_lock hold(state->mutex);
  // Runs only as many calls as wait now, so it returns even if each call posts another.
  auto waiting = state->calls.size();
  hold.unlock();
  for (; waiting > 0; --waiting) {
    // A call may run an event loop that dispatches this queue, too. Then `take` may find no call.
    for (const auto& call : state->take()) call();
  }
}

void EventQueue::post(std::function<void()> call) {
  State::Calls one;
  one.push_back(std::move(call));
  const std::lock_guard hold(state_->mutex);
  state_->calls.splice(state_->calls.end(), one);
  eventfd_write(state_->count.get(), 1);
}

}  // namespace lumora::client
