#pragma once

// One recording take. It takes encoded samples on the state queue and writes them on a queue of
// its own, so that a slow disk never blocks the state queue. Each sample is held back until the
// next one tells its duration. After any loss nothing is taken until the next key frame.

#include <cstdint>
#include <deque>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "platform/platform.h"
#include "record/recording_cadence.h"
#include "record/recording_profile.h"
#include "record/take_event.h"

namespace lumora {

class MovieRecorder : public std::enable_shared_from_this<MovieRecorder> {
 public:
  using Report =
      std::function<void(const TakeEvent& event, const std::shared_ptr<MovieRecorder>& from)>;

  // `relay` is called on the take's queue.
  MovieRecorder(std::string takeID, std::string destination, std::optional<double> start,
                RecordingProfile takeProfile, CadenceRule rule, const Platform& services,
                Report relay);

  // State queue. Whether the sample was queued; if not it counts as dropped, and the caller asks
  // the encoder for a key frame.
  bool append(std::shared_ptr<const EncodedSample> sample, double capturedAt, bool keyframe);
  void reportProgress();
  void countDropped();    // a frame was lost before it became a sample
  void countThrottled();  // a frame was skipped by the cadence
  int pendingWork();

  // State queue. Ends the take at uptime `stop`; `completion` runs once, on the take's queue, after
  // the take was saved or has failed.
  void finish(double stop, std::function<void()> completion);
  // State queue. Ends the take as failed.
  void abort(const std::string& message);

  const std::string id;
  const std::string path;  // final destination
  const std::optional<double> startedAt;
  const RecordingProfile profile;
  const std::string staging;  // the file while it is being written
  RecordingCadence cadence;   // state queue only

 private:
  struct HeldSample {
    std::shared_ptr<const EncodedSample> sample;
    bool keyframe = false;
    double time = 0;             // of its capture, uptime seconds
    std::int64_t movieTime = 0;  // where it stands in the movie
  };

  // Everything from here to the lock runs on, or belongs to, the take's queue.
  void writeJob(HeldSample next);
  void holdBack(HeldSample next);
  void prepare(const HeldSample& first);
  std::int64_t write(const HeldSample& sample, double until, std::int64_t shortest);
  void tell(TakeState state, double duration, const std::string& error,
            const std::string& outputPath);
  TakeEvent describe(TakeState state, double duration, const std::string& error,
                     const std::string& outputPath);
  void fail(const std::string& message);
  void progress();
  void pruneRecentWrites(double now);
  void finishJob(double stop, const std::function<void()>& completion);
  void finishWriting(double end, const std::function<void()>& completion);
  void movieEnded(double end);
  void saveCompletedMovie(double duration);

  Platform platform;
  std::shared_ptr<SerialQueue> queue;
  Report report;
  std::shared_ptr<MovieWriter> writer;
  std::optional<HeldSample> held;
  std::optional<double> origin;  // uptime that is the movie's zero
  std::uint64_t frames = 0;
  double writtenDuration = 0;  // seconds
  double lastProgressReport = -std::numeric_limits<double>::infinity();
  std::deque<double> recentWrites;  // uptimes of the last second's writes
  int width = 0;
  int height = 0;
  bool failed = false;

  std::mutex lock;  // guards the rest, between the state queue and the take's
  int pending = 0;  // write jobs queued and not finished
  bool waitingIDR = true;
  std::uint64_t dropped = 0;
  std::uint64_t throttled = 0;
  bool accepting = true;
};

}  // namespace lumora
