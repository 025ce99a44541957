#pragma once

// The disk thread of one movie file and its queue. The thread keeps the file open and locked until
// `cancel`, which the writer's destructor calls. A saved movie gets its final name before that. The
// thread shares ownership of this object, so no caller has to wait for a disk that hangs.

#include <chrono>
#include <condition_variable>
#include <list>
#include <mutex>

#include "mp4/byte_sink.h"
#include "platform/movie_writer.h"

namespace lumora {

class MovieDisk {
 public:
  // Throws std::system_error if no thread can be made. The other calls may come from any thread and
  // never wait for the disk.
  static std::shared_ptr<MovieDisk> start(std::unique_ptr<ByteSink> sink);

  // Starts the movie's frame log. Call it before the first write. Whenever a job is done, and twice
  // a second, the disk thread calls `takeLines` and writes the result into `sink`. An error ends
  // only the log.
  void openLog(std::unique_ptr<ByteSink> sink, MovieWriter::TakeLines takeLines);
  std::optional<std::string> logError() const;

  // Queues `head`, followed by `body`. Both are on the disk before anything queued later is
  // written. Room is reserved for both and for `ending` bytes that `finish` or `rescue` may append.
  void write(Bytes head, Bytes body, std::uint64_t ending);
  // After everything queued: appends `tail`, then writes `header` over the bytes at `offset`. Each
  // is on the disk before the next step. Then `handler` runs on the disk thread, also on failure.
  void finish(Bytes tail, std::uint64_t offset, Bytes header, std::function<void()> handler);
  // After a failure: drops what is queued, and then appends and overwrites as `finish` does. `make`
  // returns the bytes for that. It runs on the disk thread, and gets the number of writes on the
  // disk and the size of the file. If it returns std::nullopt, nothing is written. `handler` gets
  // 0, the errno of the first step that failed, or ENOMEM after an exception.
  struct Ending {
    Bytes tail;
    Bytes header;
  };
  using MakeEnding = std::function<std::optional<Ending>(std::size_t writes, std::uint64_t size)>;
  void rescue(std::uint64_t offset, MakeEnding make, std::function<void(int error)> handler);
  // Ends the movie as failed, after everything queued. Then `handler` runs on the disk thread.
  void fail(std::string message, std::function<void()> handler);
  // Ends the movie now. What is queued is dropped, and its handlers don't run.
  void cancel();

  WriterStatus status() const;
  std::optional<std::string> error() const;
  std::size_t queuedBytes() const;
  // Calls of `write` whose bytes are on the disk.
  std::size_t syncedWrites() const;
  std::optional<std::uint64_t> freeBytes() const;

 private:
  using Step = std::function<void(ByteSink&)>;
  struct Job {
    std::size_t bytes = 0;
    Step step;
    std::function<void()> handler = {};  // only in a job that ends the movie
    bool isRescue = false;
  };

  MovieDisk() = default;
  void enqueue(Job job);
  void run(std::unique_ptr<ByteSink> sink);
  bool proceeds(int error);
  void end(WriterStatus status, std::optional<std::string> message);
  void written(const ByteSink& sink);
  void writeLog();

  struct Log {
    std::unique_ptr<ByteSink> sink;
    MovieWriter::TakeLines takeLines;
  };
  std::unique_ptr<Log> log_;  // set before the first job, then used by the disk thread only

  mutable std::mutex mutex_;  // guards everything below
  std::condition_variable changed_;
  std::list<Job> jobs_;  // no deque: even an empty one allocates, and `cancel` must not throw
  std::size_t queuedBytes_ = 0;
  std::size_t syncedWrites_ = 0;
  std::optional<std::uint64_t> freeBytes_;
  std::chrono::steady_clock::time_point freeBytesAsked_;
  bool cancelled_ = false;
  WriterStatus status_ = WriterStatus::writing;
  std::optional<std::string> error_;
  std::optional<std::string> logError_;
};

}  // namespace lumora
