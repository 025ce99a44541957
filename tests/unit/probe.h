#pragma once

// The service on a machine of fakes. The tests own the clock and run the queues by hand, so most
// rules about time, order and acknowledgements are tested without sleeping.

#include "app/video_encoder.h"
#include "tests/unit/fakes.h"
#include "tests/unit/samples.h"

namespace lumora {

// Expects these keys and values in `event`, which may have others, too.
inline void expectKeys(Json event, const Json& wanted) {
  for (const auto& [key, value] : wanted.items()) EXPECT_EQ(event[key], value) << key;
}

struct VideoEncoderProbe {
  explicit VideoEncoderProbe(Configuration configuration = {.token = "0123456789abcdef"},
                             std::shared_ptr<FrameMemory> frameMemory = nullptr) {
    const OpenSound openSound = [fake = sound](const SoundSettings& settings, auto& encoder) {
      fake->settings = settings;
      fake->samples.clear();
      encoder = std::make_unique<FakeSoundEncoder>(*fake);
      return fake->next("openSound");
    };
    service = std::make_shared<VideoEncoder>(
        configuration,
        Platform{pictures, queue, clock, dispatch, process, network, encoders, images, images,
                 movies, files, decoder, openSound, std::move(frameMemory)});
    forgetWork = {nullptr,
                  [state = queue, other = dispatch, files = movies, made = encoders](void*) {
                    state->clear();
                    for (const auto& one : other->queues) one->clear();
                    for (const auto& session : made->sessions) session->pending.clear();
                    for (const auto& writer : files->writers) {
                      writer->finished = nullptr;
                      writer->rescued = nullptr;
                    }
                  }};
  }

  // Starts the service and makes it ready, then forgets its events.
  void becomeReady() {
    service->start();
    network->changed(ListenerState::ready);
    encoders->prepared();
    process->takeEvents();
  }
  void restart(Configuration configuration = {}, std::shared_ptr<FrameMemory> memory = nullptr) {
    configuration.token = "0123456789abcdef";
    *this = VideoEncoderProbe(configuration, std::move(memory));
    becomeReady();
  }
  void tickAt(double uptime) {
    clock->now = uptime;
    tick();
  }
  void tick() {
    if (const Work due = std::exchange(queue->tick, nullptr)) due();
  }
  void signal(int number) {
    process->signals.at(number)();
    run();
  }
  std::shared_ptr<FakeConnection> connect() {
    const auto connection = std::make_shared<FakeConnection>();
    network->arrived(connection);
    return connection;
  }
  std::shared_ptr<FakeConnection> connectClient() {
    const auto connection = connect();
    connection->deliver("{\"type\":\"hello\",\"token\":\"01234567");
    connection->deliver("89abcdef\"}\n");
    return connection;
  }
  // Gives the service one frame of the default format, as the reader would. The sessions have not
  // answered it yet.
  void feed(std::uint64_t id, int width = 640, int height = 360) {
    ASSERT_TRUE(service->raw.admit());
    const auto rgba = pictures->allocate(static_cast<std::size_t>(width * height * 4));
    const Picture picture = pictureAt(rgba.get(), {}, {width, height});
    service->encode({width, height, id, rgba, clock->now, upsideDown(picture)});
  }
  // Adds a record of sound as the reader would, then runs the queues.
  void hear(double at, Bytes pcm) {
    service->sound->add(static_cast<std::uint64_t>(std::llround(at * 1e6)), std::move(pcm));
    run();
  }
  FakeSession& lastSession() { return *encoders->sessions.back(); }
  // The last session answers its oldest frame, then the queues run.
  void answer(std::shared_ptr<const EncodedSample> sample, Status status = 0,
              std::uint32_t flags = 0) {
    lastSession().answer(status, std::move(sample), flags);
    run();
  }
  // Feeds frame `id`, which the session answers with `sample`.
  void frame(std::uint64_t id, std::shared_ptr<const EncodedSample> sample) {
    feed(id);
    answer(std::move(sample));
  }
  // The message of the "error" event since the last look, or nothing. Forgets all events.
  std::string error() { return process->takeEvent("error").value("message", ""); }
  // Runs all queues and what they detach until no more work is due.
  void run() {
    for (bool any = true; any;) {
      any = queue->run();
      for (const auto& other : std::vector(dispatch->queues)) any = other->run() || any;
      any = dispatch->runDetached() || any;
    }
  }
  void runAt(double uptime) {
    clock->now = uptime;
    run();
  }
  void command(const Json& command) { commandText(command.dump()); }
  void commandText(const std::string& text) {
    service->recordingCommand(Bytes(text.begin(), text.end()));
  }
  void put(const auto& record) {
    process->input.insert(process->input.end(), record.begin(), record.end());
  }
  // Runs the reader until it ends, then the queues. Returns `error()`.
  std::string readAll() {
    dispatch->detached.at(0)();
    EXPECT_EQ(process->watchdog.first, 2.2);  // armed before the state queue runs
    run();
    return error();
  }
  Json statistics() {
    clock->now += 1.0;
    process->takeEvents();
    service->emitStats(false);
    return process->takeEvent("stats");
  }
  bool isRawBusy() { return service->raw.isBusy(); }
  VideoEncoder& operator*() { return *service; }
  MovieRecorder* take() { return service->take.movie.get(); }

