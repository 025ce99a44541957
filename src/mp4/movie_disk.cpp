#include "mp4/movie_disk.h"

#include <cerrno>
#include <system_error>
#include <utility>

#include "base/text.h"
#include "base/thread.h"

namespace lumora {
namespace {

constexpr std::chrono::milliseconds logInterval{500};

}  // namespace

std::shared_ptr<MovieDisk> MovieDisk::start(std::unique_ptr<ByteSink> sink) {
  std::shared_ptr<MovieDisk> disk(new MovieDisk);
  disk->freeBytes_ = sink->freeBytes();
  disk->freeBytesAsked_ = std::chrono::steady_clock::now();
  startThread("lumora.disk", [disk, sink = std::move(sink)]() mutable {
    disk->run(std::move(sink));
    disk->log_.reset();  // on this thread, since closing a file may wait for the disk
  });
  return disk;
}

void MovieDisk::openLog(std::unique_ptr<ByteSink> sink, MovieWriter::TakeLines takeLines) {
  const std::lock_guard hold(mutex_);
  log_ = std::make_unique<Log>(Log{std::move(sink), std::move(takeLines)});
}

void MovieDisk::write(Bytes head, Bytes body, std::uint64_t ending) {
  const std::size_t bytes = head.size() + body.size();
  enqueue({bytes, [this, room = bytes + ending, head = std::move(head),
                   body = std::move(body)](ByteSink& sink) {
             // Synced at once, so a power cut costs no more than a crash of the process.
             if (proceeds(sink.reserve(room)) && proceeds(sink.write(head)) &&
                 proceeds(sink.write(body)) && proceeds(sink.sync())) {
               written(sink);
             }
           }});
}

void MovieDisk::finish(Bytes tail, std::uint64_t offset, Bytes header,
                       std::function<void()> handler) {
  const std::size_t bytes = tail.size();
  enqueue({bytes,
           [this, tail = std::move(tail), offset, header = std::move(header)](ByteSink& sink) {
             if (proceeds(sink.write(tail)) && proceeds(sink.sync()) &&
                 proceeds(sink.overwrite(offset, header)) && proceeds(sink.sync())) {
               sink.releaseRoom();
               end(WriterStatus::completed, std::nullopt);
             }
           },
           std::move(handler)});
}

void MovieDisk::rescue(std::uint64_t offset, MakeEnding make,
                       std::function<void(int error)> handler) {
  const auto outcome = std::make_shared<int>(ENOMEM);  // stays so if the step throws
  Job job{0,
          [this, offset, outcome, make = std::move(make)](ByteSink& sink) {
            // Done here, on the disk thread, and not in the call of `rescue`. Otherwise a write in
            // progress would stop early, and `syncedWrites` would not count it.
            end(WriterStatus::failed, "the movie was ended early");
            const auto ending = make(syncedWrites(), sink.size());
            int error = 0;
            if (ending && (error = sink.write(ending->tail)) == 0 && (error = sink.sync()) == 0 &&
                (error = sink.overwrite(offset, ending->header)) == 0 &&
                (error = sink.sync()) == 0) {
              sink.releaseRoom();
            }
            *outcome = error;
          },
          [outcome, handler = std::move(handler)] { handler(*outcome); },
          /*isRescue=*/true};
  std::list<Job> dropped;  // destroyed after the lock is released
  {
    const std::lock_guard hold(mutex_);
    dropped.swap(jobs_);
    jobs_.push_back(std::move(job));
  }
  changed_.notify_one();
}

void MovieDisk::fail(std::string message, std::function<void()> handler) {
  enqueue({0,
           [this, message = std::move(message)](ByteSink&) { end(WriterStatus::failed, message); },
           std::move(handler)});
}

void MovieDisk::cancel() {
  std::list<Job> abandoned;  // destroyed after the lock is released: handlers may own the writer
  {
    const std::lock_guard hold(mutex_);
    cancelled_ = true;
    if (status_ == WriterStatus::writing) status_ = WriterStatus::cancelled;
    abandoned.swap(jobs_);
  }
  changed_.notify_one();
}

WriterStatus MovieDisk::status() const {
  const std::lock_guard hold(mutex_);
  return status_;
}

std::optional<std::string> MovieDisk::error() const {
  const std::lock_guard hold(mutex_);
  return error_;
}

std::optional<std::string> MovieDisk::logError() const {
  const std::lock_guard hold(mutex_);
  return logError_;
}

std::size_t MovieDisk::queuedBytes() const {
  const std::lock_guard hold(mutex_);
  return queuedBytes_;
}

std::size_t MovieDisk::syncedWrites() const {
  const std::lock_guard hold(mutex_);
  return syncedWrites_;
}

std::optional<std::uint64_t> MovieDisk::freeBytes() const {
  const std::lock_guard hold(mutex_);
  return freeBytes_;
}

// Counts a write, and asks for the free space at most once a second.
void MovieDisk::written(const ByteSink& sink) {
  const auto now = std::chrono::steady_clock::now();
  std::unique_lock hold(mutex_);
  ++syncedWrites_;
  if (now - freeBytesAsked_ < std::chrono::seconds(1)) return;
  freeBytesAsked_ = now;
  hold.unlock();
  const auto free = sink.freeBytes();
  hold.lock();
  freeBytes_ = free;
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
    Job job;  // destroyed without the lock: its handler may own the writer, whose destructor locks
    std::unique_lock hold(mutex_);
    const auto isWanted = [this] { return !jobs_.empty() || cancelled_; };
    if (log_)
      changed_.wait_for(hold, logInterval, isWanted);
    else
      changed_.wait(hold, isWanted);
    if (cancelled_) return;
    if (!jobs_.empty()) {
      job = std::move(jobs_.front());
      jobs_.pop_front();
    }
    const bool skipped = status_ != WriterStatus::writing && !job.isRescue;
    hold.unlock();
    try {
      if (job.step && !skipped) job.step(*sink);
    } catch (const std::exception& error) {
      end(WriterStatus::failed, reasonOf(error));
    }
    writeLog();
    if (job.handler) job.handler();
    hold.lock();
    queuedBytes_ -= job.bytes;
  }
}

// Room for all lines is reserved first, so that a full disk cuts no line short.
void MovieDisk::writeLog() try {
  const std::string lines = log_ ? log_->takeLines() : "";
  if (lines.empty()) return;
  int error = log_->sink->reserve(lines.size());
  if (error == 0)
    error = log_->sink->write({reinterpret_cast<const std::uint8_t*>(lines.data()), lines.size()});
  if (error != 0) throw std::system_error(error, std::generic_category());
} catch (const std::exception& error) {
  log_.reset();
  const std::lock_guard hold(mutex_);
  logError_ = reasonOf(error);
}

// Ends the movie on an error. Returns whether the next step is still wanted.
bool MovieDisk::proceeds(int error) {
  if (error != 0) end(WriterStatus::failed, reasonOf(error));
  return error == 0 && status() == WriterStatus::writing;
}

// Only the first call has an effect.
void MovieDisk::end(WriterStatus status, std::optional<std::string> message) {
  const std::lock_guard hold(mutex_);
  if (status_ != WriterStatus::writing) return;
  status_ = status;
  error_ = std::move(message);
}

}  // namespace lumora
