#pragma once

// Everything that the service uses of the machine, as one value. The program fills it with the real
// implementations (see system_platform.h). The tests fill it with fakes.

#include "base/picture_memory.h"
#include "platform/dispatch.h"
#include "platform/encoders.h"
#include "platform/file_manager.h"
#include "platform/frame_decoder.h"
#include "platform/frame_memory.h"
#include "platform/image.h"
#include "platform/movie_writer.h"
#include "platform/network.h"
#include "platform/process.h"
#include "platform/sound.h"

namespace lumora {

struct Platform {
  std::shared_ptr<PicturePool> pictures;  // memory of raw frames and encoder buffers
  std::shared_ptr<SerialQueue> stateQueue;
  std::shared_ptr<Clock> clock;
  std::shared_ptr<Dispatch> dispatch;
  std::shared_ptr<Process> process;
  std::shared_ptr<Network> network;
  std::shared_ptr<Encoders> encoders;
  // One converter for each kind of session, because both kinds may convert at the same time.
  std::shared_ptr<ImageConverter> previewImages;
  std::shared_ptr<ImageConverter> recordingImages;
  std::shared_ptr<Movies> movies;
  std::shared_ptr<FileManager> files;
  std::shared_ptr<FrameDecoder> decoder = {};
  OpenSound openSound = {};
  std::shared_ptr<FrameMemory> frameMemory = {};  // null unless the parent shares memory
};

}  // namespace lumora
