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
#include "tests/unit/failures.h"
#include "tests/unit/samples.h"

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

// A timer or a signal source; the test keeps the flag.
template <typename Source>
struct FakeSource final : Source {
  explicit FakeSource(std::shared_ptr<bool> flag) : cancelled(std::move(flag)) {}
  void cancel() override { *cancelled = true; }
  std::shared_ptr<bool> cancelled;
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
    return std::make_unique<FakeSource<TimerSource>>(timerCancelled);
  }
  void runDetached(Work work) override { detached.push_back(std::move(work)); }

  std::vector<std::shared_ptr<ManualQueue>> queues;
  double timerInterval = 0;
  std::shared_ptr<bool> timerCancelled = std::make_shared<bool>(false);
  Work tick;
  std::vector<Work> detached;

 private:
  const double& now_;
};

class FakeProcess final : public Process {
 public:
  explicit FakeProcess(Failures& failures) : failures_(failures) {}
  ssize_t readInput(MutableByteView space) override;
  ssize_t writeOutput(ByteView text) override;
  std::unique_ptr<SignalSource> onSignal(int signal, Work handler) override {
    signals[signal] = std::move(handler);
    signalsCancelled[signal] = std::make_shared<bool>(false);
    return std::make_unique<FakeSource<SignalSource>>(signalsCancelled[signal]);
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
  std::map<int, std::shared_ptr<bool>> signalsCancelled;
  std::vector<int> exitCodes;

 private:
  Failures& failures_;
};

// A pool that can run out of buffers.
class FakePool final : public PixelBufferPool {
 public:
  FakePool(int width, int height, Failures& failures)
      : buffers_(width, height, PicturePool::make()), failures_(failures) {}
  Status create(int threshold, std::shared_ptr<PixelBuffer>& buffer) override {
    const Status status = failures_.next(Call::createBuffer);
    return status != 0 ? status : buffers_.create(threshold, buffer);
  }

 private:
  MemoryPixelBufferPool buffers_;
  Failures& failures_;
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
  FakeSession(int width, int height, Failures& failures)
      : pool(width, height, failures), size{width, height}, failures_(failures) {}
  Status setProperty(SessionProperty property, const PropertyValue& value) override {
    properties[property] = value;
    return failures_.next(Call::setProperty);
  }
  Status prepareToEncodeFrames() override { return failures_.next(Call::prepare); }
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
  FakePool pool;
  PictureSize size;
  bool hasPool = true;
  std::map<SessionProperty, PropertyValue> properties;
  std::deque<Submission> pending;
  std::vector<std::pair<std::int64_t, bool>> submitted;  // time value, forced
  int flushes = 0;
  bool invalidated = false;

 private:
  Failures& failures_;
};

class FakeEncoders final : public Encoders {
 public:
  explicit FakeEncoders(Failures& failures) : failures_(failures) {}
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
  std::function<void(FakeSession&)> adjust;
  std::vector<std::shared_ptr<FakeSession>> sessions;

 private:
  Failures& failures_;
};

class FakeImages final : public ImageConverter {
 public:
  explicit FakeImages(Failures& failures) : failures_(failures) {}
  bool convert(const ImageView&, const MutableImageView&) override {
    return failures_.next(Call::convert) == 0;
  }

 private:
  Failures& failures_;
};

// A writer that remembers what it was given.
class FakeWriter final : public MovieWriter {
 public:
  explicit FakeWriter(Failures& failures) : failures_(failures) {}
  struct Entry {
    MovieTiming timing;
    bool keyframe = false;
  };
  bool canAdd(const FormatDescription&) const override { return failures_.next(Call::canAdd) == 0; }
  bool startWriting(std::shared_ptr<const FormatDescription>) override {
    if (failures_.next(Call::startWriting) != 0) return false;
    state = WriterStatus::writing;
    return true;
  }
  WriterStatus status() const override { return state; }
  std::optional<std::string> error() const override { return problem; }
  bool isReadyForMoreMediaData() const override { return failures_.next(Call::isReady) == 0; }
  bool append(const EncodedSample&, bool keyframe, MovieTiming timing) override {
    if (failures_.next(Call::append) != 0) return false;
    entries.push_back({timing, keyframe});
    return true;
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

  WriterStatus state = WriterStatus::idle;
  std::optional<std::string> problem;
  std::vector<Entry> entries;
  std::int64_t end = -1;
  std::function<void()> finished;

 private:
  Failures& failures_;
};

class FakeMovies final : public Movies {
 public:
  explicit FakeMovies(Failures& failures) : failures_(failures) {}
  std::shared_ptr<MovieWriter> createWriter(const std::string& path, std::string& error) override;
  std::optional<std::string> problem;  // what the writers say of theirs
  std::vector<std::shared_ptr<FakeWriter>> writers;

 private:
  Failures& failures_;
};

class FakeFiles final : public FileManager {
 public:
  explicit FakeFiles(Failures& failures) : failures_(failures) {}
  bool exists(const std::string& path) const override { return existing.contains(path); }
  bool move(const std::string& from, const std::string& to) override {
    if (failures_.next(Call::move) != 0) return false;
    moves.emplace_back(from, to);
    return true;
  }
  void remove(const std::string& path) override { removed.push_back(path); }
  std::set<std::string> existing;
  std::vector<std::pair<std::string, std::string>> moves;
  std::vector<std::string> removed;

 private:
  Failures& failures_;
};

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
  bool hasTake() const { return service->movie != nullptr; }
  MovieRecorder& take() { return *service->movie; }
  Peer& onlyPeer() { return *service->peers.begin()->second; }

  // The whole machine as the service sees it.
  Platform platform() const {
    return {pictures, queue, clock, dispatch, process, network, encoders, images, movies, files};
  }

  std::shared_ptr<Failures> failures = std::make_shared<Failures>();
  std::shared_ptr<PicturePool> pictures = PicturePool::make();
  std::shared_ptr<FakeClock> clock = std::make_shared<FakeClock>();
  std::shared_ptr<ManualQueue> queue = std::make_shared<ManualQueue>(clock->now);
  std::shared_ptr<FakeDispatch> dispatch = std::make_shared<FakeDispatch>(clock->now);
  std::shared_ptr<FakeProcess> process = std::make_shared<FakeProcess>(*failures);
  std::shared_ptr<FakeNetwork> network = std::make_shared<FakeNetwork>();
  std::shared_ptr<FakeEncoders> encoders = std::make_shared<FakeEncoders>(*failures);
  std::shared_ptr<FakeImages> images = std::make_shared<FakeImages>(*failures);
  std::shared_ptr<FakeMovies> movies = std::make_shared<FakeMovies>(*failures);
  std::shared_ptr<FakeFiles> files = std::make_shared<FakeFiles>(*failures);
  std::shared_ptr<VideoEncoder> service;

 private:
  // What never came to run still owns takes and the service.
  std::shared_ptr<void> forgetWork;
};

}  // namespace lumora
