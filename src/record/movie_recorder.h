#pragma once

// Records one take into a movie file. It gets encoded samples on the state queue and writes them on
// the take's queue, so a slow disk never blocks the state queue. It holds each sample back until
// the next one comes, since only then the sample's duration is known. After a dropped sample it
// drops everything until the next key frame. Sound comes from a queue of its own, and is written on
// the take's queue.

#include <algorithm>
#include <atomic>
#include <deque>

#include "platform/platform.h"
#include "record/frame_log.h"
#include "record/recording_profile.h"
#include "record/take_event.h"
#include "record/take_options.h"
#include "record/take_sound.h"
#include "sound/sound_input.h"

namespace lumora {

class MovieRecorder : public std::enable_shared_from_this<MovieRecorder> {
 public:
  using Report =
      std::function<void(const TakeEvent& event, const std::shared_ptr<MovieRecorder>& from)>;

  // `relay` gets every event that the recorder makes, on the state queue. Throws std::system_error
  // when the take's queue gets no thread.
  MovieRecorder(std::string takeID, std::string destination, std::optional<double> start,
                RecordingProfile takeProfile, const TakeOptions& asked, const Platform& services,
                Report relay);

  // State queue. The capture time that this take uses for the next frame. Uptime seconds.
  double captureTime(const ReadFrame& frame);
  // State queue. False when the sample was dropped. The caller then asks for a key frame.
  bool append(std::shared_ptr<const EncodedSample> sample, const ReadFrame& frame, bool keyframe);
  void reportProgress();
  // State queue. The frame was lost, or captured before the take's start.
  void countDropped(std::uint64_t frame, FrameOutcome why);
  // State queue. The cadence skipped the frame.
  void countThrottled(std::uint64_t frame);
  int pendingWork() const { return pending; }
  bool accepts() const { return accepting; }  // false once the take has failed or finishes
  // Whether a check has found fewer than `options.minimumFree` bytes free. Any thread.
  bool lacksSpace() const { return spaceIsShort; }
  // State queue. For a take with sound: gets the run's sound, from two seconds ago on.
  void hear(std::shared_ptr<SoundInput> input);
  // Any thread. The next records for a take with sound. `isLast`: no more come.
  void addSound(std::vector<SoundRecord> records, bool isLast);

  // State queue. Ends the take at uptime `stop`. Its last event says that it is saved or failed.
  void finish(double stop);
  // State queue. Makes the last event say that the take was stopped for lack of space.
  void noteStopForSpace() { stoppedForSpace = true; }
  // State queue. Ends the take as failed. With `options.keepsFailed` its last event comes once the
  // file is complete, after `rescueTimeout` seconds at most. Frames without an outcome get `cause`,
  // or `disk` if the disk has failed or is too slow.
  void abort(const std::string& message, FrameOutcome cause);
  static constexpr double rescueTimeout = 1.8;  // less than `shutdownTimeout`
  // State queue. Sound was lost. A take with sound fails, unless `TakeSound::endAt` was
  // already called.
  void soundFailed(const std::string& message);
  // State queue. If the take fails with `options.keepsFailed`, its last event comes at uptime `end`
  // at the latest. A stopped take goes on encoding its remaining sound until half a second
  // before `end` at most. Sound that is not encoded by then is left out. If this is called more
  // than once, the earliest `end` counts.
  void limitEnd(double end) { latestEnd = std::min(latestEnd.load(), end); }

  EncoderSettings sessionSettings() const { return profile.sessionSettings(options.bitRate); }

  const std::string id;
  const std::string path;  // final destination
  const std::optional<double> startedAt;
  const RecordingProfile profile;
  const TakeOptions options;
  const std::string staging;            // the file while it is being written
  const std::shared_ptr<FrameLog> log;  // null unless it was asked for
  RecordingCadence cadence;             // state queue only

