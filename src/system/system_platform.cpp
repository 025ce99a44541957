#include "system/system_platform.h"

#include "codec/system_encoders.h"
#include "mp4/hybrid_movie_writer.h"
#include "picture/system_image_converter.h"
#include "system/asio_dispatch.h"
#include "system/asio_network.h"
#include "system/posix_file_manager.h"
#include "system/posix_process.h"
#include "system/system_clock.h"

namespace lumora {

Platform makeSystemPlatform(const std::string& h264Encoder) {
  const auto stateQueue = std::make_shared<AsioQueue>("lumora.video.state");
  Platform platform;
  platform.pictures = PicturePool::make();
  platform.stateQueue = stateQueue;
  platform.clock = std::make_shared<SystemClock>();
  platform.dispatch = std::make_shared<AsioDispatch>(stateQueue);
  platform.process = std::make_shared<PosixProcess>();
  platform.encoders = std::make_shared<LibavEncoders>(parseEncoderChoice(h264Encoder), stateQueue,
                                                      platform.dispatch, platform.pictures);
  platform.network = std::make_shared<AsioNetwork>(stateQueue);
  platform.images = std::make_shared<SystemImageConverter>();
  platform.movies = std::make_shared<HybridMovies>();
  platform.files = std::make_shared<PosixFileManager>();
  return platform;
}

}  // namespace lumora
