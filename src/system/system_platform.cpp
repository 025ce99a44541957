#include "system/system_platform.h"

#include <time.h>

#include "codec/aac_encoder.h"
#include "codec/system_encoders.h"
#include "mp4/hybrid_movie_writer.h"
#include "picture/system_frame_decoder.h"
#include "picture/system_image_converter.h"
#include "system/asio_dispatch.h"
#include "system/asio_network.h"
#include "system/posix_file_manager.h"
#include "system/posix_process.h"

namespace lumora {
namespace {

// CLOCK_MONOTONIC.
class SystemClock final : public Clock {
 public:
  double uptime() const override {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
  }
};

}  // namespace

Platform makeSystemPlatform(const std::string& h264Encoder, const PixelFormat& frames) {
  const auto stateQueue = std::make_shared<AsioQueue>("lumora.video.state");
  Platform platform;
  platform.pictures = PicturePool::make();
  platform.stateQueue = stateQueue;
  platform.clock = std::make_shared<SystemClock>();
  platform.dispatch = std::make_shared<AsioDispatch>();
  platform.process = std::make_shared<PosixProcess>();
  platform.encoders = std::make_shared<SystemEncoders>(
      parseAllowedEncoders(h264Encoder), frames, stateQueue, platform.dispatch, platform.pictures);
  platform.network = std::make_shared<AsioNetwork>(stateQueue);
  platform.previewImages = std::make_shared<SystemImageConverter>();
  platform.recordingImages = std::make_shared<SystemImageConverter>();
  platform.decoder = std::make_shared<SystemFrameDecoder>(platform.pictures);
  platform.movies = std::make_shared<HybridMovies>();
  platform.files = makePosixFileManager();
  platform.openSound = AacEncoder::open;
  return platform;
}

}  // namespace lumora
