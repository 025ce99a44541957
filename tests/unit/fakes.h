#pragma once

// A machine of fakes. The tests own the clock and turn the state queue by hand, so every rule
// about time, order and credit is tested without sleeping.

#include <gmock/gmock.h>

#include <deque>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "app/video_encoder.h"
#include "codec/memory_pixel_buffers.h"
#include "encode/picture_size.h"
#include "h264/memory_sample.h"
#include "h264/nal_units.h"

namespace lumora {

class ManualQueue final : public SerialQueue {
 public:
  explicit ManualQueue(const double& now) : now_(now) {}
  void async(Work work) override { work_.push_back(std::move(work)); }
  void asyncAfter(double seconds, Work work) override {
    later_.emplace(now_ + seconds, std::move(work));
  }
  // Runs everything that is due, including what that enqueues; whether there was anything.
  bool run();
  void clear() {
    work_.clear();
    later_.clear();
  }

 private:
  const double& now_;
  std::deque<Work> work_;
  std::multimap<double, Work> later_;
};

class FakeClock final : public Clock {
 public:
  double uptime() const override { return now; }
  double now = 1000;
};

struct FakeTimer final : TimerSource {
  void cancel() override { cancelled = true; }
  bool cancelled = false;
};

class FakeDispatch final : public Dispatch {
 public:
  explicit FakeDispatch(const double& now) : now_(now) {}
  std::shared_ptr<SerialQueue> makeQueue(const std::string&) override {
    queues.push_back(std::make_shared<ManualQueue>(now_));
    return queues.back();
  }
  std::unique_ptr<TimerSource> makeTimer(double interval, Work handler) override {
    timerInterval = interval;
    tick = std::move(handler);
    return std::make_unique<FakeTimer>();
  }
  void runDetached(Work work) override { detached.push_back(std::move(work)); }

  std::vector<std::shared_ptr<ManualQueue>> queues;
  double timerInterval = 0;
  Work tick;
  std::vector<Work> detached;

 private:
  const double& now_;
};

struct FakeSignal final : SignalSource {
  void cancel() override {}
};

class FakeProcess final : public Process {
 public:
  ssize_t readInput(MutableByteView space) override;
  ssize_t writeOutput(ByteView text) override;
  std::unique_ptr<SignalSource> onSignal(int signal, Work handler) override {
    signals[signal] = std::move(handler);
    return std::make_unique<FakeSignal>();
  }
  void exit(int code) override { exitCodes.push_back(code); }

  // The events written so far, oldest first; forgets them.
  std::vector<Json> takeEvents();
  std::vector<Json> takeEvents(const std::string& type);

  Bytes input;
  std::size_t chunk = 1 << 16;  // bytes per read
  int interruptions = 0;        // reads that fail with EINTR first
  std::vector<std::string> lines;
  std::map<int, Work> signals;
  std::vector<int> exitCodes;
};

class FakeConnection final : public TcpConnection {
 public:
  void setStateHandler(StateHandler handler) override { stateHandler = std::move(handler); }
  void start() override { started = true; }
  void receive(std::size_t maximum, ReceiveHandler handler) override {
    readLimit = maximum;
    onReceive = std::move(handler);
  }
  void send(std::vector<SharedBytes> parts, SendHandler handler) override;
  void cancel() override { cancelled = true; }

  // What the client sends; `complete` closes its side.
  void deliver(const std::string& text, bool complete = false);
  // The network stack took the outstanding send.
  void finishSend(std::error_code error = {});

  StateHandler stateHandler;
  ReceiveHandler onReceive;
  SendHandler onSent;
  std::vector<Bytes> sent;  // one entry per send
  std::size_t readLimit = 0;
  bool started = false;
  bool cancelled = false;
};

class FakeListener final : public TcpListener {
 public:
  void setStateHandler(StateHandler handler) override { changed = std::move(handler); }
  void setConnectionHandler(ConnectionHandler handler) override { arrived = std::move(handler); }
  void start() override { started = true; }
  void acceptConnections() override { accepts = true; }
  std::uint16_t port() const override { return boundPort; }
  void cancel() override { cancelled = true; }

