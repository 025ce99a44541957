#pragma once

// Writes an MP4 file that plays from its first fragment on. While it grows it is a fragmented file,
// so a crash costs only the fragments that are still in memory. Finishing appends the complete
// tables and changes the head, so that the file becomes an ordinary MP4 (see movie_boxes.h).
// Samples are not copied, so a long movie is finished almost as fast as a short one.
//
// On the caller's thread, samples are gathered into fragments, each of one track. The writer's own
// disk thread writes the fragments from a queue. Once `queueBytes` are waiting, the writer is not
// ready for more samples. No call but the constructor and `openLog` waits for the disk.

#include <array>

#include "mp4/byte_sink.h"
#include "mp4/movie_boxes.h"
#include "platform/movie_writer.h"

namespace lumora {

class MovieDisk;

class HybridMovieWriter final : public MovieWriter {
 public:
  // A disk that sleeps takes some ten seconds to spin up. A movie of 12 Mbit/s has 15 MB in
  // that time. The queue holds twice as much.
  static constexpr std::size_t queueBytes = std::size_t{32} * 1024 * 1024;
  static constexpr std::int64_t fragmentDuration = movieTimescale / 2;

  // `created` is seconds since 1904, the epoch of MP4.
  HybridMovieWriter(std::unique_ptr<ByteSink> sink, std::uint64_t created);
  ~HybridMovieWriter() override;
  HybridMovieWriter(const HybridMovieWriter&) = delete;
  HybridMovieWriter& operator=(const HybridMovieWriter&) = delete;

  bool canAdd(const FormatDescription& format) const override;
  bool addTrack(AacFormat format) override;
  bool startWriting(std::shared_ptr<const FormatDescription> format, int rotation) override;
  WriterStatus status() const override;
  std::optional<std::string> error() const override;
  bool isReadyForMoreMediaData() const override;
  bool append(const EncodedSample& sample, bool keyframe, MovieTiming timing) override;
  bool append(ByteView packet) override;
  void finishWriting(std::int64_t end, std::function<void()> handler) override;
  MovieExtent extent() const override;
  MovieExtent synced() const override;
  void rescue(RescueHandler handler) override;
  bool openLog(const std::string& path, TakeLines takeLines, std::string& error) override;
  std::optional<std::string> logError() const override;
  std::optional<std::uint64_t> freeBytes() const override;
  void cancelWriting() override;

 private:
  // A fragment for which samples are still being gathered.
  struct Fragment {
    std::vector<MovieSample> samples;
    Bytes payload;
    std::uint64_t duration = 0;  // units of the track
    // For pictures only: how many PCM samples of sound were appended since the fragment's first
    // picture.
    std::int64_t waited = 0;
  };

  bool add(std::size_t track, MovieSample sample, const std::function<bool(MutableByteView)>& copy);
  bool hasGathered(std::size_t track) const;  // enough for a fragment
  void flushFragment(std::size_t track);

  std::shared_ptr<MovieDisk> disk_;  // shared with the disk thread
  MovieProperties properties_;
  // While this is false, a started movie has the status "writing", even if the disk has failed. It
  // becomes true with the first append after the failure, when memory runs out for a fragment, or
  // when the movie ends.
  bool closed_ = false;
  std::uint64_t fileSize_ = 0;  // bytes, once everything queued is written
  std::uint32_t fragments_ = 0;
  std::vector<MovieTrack> tracks_ = {{.id = 1}};  // of pictures, and of sound if that was added
  std::array<Fragment, 2> gathered_;              // of the same tracks
};

class HybridMovies final : public Movies {
 public:
  std::shared_ptr<MovieWriter> createWriter(const std::string& path, std::string& error) override;
};

}  // namespace lumora
