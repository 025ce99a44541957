#pragma once

// Serial queues on Boost.Asio: one io_context and one thread per queue. A queue's sockets, timers
// and signals live on its io_context.

#include <boost/asio/io_context.hpp>
#include <memory>
#include <string>

#include "platform/dispatch.h"

namespace lumora {

class AsioQueue final : public SerialQueue {
 public:
  explicit AsioQueue(const std::string& label);
  // Doesn't wait for the queue's thread, which runs what was enqueued and then ends. The destructor
  // may run on that thread.
  ~AsioQueue() override;
  AsioQueue(const AsioQueue&) = delete;
  AsioQueue& operator=(const AsioQueue&) = delete;

  void async(Work work) override;
  void asyncAfter(double seconds, Work work) override;
  void setFailureHandler(FailureHandler handler) override;
  boost::asio::io_context& context();

 private:
  struct Core;
  std::shared_ptr<Core> core_;
};

class AsioDispatch final : public Dispatch {
 public:
  std::shared_ptr<SerialQueue> makeQueue(const std::string& label) override;
  void runDetached(const std::string& label, Work work) override;
};

}  // namespace lumora
