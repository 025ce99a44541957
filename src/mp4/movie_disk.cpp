#include "mp4/movie_disk.h"

#include <thread>
#include <utility>

#include "base/thread_name.h"

namespace lumora {

std::shared_ptr<MovieDisk> MovieDisk::start(std::unique_ptr<ByteSink> sink) {
  std::shared_ptr<MovieDisk> disk(new MovieDisk);
  std::thread([disk, sink = std::move(sink)]() mutable {
    nameThread("lumora.disk");
    disk->run(std::move(sink));
  }).detach();
  return disk;
}

void MovieDisk::write(Bytes head, Bytes body) {
  const std::size_t bytes = head.size() + body.size();
  enqueue({bytes,
           [this, head = std::move(head), body = std::move(body)](ByteSink& sink) {
             // Synced at once: a power cut then costs no more than a crash of the process.
             if (succeeded(sink.write(head)) && succeeded(sink.write(body))) {
               succeeded(sink.sync());
             }
           },
           false});
}

void MovieDisk::finish(Bytes tail, std::uint64_t offset, Bytes header,
                       std::function<void()> handler) {
  const std::size_t bytes = tail.size();
  enqueue({bytes,
           [this, tail = std::move(tail), offset, header = std::move(header),
            handler = std::move(handler)](ByteSink& sink) {
             if (succeeded(0) && succeeded(sink.write(tail)) && succeeded(sink.sync()) &&
                 succeeded(sink.overwrite(offset, header)) && succeeded(sink.sync())) {
               end(WriterStatus::completed, std::nullopt);
             }
             handler();
           },
           true});
}

void MovieDisk::fail(std::string message, std::function<void()> handler) {
  enqueue({0,
           [this, message = std::move(message), handler = std::move(handler)](ByteSink&) {
             end(WriterStatus::failed, message);
             handler();
           },
           true});
}

void MovieDisk::cancel() { end(WriterStatus::cancelled, std::nullopt); }

WriterStatus MovieDisk::status() const {
  const std::lock_guard hold(mutex_);
  return status_;
}

std::optional<std::string> MovieDisk::error() const {
  const std::lock_guard hold(mutex_);
  return error_;
}

std::size_t MovieDisk::queuedBytes() const {
  const std::lock_guard hold(mutex_);
  return queuedBytes_;
}

void MovieDisk::enqueue(Job job) {
  {
    const std::lock_guard hold(mutex_);
    queuedBytes_ += job.bytes;
    jobs_.push_back(std::move(job));
  }
  changed_.notify_one();
}

void MovieDisk::run(std::unique_ptr<ByteSink> sink) {
  for (;;) {
    std::unique_lock hold(mutex_);
    changed_.wait(hold, [this] { return !jobs_.empty() || status_ == WriterStatus::cancelled; });
    if (status_ == WriterStatus::cancelled) return;
    const Job job = std::move(jobs_.front());
    jobs_.pop_front();
    // After a failure the rest is passed over, but the last job still tells its handler.
    const bool skipped = status_ == WriterStatus::failed && !job.last;
    hold.unlock();
    if (!skipped) job.step(*sink);
    hold.lock();
    queuedBytes_ -= job.bytes;
    if (job.last) return;
  }
}

// Whether a step went well and the next one is still wanted.
bool MovieDisk::succeeded(int error) {
  if (error != 0) end(WriterStatus::failed, describeError(error));
  return error == 0 && status() == WriterStatus::writing;
}

// The first end counts.
void MovieDisk::end(WriterStatus status, std::optional<std::string> message) {
  std::deque<Job> abandoned;  // their handlers may own the writer: they go after the lock
  {
    const std::lock_guard hold(mutex_);
    if (status_ != WriterStatus::writing) return;
    status_ = status;
    error_ = std::move(message);
    if (status == WriterStatus::cancelled) abandoned.swap(jobs_);
  }
  changed_.notify_one();
}

}  // namespace lumora
