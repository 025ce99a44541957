#include "tests/unit/fakes.h"

#include <algorithm>
#include <cerrno>

#include "encode/picture_size.h"
#include "h264/annex_b.h"

namespace lumora {

bool ManualQueue::run() {
  for (bool any = false;; any = true) {
    if (!work_.empty()) {
      const Work work = std::move(work_.front());
      work_.pop_front();
      work();
    } else if (!later_.empty() && later_.begin()->first <= now_) {
      const Work work = std::move(later_.begin()->second);
      later_.erase(later_.begin());
      work();
    } else {
      return any;
    }
  }
}

std::shared_ptr<MovieWriter> FakeMovies::createWriter(const std::string&, std::string& error) {
  if (failures_.next(Call::createWriter) != 0) {
    error = problem.value_or("Permission denied");
    return nullptr;
  }
  writers.push_back(std::make_shared<FakeWriter>(failures_));
  writers.back()->problem = problem;
  return writers.back();
}

ssize_t FakeProcess::readInput(MutableByteView space) {
  if (interruptions > 0) {
    --interruptions;
    return -EINTR;
  }
  const std::size_t count = std::min({space.size(), chunk, input.size()});
  std::copy_n(input.begin(), count, space.begin());
  input.erase(input.begin(), input.begin() + static_cast<std::ptrdiff_t>(count));
  return static_cast<ssize_t>(count);
}

ssize_t FakeProcess::writeOutput(ByteView text) {
  if (const int error = failures_.next(Call::writeOutput); error != 0) return error;
  lines.emplace_back(text.begin(), text.end());
  return static_cast<ssize_t>(text.size());
}

std::vector<Json> FakeProcess::takeEvents() {
  std::vector<Json> events;
  for (const std::string& line : std::exchange(lines, {})) events.push_back(Json::parse(line));
  return events;
}

std::vector<Json> FakeProcess::takeEvents(const std::string& type) {
  std::vector<Json> events = takeEvents();
  std::erase_if(events, [&](const Json& event) { return event["type"] != type; });
  return events;
}

void FakeConnection::send(std::vector<SharedBytes> parts, SendHandler handler) {
  Bytes whole;
  for (const SharedBytes& part : parts) whole.insert(whole.end(), part->begin(), part->end());
  sent.push_back(std::move(whole));
  onSent = std::move(handler);
}

void FakeConnection::deliver(const std::string& text, bool complete) {
  const Bytes bytes(text.begin(), text.end());
  const ReceiveHandler handler = std::exchange(onReceive, nullptr);
  ASSERT_TRUE(handler) << "no read is armed";
  handler(bytes, complete, {});
}

void FakeConnection::finishSend(std::error_code error) {
  const SendHandler handler = std::exchange(onSent, nullptr);
  ASSERT_TRUE(handler) << "no send is outstanding";
  handler(error);
}

Status FakeSession::encodeFrame(std::shared_ptr<PixelBuffer> buffer, RationalTime time,
                                FrameProperties frame, OutputHandler handler) {
  submitted.emplace_back(time.value, frame.forceKeyFrame);
  if (const Status status = failures_.next(Call::submit); status != 0) return status;
  pending.push_back({std::move(buffer), time, frame.forceKeyFrame, std::move(handler)});
  return 0;
}

void FakeSession::answer(Status status, std::shared_ptr<const EncodedSample> sample,
                         std::uint32_t flags) {
  ASSERT_FALSE(pending.empty());
  const OutputHandler handler = std::move(pending.front().handler);
  pending.pop_front();
  handler(status, flags, std::move(sample));
}

Status FakeEncoders::createSession(SessionKind, std::int32_t width, std::int32_t height,
                                   const EncoderRequirements&,
                                   std::shared_ptr<CompressionSession>& session) {
  if (const Status status = failures_.next(Call::createSession); status != 0) return status;
  sessions.push_back(std::make_shared<FakeSession>(width, height, failures_));
  if (adjust) adjust(*sessions.back());
  session = sessions.back();
  return 0;
}

Configuration VideoEncoderProbe::testConfiguration() {
  Configuration configuration;
  configuration.token = "0123456789abcdef";
  return configuration;
}

VideoEncoderProbe::VideoEncoderProbe(Configuration configuration) {
  service = std::make_shared<VideoEncoder>(configuration, platform());
  forgetWork = {nullptr, [state = queue, other = dispatch, files = movies](void*) {
                  state->clear();
                  for (const auto& one : other->queues) one->clear();
                  for (const auto& writer : files->writers) writer->finished = nullptr;
                }};
}

void VideoEncoderProbe::becomeReady() {
  service->start();
  network->listener->changed(ListenerState::ready);
  encoders->opened();
  process->takeEvents();
}

void VideoEncoderProbe::run() {
  for (bool any = true; any;) {
    any = queue->run();
    for (const auto& other : std::vector(dispatch->queues)) any = other->run() || any;
  }
}

void VideoEncoderProbe::command(const Json& command) {
  const std::string text = command.dump();
  service->recordingCommand(Bytes(text.begin(), text.end()));
}

std::shared_ptr<FakeConnection> VideoEncoderProbe::connect() {
  const auto connection = std::make_shared<FakeConnection>();
  network->listener->arrived(connection);
  return connection;
}

std::shared_ptr<FakeConnection> VideoEncoderProbe::connectClient() {
  const auto connection = connect();
  connection->deliver("{\"type\":\"hello\",\"token\":\"0123456789abcdef\"}\n");
  return connection;
}

void VideoEncoderProbe::feed(std::uint64_t id, int width, int height) {
  ASSERT_TRUE(service->raw.admit());
  const auto size = static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * 4;
  service->encode({width, height, id, pictures->allocate(size), clock->now});
}

void VideoEncoderProbe::answerPreview(std::shared_ptr<const EncodedSample> sample) {
  lastSession().answer(0, std::move(sample));
  run();
}

Json VideoEncoderProbe::statistics() {
  clock->now += 1.0;
  process->takeEvents();
  service->emitStats(false);
  const auto events = process->takeEvents("stats");
  return events.empty() ? Json() : events.front();
}

}  // namespace lumora
