#include "tests/unit/probe.h"

namespace lumora {

VideoEncoderProbe::VideoEncoderProbe(Configuration configuration,
                                     std::shared_ptr<FrameMemory> frameMemory) {
  service = std::make_shared<VideoEncoder>(
      configuration, Platform{pictures, queue, clock, dispatch, process, network, encoders, images,
                              movies, files, decoder, std::move(frameMemory)});
  forgetWork = {nullptr, [state = queue, other = dispatch, files = movies](void*) {
                  state->clear();
                  for (const auto& one : other->queues) one->clear();
                  for (const auto& writer : files->writers) {
                    writer->finished = nullptr;
                    writer->rescued = nullptr;
                  }
                }};
}

void VideoEncoderProbe::feed(std::uint64_t id, int width, int height) {
  ASSERT_TRUE(service->raw.admit());
  const auto size = static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * 4;
  service->encode(makeRawFrame(pictures->allocate(size), {width, height}, id, clock->now));
}

}  // namespace lumora
