#pragma once

#include "tests/unit/probe.h"

namespace lumora {

// A service on fakes that goes on by itself: encoders answer, clients acknowledge, the disk is
// quick.
struct FuzzedService {
  explicit FuzzedService(std::shared_ptr<FrameMemory> frameMemory = nullptr,
                         const std::string& frameFormat = "rgba");
  ~FuzzedService();  // lets it end, and looks at what it has said and how it has ended
  FuzzedService(const FuzzedService&) = delete;
  FuzzedService& operator=(const FuzzedService&) = delete;

  // Lets 10 ms pass, with everything that is due in them.
  void step();
  // Feeds a frame unless one is in flight.
  void frame();
  bool hasEnded() const { return !probe.process->exitCodes.empty(); }

  VideoEncoderProbe probe;
  std::shared_ptr<FakeConnection> client;

 private:
  std::uint64_t lastID_ = std::uint64_t{1} << 62;
};

// Stops the fuzzer there.
void require(bool held);

}  // namespace lumora
