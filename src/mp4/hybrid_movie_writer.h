#pragma once

// The movie writer: an MP4 that plays at every moment. While it grows it is a fragmented file, so a
// crash costs at most the fragment that was still in memory. Finishing appends the complete tables
// and turns the head of the file into that of an ordinary MP4 (see movie_boxes.h). That takes
// equally long for a movie of any length.
//
// Samples are gathered into fragments on the caller's thread. An I/O thread of the writer's own
// writes them, behind a bounded queue. If the disk falls behind, the writer is not ready; it never
// waits.

#include "mp4/byte_sink.h"
#include "mp4/movie_boxes.h"
#include "platform/movie_writer.h"

namespace lumora {

class MovieDisk;

class HybridMovieWriter final : public MovieWriter {
 public:
  // A disk that sleeps takes some ten seconds to spin up. A recording of 12 Mbit/s brings 15 MB in
  // that time; this is twice as much.
  static constexpr std::size_t queueBytes = std::size_t{32} * 1024 * 1024;
  static constexpr std::int64_t fragmentDuration = movieTimescale / 2;

  // `created` is seconds since 1904, the epoch of MP4.
  HybridMovieWriter(std::unique_ptr<ByteSink> sink, std::uint64_t created);
  ~HybridMovieWriter() override;
  HybridMovieWriter(const HybridMovieWriter&) = delete;
  HybridMovieWriter& operator=(const HybridMovieWriter&) = delete;

  bool canAdd(const FormatDescription& format) const override;
  bool startWriting(std::shared_ptr<const FormatDescription> format, int rotation) override;
  WriterStatus status() const override;
  std::optional<std::string> error() const override;
  bool isReadyForMoreMediaData() const override;
  bool append(const EncodedSample& sample, bool keyframe, MovieTiming timing) override;
  void finishWriting(std::int64_t end, std::function<void()> handler) override;
  MovieExtent extent() const override;
  MovieExtent synced() const override;
  void rescue(RescueHandler handler) override;
  bool openLog(const std::string& path, TakeLines takeLines, std::string& error) override;
  std::optional<std::string> logError() const override;
  std::optional<std::uint64_t> freeBytes() const override;
  void cancelWriting() override;

 private:
  void flushFragment();

  std::shared_ptr<MovieDisk> disk_;  // shared with the I/O thread
  MovieProperties properties_;
  // While false, `status` is "writing". A failed disk shows at the next append or at the end.
  bool closed_ = false;
  std::shared_ptr<const FormatDescription> format_;
  std::uint64_t fileSize_ = 0;  // of what has been queued
  MovieTables tables_;

  // The fragment being gathered.
  std::vector<MovieSample> samples_;
  Bytes payload_;
  std::uint32_t fragments_ = 0;
  std::int64_t fragmentTime_ = 0;  // where it begins
};

class HybridMovies final : public Movies {
 public:
  std::shared_ptr<MovieWriter> createWriter(const std::string& path, std::string& error) override;
};

}  // namespace lumora
