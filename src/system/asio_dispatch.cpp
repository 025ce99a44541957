#include "system/asio_dispatch.h"

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <thread>
#include <utility>

#include "base/out_of_memory.h"
#include "base/reason.h"
#include "base/thread_name.h"

namespace lumora {
namespace asio = boost::asio;
namespace {

std::chrono::steady_clock::duration toDuration(double seconds) {
  return std::chrono::duration_cast<std::chrono::steady_clock::duration>(
      std::chrono::duration<double>(seconds));
}

class AsioTimer final : public TimerSource {
 public:
  AsioTimer(asio::io_context& context, double interval, Work handler)
      : state_(std::make_shared<State>(context, toDuration(interval), std::move(handler))) {
    state_->timer.expires_after(state_->interval);
    State::arm(state_);
  }
  ~AsioTimer() override { cancel(); }
  AsioTimer(const AsioTimer&) = delete;
  AsioTimer& operator=(const AsioTimer&) = delete;

  void cancel() override {
    state_->cancelled = true;
    state_->timer.cancel();
  }

 private:
  struct State {
    State(asio::io_context& context, std::chrono::steady_clock::duration every, Work work)
        : timer(context), interval(every), handler(std::move(work)) {}

    static void arm(const std::shared_ptr<State>& state) {
      state->timer.async_wait([state](const boost::system::error_code& error) {
        if (error || state->cancelled) return;
        // Counted from the last due time, so that the rate does not drift; a tick that was missed
        // is not made up for.
        const auto now = std::chrono::steady_clock::now();
        const auto due = state->timer.expiry() + state->interval;
        state->timer.expires_at(due > now ? due : now + state->interval);
        retryUntilAllocated([&] { arm(state); });
        state->handler();
      });
    }

    asio::steady_timer timer;
    std::chrono::steady_clock::duration interval;
    Work handler;
    bool cancelled = false;
  };
  std::shared_ptr<State> state_;
};

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
        if (failed) retryUntilAllocated([&] { failed(reasonOf(error)); });
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

AsioDispatch::AsioDispatch(std::shared_ptr<AsioQueue> stateQueue)
    : stateQueue_(std::move(stateQueue)) {}

std::shared_ptr<SerialQueue> AsioDispatch::makeQueue(const std::string& label) {
  return std::make_shared<AsioQueue>(label);
}

std::unique_ptr<TimerSource> AsioDispatch::makeTimer(double interval, Work handler) {
  return std::make_unique<AsioTimer>(stateQueue_->context(), interval, std::move(handler));
}

void AsioDispatch::runDetached(const std::string& label, Work work) {
  std::thread([label, work = std::move(work)] {
    nameThread(label);
    bestEffort(work);
  }).detach();
}

}  // namespace lumora
