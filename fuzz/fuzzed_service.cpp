#include "fuzz/fuzzed_service.h"

#include <cstdlib>

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
  if (client->onSent && !client->cancelled) client->finishSend();
  probe.run();
}

void FuzzedService::frame() {
  if (!probe.isRawBusy()) probe.feed(++lastID_);
}

}  // namespace lumora