  StateHandler changed;
  ConnectionHandler arrived;
  std::uint16_t boundPort = 4711;
  bool started = false;
  bool accepts = false;
  bool cancelled = false;
};

class FakeNetwork final : public Network {
 public:
  std::shared_ptr<TcpListener> makeListener(const std::string&, std::uint16_t) override {
    return listener;
  }
  std::shared_ptr<FakeListener> listener = std::make_shared<FakeListener>();
};

// A session whose frames the test answers.
class FakeSession final : public CompressionSession {
 public:
  FakeSession(int width, int height)
      : pool(width, height, PicturePool::make()), size{width, height} {}
  Status setProperty(SessionProperty property, const PropertyValue& value) override {
    properties[property] = value;
    return property == failing.first ? failing.second : 0;
  }
  Status prepareToEncodeFrames() override { return prepareStatus; }
  PixelBufferPool* pixelBufferPool() override { return hasPool ? &pool : nullptr; }
  Status encodeFrame(std::shared_ptr<PixelBuffer> buffer, RationalTime time, FrameProperties frame,
                     OutputHandler handler) override;
  void completeFrames() override { ++flushes; }
  void invalidate() override { invalidated = true; }

  // Answers the oldest frame.
  void answer(Status status, std::shared_ptr<const EncodedSample> sample, std::uint32_t flags = 0);

  struct Submission {
    std::shared_ptr<PixelBuffer> buffer;
    RationalTime time;
    bool forced = false;
    OutputHandler handler;
  };
  MemoryPixelBufferPool pool;
  PictureSize size;
  bool hasPool = true;
  std::map<SessionProperty, PropertyValue> properties;
  std::pair<std::optional<SessionProperty>, Status> failing;
  Status prepareStatus = 0;
  Status submitStatus = 0;
  std::deque<Submission> pending;
  std::vector<std::pair<std::int64_t, bool>> submitted;  // time value, forced
  int flushes = 0;
  bool invalidated = false;
};

class FakeEncoders final : public Encoders {
 public:
  Status createSession(SessionKind kind, std::int32_t width, std::int32_t height,
                       const EncoderRequirements&,
                       std::shared_ptr<CompressionSession>& session) override;
  void openAhead(const std::vector<EncoderSettings>& settings) override { ahead = settings; }
  void whenOpen(double longest, Work work) override {
    longestWait = longest;
    opened = std::move(work);
  }
  std::vector<EncoderSettings> ahead;
  double longestWait = 0;
  Work opened;
  Status createStatus = 0;
  std::function<void(FakeSession&)> adjust;
  std::vector<std::shared_ptr<FakeSession>> sessions;
};

class FakeImages final : public ImageConverter {
 public:
  bool convert(const ImageView&, const MutableImageView&) override { return succeeds; }
  bool succeeds = true;
};

// A writer that remembers what it was given and fails when told to.
class FakeWriter final : public MovieWriter {
 public:
  struct Entry {
    MovieTiming timing;
    bool keyframe = false;
  };
  bool canAdd(const FormatDescription&) const override { return accepts; }
  bool startWriting(std::shared_ptr<const FormatDescription>) override {
    if (starts) state = WriterStatus::writing;
    return starts;
  }
  WriterStatus status() const override { return state; }
  std::optional<std::string> error() const override { return problem; }
  bool isReadyForMoreMediaData() const override { return ready; }
  bool append(const EncodedSample&, bool keyframe, MovieTiming timing) override {
    if (appends) entries.push_back({timing, keyframe});
    return appends;
  }
  void finishWriting(std::int64_t at, std::function<void()> handler) override {
    end = at;
    finished = std::move(handler);
  }
  void cancelWriting() override { state = WriterStatus::cancelled; }
  // The disk is done with the file.
  void complete(WriterStatus outcome) {
    state = outcome;
    std::exchange(finished, nullptr)();
  }

