#pragma once

// The one service object. It holds the state of the whole helper. Each operation is defined in the
// folder of its subsystem. Everything runs on the state queue, without locks, unless a comment
// names another thread. Any thread may call `uptime` and `weakly`.

#include <limits>
#include <semaphore>
#include <utility>

#include "app/options.h"
#include "base/limits.h"
#include "input/raw_frame.h"
#include "record/current_take.h"
#include "sound/sound_input.h"
#include "stream/preview.h"

namespace lumora {

struct FramePackets;
struct RecordHeader;

class VideoEncoder : public std::enable_shared_from_this<VideoEncoder> {
 public:
  VideoEncoder(const Configuration& given, Platform services)
      : platform(std::move(services)), configuration(given) {}

  // app/: lifecycle. `start` throws std::system_error when the listener or a thread can't be made.
  void start();
  void shutdown(int code);
  // These two start the watchdog. The `shutdown` that follows restarts it. The watchdog ends the
  // process after `watchdogTimeout`, even if the state queue hangs.
  void requestShutdown();                           // any thread
  void requestFailure(const std::string& message);  // any thread
  void exitNow(int code);
  void emit(const Json& event);

  // input/: `readFrames` runs on the reader thread and blocks until the input ends or is invalid.
  void readFrames();
  void releaseRaw();

  // encode/
  void encode(const RawFrame& frame);

  // stream/: `deliver` changes no peer if it throws EncoderFailure. `remove` ignores a peer that is
  // gone.
  void accept(std::shared_ptr<TcpConnection> connection);
  void remove(std::uint64_t peerID);
  void deliver(const EncodedSample& sample, std::uint64_t id);
  void sweepPeers();

  // record/
  void recordingCommand(ByteView payload);
  void finishMovieIfReady();

  // diag/
  void emitStats(bool force);

 private:
  friend struct VideoEncoderProbe;  // unit tests look inside

  // A handler that calls `work` on this service. It passes `bound`, then its own arguments. Once
  // the service is gone, it does nothing.
  template <typename Work, typename... Bound>
  auto weakly(Work work, Bound... bound) {
    return [weak = weak_from_this(), work = std::move(work),
            ... bound = std::move(bound)](auto&&... arguments) {
      if (const auto self = weak.lock()) {
        std::invoke(work, *self, bound..., std::forward<decltype(arguments)>(arguments)...);
      }
    };
  }

  // app/
  void listenerChanged(ListenerState state);
  void becomeReady();
  void serviceTick();
  void serviceTickLater();
  void fail(const std::string& message);  // emits the "error" event and calls `shutdown(1)`

  // input/: reader thread. The functions that read input throw if it breaks the protocol or ends
  // inside a payload. Only `readExactly` does not throw: it returns false.
  bool readExactly(MutableByteView space);  // false if the input ends before `space` is full
  void readCommand(const RecordHeader& header);
  void readSound(const RecordHeader& header);
  void readFrame(const RecordHeader& header);
  void logDropped(const ReadFrame& frame);
  RecordPicture readPicture(const RecordHeader& header);
  RecordPicture sharedPicture(const RecordHeader& header);
  PictureMemory allocatePicture(std::size_t bytes);
  void givePicture(RawFrame& frame, RecordPicture picture);
  RecordPicture copyOf(const RecordPicture& picture);

  // encode/
  std::shared_ptr<CompressionSession> compressionSession(const EncoderSettings& settings);
  // What a session answered for one frame.
  struct Encoded {
    Status status = 0;
    std::uint32_t infoFlags = 0;
    std::shared_ptr<const EncodedSample> sample;
    double submitted = 0;  // uptime seconds

    // Throws EncoderFailure if the session gave no sample. The failure's text begins with `what`,
    // unless there was no encoder or the picture could not be converted.
    void require(const char* what) const;
  };
  using OutcomeHandler = std::function<void(const Encoded&)>;
  // Runs `handle` once the session has answered. If the session refuses the frame, throws an
  // EncoderFailure whose text begins with `what`.
  void submit(CompressionSession& to, std::shared_ptr<PixelBuffer> buffer, RationalTime time,
              bool forceKeyFrame, const std::shared_ptr<RawEncodingCompletion>& completion,
              const char* what, OutcomeHandler handle);
  void encodePreview(const RawFrame& frame,
                     const std::shared_ptr<RawEncodingCompletion>& completion);
  void preparePreviewSession(const RawFrame& frame);
  void previewEncoded(std::uint64_t id, const Encoded& encoded);
  void encodeRecording(const RawFrame& frame, const std::shared_ptr<MovieRecorder>& movie,
                       const std::shared_ptr<RawEncodingCompletion>& completion);
  void prepareRecordingSession(const RawFrame& frame, const std::shared_ptr<MovieRecorder>& movie);
  void recordingEncoded(const std::shared_ptr<MovieRecorder>& movie, const ReadFrame& frame,
                        const Encoded& encoded);

  // stream/
  void receive(const Peer& peer);
  void received(std::uint64_t peerID, ByteView bytes, bool complete, std::error_code error);
  // `takeBytes`, `handleLine` and `authenticate` answer false when the connection must end.
  bool takeBytes(Peer& peer, ByteView bytes);
  bool handleLine(Peer& peer);
  bool authenticate(Peer& peer, const std::string& offered);
  void sendFrame(Peer& peer, const FramePackets& packets, std::uint64_t id);
  void sent(std::uint64_t peerID, std::error_code error);

  // record/
  void startRecording(const Json& command);
  void soundFailed(const std::string& reason);  // any thread
  void stopRecording(const Json& command);
  void relayRecording(const TakeEvent& event, const std::shared_ptr<MovieRecorder>& from);
  void tellParent(const TakeEvent& event);
  void stopTakeWithoutSpace();
  void concludeAbandonedTake();
  void takeEnded();

  // diag/
  Json coreStatistics() const;
  void addDiagnostics(Json& event) const;

  double uptime() const { return platform.clock->uptime(); }
  double millisecondsSince(double time) const { return (uptime() - time) * 1000.0; }

  // The fields by subsystem. They belong to the state queue unless their comment says otherwise.

  // app/: any thread may read `platform` and `configuration`, since they never change.
  const Platform platform;
  const Configuration configuration;

  // app/: lifecycle.
  bool running = true;
  bool ready = false;
  std::optional<int> shutdownCode;
  std::shared_ptr<TcpListener> listener;
  std::vector<std::unique_ptr<SignalSource>> signals;

  // input/: any thread.
  RawAdmission raw;

  // input/: set by `start`, then any thread. Null unless the parent sends sound.
  std::shared_ptr<SoundInput> sound;

  // input/: any thread. The reader acquires a slot for each command. The state queue releases the
  // slot when it handles the command. The reader waits at most `commandSlotTimeout` for a free
  // slot, or not at all if `commandsAreLate`. If it gets none, it goes on without.
  std::counting_semaphore<> commandSlots{maximumPendingCommands};

  // input/: any thread. Dropped frames that the state queue has not logged yet.
  std::atomic<int> dropsAhead = 0;

  // input/: reader thread only.
  std::uint64_t lastFrameID = 0;
  bool commandsAreLate = false;  // the last command got no slot

  Preview preview;
  CurrentTake take;

  // diag/: uptime of the last "stats" event, and of the last one with all keys.
  double lastStats = 0;
  double lastDiagnostics = -std::numeric_limits<double>::infinity();
};

}  // namespace lumora
