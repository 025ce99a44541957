#pragma once

// Fakes of the machine's parts. They remember their calls, and answer or fail as a test says.

#include <gmock/gmock.h>

#include <algorithm>
#include <cerrno>
#include <deque>
#include <map>

#include "base/json.h"
#include "base/limits.h"
#include "base/text.h"
#include "codec/memory_pixel_buffers.h"
#include "encode/picture_size.h"
#include "platform/platform.h"

namespace lumora {

// Makes named calls fail, in all parts of the fake machine.
struct Failures {
  // The `nth` call from now on, counted from 1, answers `status`; so do `more` calls after it.
  void fail(const std::string& call, int nth = 1, int status = -1, int more = 0) {
    auto& queue = answers[call] = std::deque<int>(static_cast<std::size_t>(nth - 1), 0);
    queue.insert(queue.end(), static_cast<std::size_t>(more + 1), status);
  }
  // The status that `call` answers now instead of doing its work; 0: it does its work.
  int next(const std::string& call) {
    auto& queue = answers[call];
    if (queue.empty()) return 0;
    const int answer = queue.front();
    queue.pop_front();
    return answer;
  }

  std::map<std::string, std::deque<int>> answers;  // by call, next answer first; 0 after the last
};

struct CanFail {
  explicit CanFail(Failures& all) : failures(all) {}
  int next(const char* call) const { return failures.next(call); }
  Failures& failures;
};

class ManualQueue final : public SerialQueue {
 public:
  explicit ManualQueue(const double& now) : now_(now) {}
  void async(Work work) override { work_.emplace(0, std::move(work)); }
  void asyncAfter(double seconds, Work work) override {
    if (seconds == serviceInterval)
      tick = std::move(work);  // for the test to run
    else
      work_.emplace(now_ + seconds, std::move(work));
  }
  void setFailureHandler(FailureHandler handler) override { failed_ = std::move(handler); }
  // Runs work until none is due. Returns whether any was due.
  bool run() {
    const bool any = runNext();
    while (runNext()) continue;
    return any;
  }
  bool runNext() {
    if (work_.empty() || work_.begin()->first > now_) return false;
    const Work work = std::move(work_.extract(work_.begin()).mapped());
    try {
      work();
    } catch (const std::exception& error) {
      if (!failed_) throw;
      failed_(reasonOf(error));
    }
    return true;
  }
  void clear() {
    work_.clear();
    tick = nullptr;
  }

  Work tick;  // the next work of the service timer

 private:
  const double& now_;
  FailureHandler failed_;
  std::multimap<double, Work> work_;  // by the uptime when it is due; 0: at once
};

struct FakeClock final : Clock {
  double uptime() const override { return now; }
  double now = 1000;
};

struct FakeDispatch final : Dispatch {
  explicit FakeDispatch(const double& clock) : now(clock) {}
  std::shared_ptr<SerialQueue> makeQueue(const std::string&) override {
    return queues.emplace_back(std::make_shared<ManualQueue>(now));
  }
  void runDetached(const std::string&, Work work) override { detached.push_back(std::move(work)); }
  // Runs the work that was detached last. Never runs the work that was detached first, which reads
  // the input. Returns whether any was run.
  bool runDetached() {
    if (hangs || detached.size() < 2) return false;
    const Work work = std::move(detached.back());
    detached.pop_back();
    work();
    return true;
  }

