// The reader: splits standard input into records and hands them to the state queue. It blocks in
// `read` on a thread of its own. It reads every payload whole, also of frames that are dropped, so
// encoding never slows the parent down.

#include <array>
#include <new>

#include "app/video_encoder.h"
#include "base/big_endian.h"
#include "base/text.h"
#include "encode/encoder_failure.h"
#include "input/record_header.h"

namespace lumora {

void VideoEncoder::readFrames() {
  try {
    std::array<std::uint8_t, recordHeaderBytes> bytes{};
    while (readExactly(bytes)) {
      const RecordHeader header = decodeRecordHeader(bytes);
      header.isCommand() ? readCommand(header) : readFrame(header);
    }
  } catch (const std::exception& error) {
    return requestFailure(reasonOf(error));
  }
  requestShutdown();
}

bool VideoEncoder::readExactly(MutableByteView space) {
  while (!space.empty()) {
    const ssize_t count = platform.process->readInput(space);
    if (count == -EINTR) continue;
    if (count <= 0) return false;
    space = space.subspan(static_cast<std::size_t>(count));
  }
  return true;
}

void VideoEncoder::readCommand(const RecordHeader& header) {
  Bytes payload(isValidCommand(header) ? header.length : 0);
  if (payload.empty() || !readExactly(payload)) {
    throw EncoderFailure::message("invalid recording command framing");
  }
  // When the state queue hangs, only the first command waits. The reader must reach the end of the
  // input: that is what ends the process when the parent is gone.
  const bool hasSlot = commandsAreLate ? commandSlots.try_acquire()
                                       : commandSlots.try_acquire_for(commandSlotTimeout);
  commandsAreLate = !hasSlot;
  platform.stateQueue->async(weakly([hasSlot, payload = std::move(payload)](VideoEncoder& self) {
    if (hasSlot) self.commandSlots.release();
    self.recordingCommand(payload);
  }));
}

void VideoEncoder::readFrame(const RecordHeader& header) {
  const bool isShared = platform.frameMemory && header.length == frameOffsetBytes;
  if (!isValidFrame(header, lastFrameID) || (!isShared && !header.carriesPixels())) {
    throw EncoderFailure::message("invalid raw frame header");
  }
  auto rgba = isShared ? sharedPixels(header) : readPixels(header);
  lastFrameID = header.id;
  RawFrame frame{header.width, header.height, header.id, std::move(rgba), uptime()};
  if (!raw.admit()) return;
  try {
    platform.stateQueue->async(weakly(&VideoEncoder::encode, std::move(frame)));
  } catch (const std::bad_alloc&) {
    raw.release();  // otherwise the take that this failure ends would wait for the frame
    throw;
  }
}

std::shared_ptr<const std::uint8_t[]> VideoEncoder::readPixels(const RecordHeader& header) {
  PictureMemory rgba = platform.pictures->allocate(header.length);
  if (!rgba) throw std::bad_alloc();
  if (!readExactly({rgba.get(), header.length})) {
    throw EncoderFailure::message("truncated raw frame");
  }
  return rgba;
}

std::shared_ptr<const std::uint8_t[]> VideoEncoder::sharedPixels(const RecordHeader& header) {
  std::array<std::uint8_t, frameOffsetBytes> payload{};
  if (!readExactly(payload)) throw EncoderFailure::message("truncated raw frame");
  const auto offset = integerBE<std::uint64_t>(payload, 0);
  if (!isValidOffset(offset, header.pictureBytes(), platform.frameMemory->size())) {
    throw EncoderFailure::message("invalid raw frame header");
  }
  return platform.frameMemory->pixels(header.id, offset);
}

// State queue. No frame is in flight any more, so work that waited for this can begin.
void VideoEncoder::releaseRaw() {
  raw.release();
  if (take.hasSessionOfAnotherTake()) take.resetRecordingSession();
  finishMovieIfReady();
}

}  // namespace lumora
