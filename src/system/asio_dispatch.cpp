#include "system/asio_dispatch.h"

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <utility>

#include "base/out_of_memory.h"
#include "base/text.h"
#include "base/thread.h"

namespace lumora {
namespace asio = boost::asio;

struct AsioQueue::Core {
  asio::io_context context{1};
  asio::executor_work_guard<asio::io_context::executor_type> guard{context.get_executor()};
  FailureHandler failed;  // touched by the queue's thread only

  void run() {
    for (;;) {
      try {
        context.run();
        return;
      } catch (const std::exception& error) {
        if (!failed) throw;  // this ends the process
        failed(reasonOf(error));
      }
    }
  }
};

AsioQueue::AsioQueue(const std::string& label) : core_(std::make_shared<Core>()) {
  startThread(label, [core = core_] { core->run(); });
}

AsioQueue::~AsioQueue() { core_->guard.reset(); }

void AsioQueue::async(Work work) { asio::post(core_->context, std::move(work)); }

void AsioQueue::asyncAfter(double seconds, Work work) {
  using Duration = std::chrono::steady_clock::duration;
  const auto wait = std::chrono::duration_cast<Duration>(std::chrono::duration<double>(seconds));
  const auto timer = std::make_shared<asio::steady_timer>(core_->context, wait);
  timer->async_wait([timer, work = std::move(work)](const boost::system::error_code& error) {
    if (!error) work();
  });
}

void AsioQueue::setFailureHandler(FailureHandler handler) { core_->failed = std::move(handler); }

asio::io_context& AsioQueue::context() { return core_->context; }

std::shared_ptr<SerialQueue> AsioDispatch::makeQueue(const std::string& label) {
  return std::make_shared<AsioQueue>(label);
}

void AsioDispatch::runDetached(const std::string& label, Work work) {
  startThread(label, [work = std::move(work)] { bestEffort(work); });
}

}  // namespace lumora
