#include "fuzz/fuzzed_service.h"

#include <cstdlib>

#include "base/big_endian.h"

namespace lumora {

void require(bool held) {
  if (!held) std::abort();
}

FuzzedService::FuzzedService(std::shared_ptr<FrameMemory> frameMemory,
                             const std::string& frameFormat)
    : probe(options({}, {{"TAVO_VIDEO_TOKEN", "0123456789abcdef"},
                         {"TAVO_FRAME_FORMAT", frameFormat},
                         {"TAVO_SOUND", "8000x2"}})
                .value(),
            std::move(frameMemory)) {
  probe.becomeReady();
  client = probe.connectClient();
}

FuzzedService::~FuzzedService() {
  for (int i = 0; i < 10; ++i) step();
  if (!hasEnded()) probe.signal(15);
  step();
  probe.clock->now += 2;
  probe.run();
  require(hasEnded());
  for (const int code : probe.process->exitCodes) require(code == 0 || code == 1);
  for (const std::string& line : probe.process->lines) {
    require(line.size() <= 4096 && line.ends_with('\n') && Json::accept(line));
  }
}

void FuzzedService::step() {
  probe.clock->now += 0.01;
  probe.tick();
  probe.run();
  for (const auto& session : probe.encoders->sessions) {
    while (!session->pending.empty()) session->answer(0, keySample());
  }
  probe.run();
  for (const auto& writer : probe.movies->writers) {
    if (writer->finished) writer->complete(WriterStatus::completed);
  }
  if (client->onSent && !client->cancelled) {
    client->finishSend();
    acknowledge();
  }
  probe.run();
}

void FuzzedService::acknowledge() {
  ByteView frame = client->sent.back();
  constexpr std::uint8_t configuration = 1;
  if (frame[4] == configuration) frame = frame.subspan(4 + integerBE<std::uint32_t>(frame, 0));
  const auto id = std::to_string(integerBE<std::uint64_t>(frame, 5));
  client->deliver(R"({"type":"ack","frame_id":)" + id + "}\n");
}

void FuzzedService::frame() {
  if (!probe.isRawBusy()) probe.feed(++lastID_);
}

}  // namespace lumora