  const double& now;
  std::vector<std::shared_ptr<ManualQueue>> queues;
  std::vector<Work> detached;
  bool hangs = false;
};

struct FakeProcess final : Process, CanFail {
  using CanFail::CanFail;
  ssize_t readInput(MutableByteView space) override {
    if (beforeRead) beforeRead();
    if (interruptions-- > 0) return -EINTR;
    const std::size_t count = std::min({space.size(), chunk, input.size()});
    std::copy_n(input.begin(), count, space.begin());
    input.erase(input.begin(), input.begin() + static_cast<std::ptrdiff_t>(count));
    return static_cast<ssize_t>(count);
  }
  ssize_t writeOutput(ByteView text) override {
    if (const int error = next("writeOutput"); error != 0) return error;
    lines.emplace_back(text.begin(), text.end());
    return static_cast<ssize_t>(text.size());
  }
  std::unique_ptr<SignalSource> onSignal(int signal, Work handler) override {
    signals[signal] = std::move(handler);
    return nullptr;
  }
  void exit(int code) override { exitCodes.push_back(code); }
  void armWatchdog(double seconds, int code) override {
    if (watchdog.first == 0) watchdog = {seconds, code};
  }
  void rearmWatchdog(double seconds, int code) override { watchdog = {seconds, code}; }

  // Returns the events of this type (empty: of any type), oldest first. Then forgets all events.
  std::vector<Json> takeEvents(const std::string& type = "") {
    std::vector<Json> events;
    for (const std::string& line : std::exchange(lines, {})) {
      Json event = Json::parse(line);
      if (type.empty() || event["type"] == type) events.push_back(std::move(event));
    }
    return events;
  }
  // Returns the only event of this type, or an empty object. Then forgets all events.
  Json takeEvent(const std::string& type) {
    const auto events = takeEvents(type);
    EXPECT_LE(events.size(), 1u) << type;
    return events.empty() ? Json::object() : events[0];
  }

  std::function<void()> beforeRead;
  Bytes input;
  std::size_t chunk = 1 << 16;  // bytes per read
  int interruptions = 0;        // this many reads fail with EINTR first
  std::vector<std::string> lines;
  std::map<int, Work> signals;
  std::vector<int> exitCodes;
  std::pair<double, int> watchdog;
};

struct FakeConnection final : TcpConnection {
  void setEndHandler(EndHandler handler) override { endHandler = std::move(handler); }
  void start() override { started = true; }
  void receive(std::size_t, ReceiveHandler handler) override { onReceive = std::move(handler); }
  void send(std::vector<SharedBytes> parts, SendHandler handler) override {
    Bytes whole;
    for (const SharedBytes& part : parts) whole.insert(whole.end(), part->begin(), part->end());
    sent.push_back(std::move(whole));
    onSent = std::move(handler);
  }
  void cancel() override { cancelled = true; }
  void reset() override { wasReset = true; }

  // The peer sends `text`. If `complete`, it then closes its side.
  void deliver(const std::string& text, bool complete = false) {
    const Bytes bytes(text.begin(), text.end());
    std::exchange(onReceive, nullptr)(bytes, complete, {});
  }
  void finishSend(std::error_code error = {}) { std::exchange(onSent, nullptr)(error); }

  EndHandler endHandler;
  ReceiveHandler onReceive;
  SendHandler onSent;
  std::vector<Bytes> sent;  // one entry per send
  bool started = false, cancelled = false, wasReset = false;
};

// The network with its one listener.
struct FakeNetwork final : Network, TcpListener, std::enable_shared_from_this<FakeNetwork> {
  std::shared_ptr<TcpListener> makeListener(const std::string&, std::uint16_t) override {
    return shared_from_this();
  }
  void setStateHandler(StateHandler handler) override { changed = std::move(handler); }
  void setConnectionHandler(ConnectionHandler handler) override { arrived = std::move(handler); }
  void start() override {}
  void acceptConnections() override { accepts = true; }
  std::uint16_t port() const override { return 4711; }
  void cancel() override { cancelled = true; }

