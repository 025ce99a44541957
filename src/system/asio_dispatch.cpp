#include "system/asio_dispatch.h"

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <thread>
#include <utility>

#include "base/out_of_memory.h"
#include "base/text.h"
#include "base/thread_name.h"

namespace lumora {
namespace asio = boost::asio;
namespace {

std::chrono::steady_clock::duration toDuration(double seconds) {
  return std::chrono::duration_cast<std::chrono::steady_clock::duration>(
      std::chrono::duration<double>(seconds));
}

}  // namespace

struct AsioQueue::Core {
  asio::io_context context{1};
  asio::executor_work_guard<asio::io_context::executor_type> guard{context.get_executor()};
  FailureHandler failed;  // of its thread

  void run() {
    for (;;) {
      try {
        context.run();
        return;
      } catch (const std::exception& error) {
        if (!failed) throw;  // ends the process
        failed(reasonOf(error));
      }
    }
  }
};

AsioQueue::AsioQueue(const std::string& label) : core_(std::make_shared<Core>()) {
  std::thread([core = core_, label] {
    nameThread(label);
    core->run();
  }).detach();
}

AsioQueue::~AsioQueue() { core_->guard.reset(); }

void AsioQueue::async(Work work) { asio::post(core_->context, std::move(work)); }

void AsioQueue::asyncAfter(double seconds, Work work) {
  const auto timer = std::make_shared<asio::steady_timer>(core_->context, toDuration(seconds));
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
  std::thread([label, work = std::move(work)] {
    nameThread(label);
    bestEffort(work);
  }).detach();
}

}  // namespace lumora
