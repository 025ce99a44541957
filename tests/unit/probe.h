#pragma once

// The service on a machine of fakes. The tests own the clock and turn the state queue by hand, so
// every rule about time, order and credit is tested without sleeping.

#include "app/video_encoder.h"
#include "tests/unit/fakes.h"
#include "tests/unit/samples.h"

namespace lumora {

// That `event` has these keys and values, whatever else it has.
inline void expectKeys(Json event, const Json& wanted) {
  for (const auto& [key, value] : wanted.items()) EXPECT_EQ(event[key], value) << key;
}

struct VideoEncoderProbe {
  explicit VideoEncoderProbe(Configuration configuration = {.token = "0123456789abcdef"},
                             std::shared_ptr<FrameMemory> frameMemory = nullptr);

  // Starts it and reports its listener ready; forgets the events.
  void becomeReady() {
    service->start();
    network->listener->changed(ListenerState::ready);
    encoders->chosen();
    process->takeEvents();
  }
  void restart() {
    *this = VideoEncoderProbe();
    becomeReady();
  }
  void tickAt(double uptime) {
    clock->now = uptime;
    dispatch->tick();
  }
  void signal(int number) {
    process->signals.at(number)();
    run();
  }
  std::shared_ptr<FakeConnection> connect() {
    const auto connection = std::make_shared<FakeConnection>();
    network->listener->arrived(connection);
    return connection;
  }
  std::shared_ptr<FakeConnection> connectClient() {
    const auto connection = connect();
    connection->deliver("{\"type\":\"hello\",\"token\":\"0123456789abcdef\"}\n");
    return connection;
  }
  // Admits and encodes one frame as the reader would.
  void feed(std::uint64_t id, int width = 640, int height = 360);
  FakeSession& lastSession() { return *encoders->sessions.back(); }
  // The last session answers its oldest frame, then the queues run.
  void answer(std::shared_ptr<const EncodedSample> sample, Status status = 0,
              std::uint32_t flags = 0) {
    lastSession().answer(status, std::move(sample), flags);
    run();
  }
  // Frame `id`, which the session answers with `sample`.
  void frame(std::uint64_t id, std::shared_ptr<const EncodedSample> sample) {
    feed(id);
    answer(std::move(sample));
  }
  // What the "error" event says that came since the last look.
  std::string error() { return process->takeEvent("error").value("message", ""); }
  // Runs the state queue and the takes' queues until all are empty.
  void run() {
    for (bool any = true; any;) {
      any = queue->run();
      for (const auto& other : std::vector(dispatch->queues)) any = other->run() || any;
    }
  }
  void command(const Json& command) { commandText(command.dump()); }
  void commandText(const std::string& text) {
    service->recordingCommand(Bytes(text.begin(), text.end()));
  }
  Json statistics() {
    clock->now += 1.0;
    process->takeEvents();
    service->emitStats(false);
    return process->takeEvent("stats");
  }
  bool isRawBusy() { return service->raw.isBusy(); }
  VideoEncoder& operator*() { return *service; }
  std::size_t peerCount() const { return service->peers.size(); }
  MovieRecorder* take() { return service->movie.get(); }
  static void setSession(VideoEncoder& of, std::shared_ptr<CompressionSession> session) {
    of.session = std::move(session);
  }
  Peer& onlyPeer() { return *service->peers.begin()->second; }

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

struct ServiceTest : testing::Test {
  void SetUp() override { probe.becomeReady(); }
  VideoEncoderProbe probe;
};

}  // namespace lumora