  StateHandler changed;
  ConnectionHandler arrived;
  bool accepts = false, cancelled = false;
};

// For each submitted frame: the value of its time, and whether it must be a key frame.
using Submitted = std::vector<std::pair<std::int64_t, bool>>;

struct FakeSession : CompressionSession, CanFail {
  FakeSession(int width, int height, Failures& all)
      : CanFail(all), pool({width, height}, {}, PicturePool::make()), size{width, height} {}
  Status setProperty(SessionProperty, const PropertyValue&) override { return next("setProperty"); }
  Status prepareToEncodeFrames() override { return next("prepare"); }
  PixelBufferPool* pixelBufferPool() override { return next("getPool") == 0 ? &pool : nullptr; }
  Status encodeFrame(std::shared_ptr<PixelBuffer> buffer, RationalTime time, FrameProperties frame,
                     OutputHandler handler) override {
    submitted.emplace_back(time.value, frame.forceKeyFrame);
    const Status status = next("submit");
    if (status == 0) pending.emplace_back(std::move(buffer), std::move(handler));
    return status;
  }
  void completeFrames() override { onFlush(); }
  void invalidate() override { invalidated = true; }

  void answer(Status status, std::shared_ptr<const EncodedSample> sample, std::uint32_t flags = 0) {
    ASSERT_FALSE(pending.empty());
    const auto [buffer, handler] = std::move(pending.front());
    pending.pop_front();
    if (buffer && !buffer->fill()) return handler(fillingFailed, 0, nullptr);
    handler(status, flags, std::move(sample));
  }

  MemoryPixelBufferPool pool;
  PictureSize size;
  std::deque<std::pair<std::shared_ptr<PixelBuffer>, OutputHandler>> pending;
  Submitted submitted;
  int flushes = 0;
  Work onFlush = [this] { ++flushes; };
  bool invalidated = false;
};

struct FakeEncoders final : Encoders, CanFail {
  using CanFail::CanFail;
  Status createSession(SessionKind, int width, int height, const EncoderRequirements&,
                       std::shared_ptr<CompressionSession>& session) override {
    const Status status = next("createSession");
    if (status == 0)
      session = sessions.emplace_back(std::make_shared<FakeSession>(width, height, failures));
    return status;
  }
  void prepare(const EncoderSettings&, const EncoderSettings&) override {}
  void whenPrepared(Work work) override { prepared = std::move(work); }
  void warmUp(const EncoderSettings&, const EncoderSettings&) override {}
  void openAhead(const EncoderSettings& settings) override { ahead.push_back(settings); }
  std::vector<EncoderSettings> ahead;
  Work prepared;
  std::vector<std::shared_ptr<FakeSession>> sessions;
};

struct FakeImages final : ImageConverter, CanFail {
  using CanFail::CanFail;
  bool convert(const PictureView& from, const Picture& to, const PictureRectangle&) override {
    widths.push_back(to.size.width);
    // Reads the last byte of the first plane, which must be in valid memory.
    const auto& [samples, stride] = from.planes[0];
    lastByte = samples[(stride < 0 ? -stride : stride * from.size.height) - 1];
    return next("convert") == 0;
  }
  volatile std::uint8_t lastByte = 0;
  std::vector<std::int64_t> widths;  // of the pictures that were to be made
};

// Decodes a record to a picture of zeros, but fails if the first byte of the record is 0.
struct FakeDecoder final : FrameDecoder {
  Decoded decode(FrameEncoding, const PixelFormat& format, PictureSize size,
                 ByteView record) override {
    records.emplace_back(record.begin(), record.end());
    onDecode();
    if (record[0] == 0) return {};
    const std::size_t bytes = pictureBytes(format.layout, size);
    const std::shared_ptr<std::uint8_t[]> memory(new std::uint8_t[bytes]());
    return {memory, pictureAt<const std::uint8_t>(memory.get(), format, size)};
  }
  std::vector<Bytes> records;
  Work onDecode = [] {};
};

// What the last sound encoder was given.
struct FakeSound : CanFail {
  using CanFail::CanFail;
  SoundSettings settings = {};
  std::vector<std::int16_t> samples;  // of all channels
};

// Makes a packet for every 1024 samples, and one more when it is flushed.
struct FakeSoundEncoder final : SoundEncoder {
  explicit FakeSoundEncoder(FakeSound& owner) : all(owner) {}
  ByteView configuration() const override { return head; }
  int priming() const override { return 1024; }
  Status encode(std::span<const std::int16_t> samples, int, SoundPackets& packets) override {
    const std::int64_t before = length() / soundPacketSamples;
    all.samples.insert(all.samples.end(), samples.begin(), samples.end());
    packets.resize(
        packets.size() + static_cast<std::size_t>(length() / soundPacketSamples - before),
        Bytes(8));
    return all.next("encodeSound");
  }
  Status flush(SoundPackets& packets) override {
    packets.emplace_back(8);
    return all.next("flushSound");
  }
  std::int64_t length() const override {
    const auto& [source, track, channels, rate] = all.settings;
    return std::ssize(all.samples) / channels * track / source;
  }
  const Bytes head = {0x11, 0x90};
  FakeSound& all;
};

struct FakeWriter final : MovieWriter, CanFail {
  using CanFail::CanFail;
  bool canAdd(const FormatDescription&) const override { return next("canAdd") == 0; }
  bool addTrack(AacFormat) override { return next("addTrack") == 0; }
  bool startWriting(std::shared_ptr<const FormatDescription>, int) override {
    if (next("startWriting") == 0) state = WriterStatus::writing;
    return state == WriterStatus::writing;
  }
  WriterStatus status() const override { return state; }
  std::optional<std::string> error() const override { return problem; }
  bool isReadyForMoreMediaData() const override { return next("isReady") == 0; }
  bool append(const EncodedSample&, bool, MovieTiming timing) override {
    if (next("append") != 0) return false;
    timings.emplace_back(timing.time, timing.duration);
    return true;
  }
  bool append(ByteView) override {
    if (next("appendSound") != 0) return false;
    ++packets;
    return true;
  }
  void finishWriting(std::int64_t at, std::function<void()> handler) override {
    end = at;
    finished = std::move(handler);
  }
  MovieExtent extent() const override { return {timings.size(), end}; }
  MovieExtent synced() const override { return onDisk; }
  void rescue(RescueHandler handler) override { rescued = std::move(handler); }
  bool openLog(const std::string&, TakeLines lines, std::string&) override {
    takeLines = std::move(lines);
    return true;
  }
  std::optional<std::string> logError() const override { return std::nullopt; }
  std::optional<std::uint64_t> freeBytes() const override { return free; }
  void cancelWriting() override { state = WriterStatus::cancelled; }
  void complete(WriterStatus outcome) {
    state = outcome;
    std::exchange(finished, nullptr)();
  }

