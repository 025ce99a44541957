#pragma once

#include <functional>
#include <memory>

#include <lumora/export.h>

namespace lumora::client {

// Runs a helper's handlers on a thread of the application that has an event loop (Qt, GLib, epoll).
// That thread watches the descriptor and calls `dispatch`. One queue may serve several helpers.
class LUMORA_CLIENT_EXPORT EventQueue {
 public:
  EventQueue();  // throws std::system_error
  ~EventQueue();
  EventQueue(const EventQueue&) = delete;
  EventQueue& operator=(const EventQueue&) = delete;

  // Poll it: it is readable while calls wait. Only `dispatch` may read from it.
  int descriptor() const;
  // Runs the queued calls on this thread. Throws what a call throws; the calls after it then
  // wait for the next `dispatch`.
  void dispatch();
  // Queues a call for `dispatch`. Any thread.
  void post(std::function<void()> call);

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace lumora::client
