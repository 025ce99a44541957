#pragma once

// Movie files as the recorder sees them: encoded samples in, a playable MP4 out.

#include <functional>
#include <limits>
#include <string>

#include "platform/sample.h"

namespace lumora {

constexpr std::int32_t movieTimescale = 60000;  // movie units per second

// In movie units. Some readers treat the 32-bit duration of a sample (ISO/IEC 14496-12, 8.6.1.2) as
// signed, so the limit is 2^31 - 1 units (9.9 h).
constexpr std::int64_t longestSample = std::numeric_limits<std::int32_t>::max();

// Where a sample lies on the movie's timeline, in movie units. The first sample begins at zero,
// every other one at the end of the sample before it. A sample lasts 1 to `longestSample` units.
struct MovieTiming {
  std::int64_t time = 0;
  std::int64_t duration = 0;
};

// The format of a track of AAC-LC.
struct AacFormat {
  std::uint32_t rate = 0;      // samples a second; the timescale of the track
  std::uint16_t channels = 0;  // 1 or 2
  std::uint32_t priming = 0;   // samples in front of the first one to be heard
  Bytes configuration;         // the AudioSpecificConfig (ISO/IEC 14496-3, 1.6.2.1)
};

// How many pictures there are, and how long they last.
struct MovieExtent {
  std::uint64_t frames = 0;
  std::int64_t duration = 0;  // movie units
};

enum class WriterStatus { idle, writing, completed, failed, cancelled };

// One movie file with a track of pictures, and on request one of sound. Calls come from one thread
// at a time. None but `openLog` waits for the disk.
class MovieWriter {
 public:
  virtual ~MovieWriter() = default;
  virtual bool canAdd(const FormatDescription& format) const = 0;
  // Adds a track of sound, once, before `startWriting`. False if a movie can't have this format.
  virtual bool addTrack(AacFormat format) = 0;
  // Adds the track of pictures, which players turn clockwise by `rotation` degrees. The timeline
  // starts at zero. `canAdd` must have accepted the format. False on failure; `error` may say why.
  virtual bool startWriting(std::shared_ptr<const FormatDescription> format, int rotation) = 0;
  virtual WriterStatus status() const = 0;
  // What went wrong, as text for a person.
  virtual std::optional<std::string> error() const = 0;
  virtual bool isReadyForMoreMediaData() const = 0;
  // Adds the next picture. False on failure.
  virtual bool append(const EncodedSample& sample, bool keyframe, MovieTiming timing) = 0;
  // Adds the next packet of sound, which has `soundPacketSamples` samples of each channel. False on
  // failure.
  virtual bool append(ByteView packet) = 0;
  // Ends the timeline at `end`, so that later sound is not heard, and completes the file. Then
  // `status` gives the outcome, and `handler` runs on any thread. `rescue` and `cancelWriting` may
  // drop `handler`.
  virtual void finishWriting(std::int64_t end, std::function<void()> handler) = 0;
  // The pictures of the finished movie, once `finishWriting` was called.
  virtual MovieExtent extent() const = 0;
  // The pictures that survive a power cut.
  virtual MovieExtent synced() const = 0;
  // After a failure: drops what waits for the disk, and completes the file with the samples that
  // are on the disk. Then `handler` runs on any thread, unless writing is cancelled first. `kept`
  // says which pictures the file has, and `isComplete` whether the file could be completed.
  using RescueHandler = std::function<void(MovieExtent kept, bool isComplete)>;
  virtual void rescue(RescueHandler handler) = 0;
  // Opens a text file at `path`, which must not exist. Call it before `startWriting`. Another
  // thread calls `takeLines` and writes the result into the file: at least twice a second until the
  // movie ends, and once more before the handler of `finishWriting` or `rescue` runs. A disk that
  // hangs delays these calls. An error of the text file never fails the movie. False, with `error`,
  // if the text file can't be made.
  using TakeLines = std::function<std::string()>;
  virtual bool openLog(const std::string& path, TakeLines takeLines, std::string& error) = 0;
  // Why the log has ended early.
  virtual std::optional<std::string> logError() const = 0;
  // Bytes that the file system has left. The figure is renewed after writes, at most once a second.
  // Empty if the file system does not say.
  virtual std::optional<std::uint64_t> freeBytes() const = 0;
  // Stops writing and leaves the file as it is.
  virtual void cancelWriting() = 0;
};

class Movies {
 public:
  virtual ~Movies() = default;
  // A writer on a new file at `path`. Null, with `error`, when the file exists or can't be made.
  virtual std::shared_ptr<MovieWriter> createWriter(const std::string& path,
                                                    std::string& error) = 0;
};

}  // namespace lumora