  WriterStatus state = WriterStatus::idle;
  std::optional<std::string> problem;
  std::vector<std::pair<std::int64_t, std::int64_t>> timings;
  int packets = 0;  // of sound
  std::int64_t end = -1;
  std::function<void()> finished;
  MovieExtent onDisk;
  RescueHandler rescued;
  TakeLines takeLines;
  std::optional<std::uint64_t> free;
};

struct FakeMovies final : Movies, CanFail {
  using CanFail::CanFail;
  std::shared_ptr<MovieWriter> createWriter(const std::string&, std::string& error) override {
    if (next("createWriter") != 0) {
      error = problem.value_or("Permission denied");
      return nullptr;
    }
    writers.push_back(std::make_shared<FakeWriter>(failures));
    writers.back()->problem = problem;
    writers.back()->free = free;
    return writers.back();
  }
  std::optional<std::string> problem;  // the error of `createWriter` and of new writers
  std::optional<std::uint64_t> free;
  std::vector<std::shared_ptr<FakeWriter>> writers;
};

struct FakeFiles final : FileManager, CanFail {
  using CanFail::CanFail;
  bool isNameUsed(const std::string&) const override { return next("exists") != 0; }
  bool move(const std::string& from, const std::string& to) override {
    if (next("move") != 0) return false;
    moves.emplace_back(from, to);
    return true;
  }
  void syncFolderOf(const std::string&) override {}
  void remove(const std::vector<std::string>& paths) override {
    removed.insert(removed.end(), paths.begin(), paths.end());
  }
  std::vector<std::pair<std::string, std::string>> moves;
  std::vector<std::string> removed;
};

}  // namespace lumora
