#pragma once

// The I/O thread of one movie file and the queue in front of it. The thread lives until the movie
// is finished or cancelled; it shares this object, so that nobody waits for a stuck disk.

#include <condition_variable>
#include <functional>
#include <list>
#include <mutex>
#include <optional>
#include <string>

#include "mp4/byte_sink.h"
#include "platform/movie_writer.h"

namespace lumora {

class MovieDisk {
 public:
  // Throws std::system_error without a thread.
  static std::shared_ptr<MovieDisk> start(std::unique_ptr<ByteSink> sink);

  // Any thread; nothing here waits for the disk.

  // Queues `head` and, right behind it, `body`; both are on the disk before the next write, and
  // there is room for `ending` bytes behind them.
  void write(Bytes head, Bytes body, std::uint64_t ending);
  // Behind everything queued: appends `tail`, then overwrites `header` at `offset`, each safely on
  // the disk before the next step; then `handler` runs on the I/O thread.
  void finish(Bytes tail, std::uint64_t offset, Bytes header, std::function<void()> handler);
  // Ends the movie as failed, after what is queued.
  void fail(std::string message, std::function<void()> handler);
  // Ends it now: what is queued stays unwritten and runs no handler.
  void cancel();

  WriterStatus status() const;
  std::optional<std::string> error() const;
  std::size_t queuedBytes() const;

 private:
  using Step = std::function<void(ByteSink&)>;
  struct Job {
    std::size_t bytes = 0;
    Step step;
    std::function<void()> handler = {};  // of the last one
  };

  MovieDisk() = default;
  void enqueue(Job job);
  void run(std::unique_ptr<ByteSink> sink);
  void carryOut(const Step& step, ByteSink& sink);
  bool proceeds(int error);
  void end(WriterStatus status, std::optional<std::string> message);

  mutable std::mutex mutex_;  // guards everything below
  std::condition_variable changed_;
  std::list<Job> jobs_;  // an empty one needs no memory
  std::size_t queuedBytes_ = 0;
  bool cancelled_ = false;
  WriterStatus status_ = WriterStatus::writing;
  std::optional<std::string> error_;
};

}  // namespace lumora