 private:
  struct HeldSample {
    std::shared_ptr<const EncodedSample> sample;
    std::uint64_t id = 0;  // of its frame
    bool keyframe = false;
    double time = 0;             // uptime of its capture; for the first sample, `origin`
    std::int64_t movieTime = 0;  // where it begins in the movie, in movie units
  };

  // Take's queue. `moveTo` also runs on the thread that renames the file of a failed take.
  void writeJob(HeldSample next);
  void holdBack(HeldSample next);
  void prepare(const HeldSample& first);
  std::int64_t write(const HeldSample& sample, double until, std::int64_t shortest);
  void tell(TakeState state, double duration, const std::string& error,
            const std::string& outputPath, Json more = Json::object());
  void progress();
  void checkWriter() const;
  [[noreturn]] void refuseSample() const;
  void checkSpace();
  Json spaceLeft();
  void holdSound(std::vector<SoundRecord> records, bool isLast);
  void encodeSound();
  void soundLater();
  void waitForSound();
  bool awaitsSound() const { return awaitedEnd && !failed && !sound->isEnding(); }
  void endSound();
  bool isShortOfTime() const;
  void keepSound(double end);
  void writeSound(const SoundPackets& packets);
  void finishJob(double stop);
  void endAwaited();
  void endMovie(double end, FrameOutcome rest);
  void completeFile(std::int64_t units, double end, FrameOutcome rest);
  void movieEnded(double end);
  void saved(double end, const std::string& error, const std::string& outputPath);
  void openLog();
  std::optional<std::string> logError() const;
  bool moveTo(const std::string& name);

  // Ends the take as failed. If the disk has failed or is too slow, only what is on it can be kept,
  // and frames without an outcome get `disk`. Otherwise every sample can be kept, and frames
  // without an outcome get `cause`.
  void fail(const std::string& message, FrameOutcome cause);
  bool keepAll(FrameOutcome rest);
  void rescue();
  void nameKept(MovieExtent extent, bool isComplete);
  void kept(MovieExtent extent, const std::string& file);
  void removeFile();

  const Platform platform;
  const std::shared_ptr<SerialQueue> queue;
  const Report report;

  std::shared_ptr<SoundInput> soundInput;  // if sound was asked for; set before any job

  // Take's queue only.
  std::shared_ptr<MovieWriter> writer;
  std::optional<HeldSample> held;
  double origin = 0;                 // uptime at which the movie begins, once there is a writer
  std::optional<TakeSound> sound;    // if it was asked for
  bool isSoundQueued = false;        // a job will encode more of it
  std::optional<double> awaitedEnd;  // set by a stop: where the movie will end, in seconds
  std::uint64_t frames = 0;
  double writtenDuration = 0;  // seconds
  double lastProgressReport = -std::numeric_limits<double>::infinity();
  std::vector<double> recentWrites;  // uptimes; `tell` removes those older than a second
  // Uptimes and bytes of the writes of the last ten seconds. Empty without `options.minimumFree`.
  std::deque<std::pair<double, std::size_t>> recentBytes;
  int width = 0;
  int height = 0;
  bool failed = false;
  std::string failure;       // the reason
  bool hasLogFile = false;   // the log has a file beside the movie, named after it
  std::string logFailure;    // why the log has no file
  bool isConcluded = false;  // the last event was sent

  // State queue only.
  bool waitingIDR = true;
  double latestCapture = 0;  // uptime seconds, if the take has sound

  // Take's queue and the thread that renames the file of a failed take.
  std::atomic<bool> isLogAstray = false;  // the log could not get its final name

  // Several queues.
  std::atomic<int> pending = 0;                // write jobs queued and not finished
  std::atomic<std::int64_t> waitingSound = 0;  // PCM samples that the take's queue has not taken
  std::atomic<std::uint64_t> dropped = 0;
  std::atomic<std::uint64_t> throttled = 0;
  std::atomic<bool> accepting = true;
  std::atomic<bool> spaceIsShort = false;
  std::atomic<bool> stoppedForSpace = false;
  std::atomic<double> latestEnd = std::numeric_limits<double>::infinity();  // uptime
};

}  // namespace lumora