  std::shared_ptr<Failures> failures = std::make_shared<Failures>();
  std::shared_ptr<PicturePool> pictures = PicturePool::make();
  std::shared_ptr<FakeClock> clock = std::make_shared<FakeClock>();
  std::shared_ptr<ManualQueue> queue = std::make_shared<ManualQueue>(clock->now);
  std::shared_ptr<FakeDispatch> dispatch = std::make_shared<FakeDispatch>(clock->now);
  std::shared_ptr<FakeProcess> process = std::make_shared<FakeProcess>(*failures);
  std::shared_ptr<FakeNetwork> network = std::make_shared<FakeNetwork>();
  std::shared_ptr<FakeEncoders> encoders = std::make_shared<FakeEncoders>(*failures);
  std::shared_ptr<FakeImages> images = std::make_shared<FakeImages>(*failures);
  std::shared_ptr<FakeDecoder> decoder = std::make_shared<FakeDecoder>();
  std::shared_ptr<FakeMovies> movies = std::make_shared<FakeMovies>(*failures);
  std::shared_ptr<FakeSound> sound = std::make_shared<FakeSound>(*failures);
  std::shared_ptr<FakeFiles> files = std::make_shared<FakeFiles>(*failures);
  std::shared_ptr<VideoEncoder> service;

  // When destroyed, clears the work that has not run. Otherwise there would be a cycle: the work
  // owns movies and the service, and they own the queues and fakes that hold the work.
  std::shared_ptr<void> forgetWork;
};

struct ServiceTest : testing::Test {
  void SetUp() override { probe.becomeReady(); }
  VideoEncoderProbe probe;
};

inline const std::string takeID = "6f9619ff-8b86-d011-b42d-00cf4fc964ff";
inline const std::string takePath = "/takes/a.mp4";

// Tests takes with fakes: sends commands, feeds one camera frame at a time, collects the events.
struct Takes : ServiceTest {
  std::vector<Json> send(const char* type, Json command) {
    command.emplace("type", type);
    command.emplace("id", takeID);
    probe.process->takeEvents();
    probe.command(command);
    return probe.process->takeEvents();
  }
  std::vector<Json> sendStart(Json extra = Json::object()) {
    extra.emplace("path", takePath);
    return send("record_start", extra);
  }
  void start(const Json& extra = Json::object()) {
    const auto events = sendStart(extra);
    ASSERT_EQ(events.size(), 1u);
    ASSERT_EQ(events[0]["state"], "starting") << events[0];
  }
  void stop(const Json& extra = Json::object()) {
    send("record_stop", extra);
    probe.run();
  }
  // Feeds a camera frame at uptime `at`. The sessions have not answered it yet.
  void feed(double at, int width = 640, int height = 360) {
    probe.clock->now = at;
    probe.feed(++lastID, width, height);
  }
  // Feeds a frame and answers it, as a key frame or not. Returns whether it was submitted.
  bool frame(double at, bool keyframe = false) {
    feed(at);
    if (probe.encoders->sessions.empty() || probe.lastSession().pending.empty()) return false;
    probe.answer(keyframe ? keySample() : deltaSample());
    return true;
  }
  void startWithFrame(const Json& extra = Json::object()) {
    start(extra);
    frame(1001.0, true);
  }
  FakeWriter& writer() { return *probe.movies->writers.back(); }
  // The events of this "state" since the last look.
  std::vector<Json> events(const std::string& state) {
    probe.run();
    auto all = probe.process->takeEvents("recording");
    std::erase_if(all, [&](const Json& event) { return event["state"] != state; });
    return all;
  }
  std::string failure() {
    const auto failed = events("failed");
    return failed.empty() ? "" : failed.front()["error"].get<std::string>();
  }
  // Lets the disk finish. Returns the "saved" event.
  Json complete() {
    writer().complete(WriterStatus::completed);
    return events("saved").at(0);
  }
  Json finish(const Json& extra = Json::object()) {
    stop(extra);
    return complete();
  }
  std::uint64_t lastID = 0;
};

}  // namespace lumora