  bool accepts = true, starts = true, ready = true, appends = true;
  WriterStatus state = WriterStatus::idle;
  std::optional<std::string> problem;
  std::vector<Entry> entries;
  std::int64_t end = -1;
  std::function<void()> finished;
};

class FakeMovies final : public Movies {
 public:
  std::shared_ptr<MovieWriter> createWriter(const std::string& path, std::string& error) override;
  std::string refusal;  // why there is no writer
  std::function<void(FakeWriter&)> adjust;
  std::vector<std::shared_ptr<FakeWriter>> writers;
  std::vector<std::string> paths;
};

class FakeFiles final : public FileManager {
 public:
  bool exists(const std::string& path) const override { return existing.contains(path); }
  bool move(const std::string& from, const std::string& to) override {
    if (existing.contains(to) || unwritable.contains(to)) return false;
    moves.emplace_back(from, to);
    return true;
  }
  void remove(const std::string& path) override { removed.push_back(path); }
  std::set<std::string> existing, unwritable;
  std::vector<std::pair<std::string, std::string>> moves;
  std::vector<std::string> removed;
};

// A sample of the given NAL units (each its header byte and some payload), with parameter sets.
std::shared_ptr<const EncodedSample> makeSample(const std::vector<std::uint8_t>& nalHeaders);
std::shared_ptr<const EncodedSample> keySample();
std::shared_ptr<const EncodedSample> deltaSample();

// One VideoEncoder on fakes.
struct VideoEncoderProbe {
  explicit VideoEncoderProbe(Configuration configuration = testConfiguration());
  static Configuration testConfiguration();

  // Starts it and reports its listener ready; forgets the events.
  void becomeReady();
  std::shared_ptr<FakeConnection> connect();
  // Connects and authenticates a client.
  std::shared_ptr<FakeConnection> connectClient();
  // Admits and encodes one frame as the reader would.
  void feed(std::uint64_t id, int width = 640, int height = 360);
  FakeSession& lastSession() { return *encoders->sessions.back(); }
  // Answers the preview frame in flight and runs the queue.
  void answerPreview(std::shared_ptr<const EncodedSample> sample);
  // Runs the state queue and the takes' queues until all are empty.
  void run();
  void command(const Json& command);
  // The keys of a fresh "stats" event.
  Json statistics();
  bool isRawBusy() { return service->raw.isBusy(); }
  VideoEncoder& operator*() { return *service; }
  std::size_t peerCount() const { return service->peers.size(); }
  MovieRecorder& take() { return *service->movie; }
  Peer& onlyPeer() { return *service->peers.begin()->second; }

  std::shared_ptr<PicturePool> pictures = PicturePool::make();
  std::shared_ptr<FakeClock> clock = std::make_shared<FakeClock>();
  std::shared_ptr<ManualQueue> queue = std::make_shared<ManualQueue>(clock->now);
  std::shared_ptr<FakeDispatch> dispatch = std::make_shared<FakeDispatch>(clock->now);
  std::shared_ptr<FakeProcess> process = std::make_shared<FakeProcess>();
  std::shared_ptr<FakeNetwork> network = std::make_shared<FakeNetwork>();
  std::shared_ptr<FakeEncoders> encoders = std::make_shared<FakeEncoders>();
  std::shared_ptr<FakeImages> images = std::make_shared<FakeImages>();
  std::shared_ptr<FakeMovies> movies = std::make_shared<FakeMovies>();
  std::shared_ptr<FakeFiles> files = std::make_shared<FakeFiles>();
  std::shared_ptr<VideoEncoder> service;

 private:
  // What never came to run still owns takes and the service.
  std::shared_ptr<void> forgetWork;
};

}  // namespace lumora
