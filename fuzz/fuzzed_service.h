#pragma once

#include "tests/unit/probe.h"

namespace lumora {

// A service that runs on the unit tests' fakes, with one client.
struct FuzzedService {
  explicit FuzzedService(std::shared_ptr<FrameMemory> frameMemory = nullptr,
                         const std::string& frameFormat = "rgba");
  ~FuzzedService();  // ends the service, and checks its exit status and its events
  FuzzedService(const FuzzedService&) = delete;
  FuzzedService& operator=(const FuzzedService&) = delete;

  // Lets 10 ms pass and does the work that is then due. Encoders answer, the client gets and
  // acknowledges at most one frame, and movies are completed.
  void step();
  // Feeds a frame unless one is in flight.
  void frame();
  bool hasEnded() const { return !probe.process->exitCodes.empty(); }

  VideoEncoderProbe probe;
  std::shared_ptr<FakeConnection> client;

 private:
  void acknowledge();

  std::uint64_t lastID_ = std::uint64_t{1} << 62;
};

// Aborts unless `held`, so that the fuzzer reports its input.
void require(bool held);

}  // namespace lumora
