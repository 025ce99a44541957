#pragma once

// The one service object. It holds the state of the whole helper; its operations are defined in
// the folder of the subsystem they belong to. Everything runs on the state queue, without locks,
// except where a comment says otherwise.

#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <semaphore>
#include <string>
#include <utility>
#include <vector>

#include "app/options.h"
#include "base/json.h"
#include "base/limits.h"
#include "encode/raw_encoding_completion.h"
#include "input/raw_admission.h"
#include "input/raw_frame.h"
#include "platform/platform.h"
#include "record/current_take.h"
#include "stream/preview.h"

namespace lumora {

struct FramePackets;
struct RecordHeader;

class VideoEncoder : public std::enable_shared_from_this<VideoEncoder> {
 public:
  VideoEncoder(const Configuration& configuration, Platform platform);

  // app/: lifecycle. `start` throws std::system_error when the listener can't be created.
  void start();
  void shutdown(int code);
  // Any thread; the process then ends in time even if the state queue stands.
  void requestShutdown();
  void requestFailure(const std::string& message);
  void exitNow(int code);
  void emit(const Json& event);

  // input/: `readFrames` blocks until the input ends, on the reader's own thread.
  void readFrames();
  void releaseRaw();

  // encode/
  void encode(const RawFrame& frame);

  // stream/: `deliver` throws EncoderFailure before any peer changes.
  void accept(std::shared_ptr<TcpConnection> connection);
  void remove(const std::shared_ptr<Peer>& peer);
  void deliver(const EncodedSample& sample, std::uint64_t id);
  void sweepPeers();

  // record/
  void recordingCommand(ByteView payload);
  void finishMovieIfReady();

  // diag/
  void emitStats(bool force);

 private:
  friend struct VideoEncoderProbe;  // unit tests look inside

  // A handler that calls `work` with this service, `bound` and its own arguments. It does nothing
  // once the service is gone.
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
  void fail(const std::string& message);  // "error" event and shutdown with 1
  void closeEverything();

  // input/
  void readRecords();
  bool readExactly(MutableByteView space);
  bool readCommand(const RecordHeader& header);
  bool readFrame(const RecordHeader& header);
  // The pixels of a frame record, from the input or in the parent's memory; null when it has ended
  // us.
  std::shared_ptr<const std::uint8_t[]> readPixels(const RecordHeader& header);
  std::shared_ptr<const std::uint8_t[]> sharedPixels(const RecordHeader& header);
  void enqueue(std::shared_ptr<const RawFrame> admitted);

  // encode/
  std::shared_ptr<CompressionSession> compressionSession(std::int64_t sessionWidth,
                                                         std::int64_t sessionHeight, bool recording,
                                                         int targetFPS);
  // What a session answered for one frame.
  struct Encoded {
    Status status = 0;
    std::uint32_t infoFlags = 0;
    std::shared_ptr<const EncodedSample> sample;
    double submitted = 0;  // uptime seconds

    // Throws EncoderFailure unless there is a sample; `what` names the encoding in its text.
    void require(const char* what) const;
  };
  using OutcomeHandler = std::function<void(VideoEncoder&, const Encoded&)>;
  Status submit(CompressionSession& to, std::shared_ptr<PixelBuffer> buffer, RationalTime time,
                FrameProperties properties,
                const std::shared_ptr<RawEncodingCompletion>& completion, OutcomeHandler handle);
  void encodePreview(const RawFrame& frame,
                     const std::shared_ptr<RawEncodingCompletion>& completion);
  void preparePreviewSession(const RawFrame& frame);
  void previewEncoded(const Encoded& encoded, std::uint64_t id);
  void encodeRecording(const RawFrame& frame, const std::shared_ptr<MovieRecorder>& movie,
                       const std::shared_ptr<RawEncodingCompletion>& completion);
  void prepareRecordingSession(const RawFrame& frame, const std::shared_ptr<MovieRecorder>& movie);
  void submitRecording(const RawFrame& frame, const std::shared_ptr<MovieRecorder>& movie,
                       const std::shared_ptr<RawEncodingCompletion>& completion);
  void recordingEncoded(const Encoded& encoded, const std::shared_ptr<MovieRecorder>& movie,
                        double capturedAt);

  // stream/
  void receive(const std::shared_ptr<Peer>& peer);
  void received(const std::shared_ptr<Peer>& peer, ByteView bytes, bool ended);
  bool takeBytes(Peer& peer, ByteView bytes);
  bool handleLine(Peer& peer);
  bool authenticate(Peer& peer, const std::string& offered);
  void sendFrame(const std::shared_ptr<Peer>& peer, const FramePackets& packets, std::uint64_t id);

  // record/
  void startRecording(const Json& command);
  void stopRecording(const Json& command);
  void beginTake(const Json& command, const RecordingProfile& profile,
                 std::optional<double> startedAt);
  void relayRecording(const TakeEvent& event, const std::shared_ptr<MovieRecorder>& from);
  void tellParent(const TakeEvent& event);
  void concludeAbandonedTake();
  void movieFinished(const std::shared_ptr<MovieRecorder>& movie);
  void takeEnded();

  // diag/
  Json coreStatistics() const;
  void addDiagnostics(Json& event) const;

  double uptime() const { return platform.clock->uptime(); }
  double millisecondsSince(double time) const { return (uptime() - time) * 1000.0; }

  // The fields by subsystem. All belong to the state queue, unless their heading says otherwise.

  // app/: the machine and the configuration. They never change, so any thread may read them.
  const Platform platform;
  const std::string host;
  const std::uint16_t port;
  const std::string token;
  const std::int64_t previewWidth;
  const std::int64_t previewHeight;
  const bool exactPreviewDimensions;

  // app/: lifecycle.
  bool running = true;
  bool ready = false;
  std::optional<int> shutdownCode;
  std::shared_ptr<TcpListener> listener;
  std::vector<std::unique_ptr<SignalSource>> signals;

  // input/: admission, shared by the reader's thread and the state queue under its own lock.
  RawAdmission raw;

  // input/: taken by the reader's thread for a command, given back by the state queue with it. A
  // parent that sends more than the state queue handles waits, for `commandSlotTimeout` at most.
  std::counting_semaphore<> commandSlots{maximumPendingCommands};

  // input/: the reader. Its thread only.
  std::uint64_t lastFrameID = 0;
  bool commandsAreLate = false;  // the last one found no slot

  Preview preview;
  CurrentTake take;

  // diag/: when the last reports went out, in uptime seconds.
  double lastStats = 0;
  double lastDiagnostics = -std::numeric_limits<double>::infinity();
};

}  // namespace lumora
