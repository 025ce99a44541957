// The reader: splits standard input into records. It hands commands and frames to the state queue,
// and sound to the queue of `SoundInput`. It blocks in `read` on a thread of its own. It also reads
// the payloads of frames that it drops, so encoding never slows the parent down. Decoding does:
// this thread decodes the formats that no session takes, and reads nothing meanwhile.

#include <array>
#include <cstring>
#include <new>

#include "app/video_encoder.h"
#include "base/big_endian.h"
#include "base/out_of_memory.h"
#include "base/text.h"
#include "encode/encoder_failure.h"
#include "input/record_header.h"

namespace lumora {

void VideoEncoder::readFrames() {
  const auto endSound = [this] {
    if (sound) sound->end();
  };
  try {
    std::array<std::uint8_t, recordHeaderBytes> bytes{};
    while (readExactly(bytes)) {
      const RecordHeader header = decodeRecordHeader(bytes);
      if (header.isCommand()) {
        readCommand(header);
      } else if (sound && header.isSound()) {
        readSound(header);
      } else {
        readFrame(header);
      }
    }
    endSound();
  } catch (const std::exception& error) {
    bestEffort(endSound);
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
  // Waits for a slot, unless the command before got none. So if the state queue hangs, the reader
  // waits only once and still reaches the end of the input. There it learns that the parent is
  // gone, and ends the process.
  const bool hasSlot = commandsAreLate ? commandSlots.try_acquire()
                                       : commandSlots.try_acquire_for(commandSlotTimeout);
  commandsAreLate = !hasSlot;
  raw.commandRead();
  platform.stateQueue->async(weakly([hasSlot, payload = std::move(payload)](VideoEncoder& self) {
    if (hasSlot) self.commandSlots.release();
    self.recordingCommand(payload);
    self.raw.commandHandled();
  }));
}

void VideoEncoder::readSound(const RecordHeader& header) {
  Bytes pcm(sound->mayAdd(header.id, header.length) ? header.length : 0);
  if (pcm.empty() || !readExactly(pcm)) throw EncoderFailure::message("invalid sound record");
  sound->add(header.id, std::move(pcm));
}

void VideoEncoder::readFrame(const RecordHeader& header) {
  const FrameEncoding encoding = configuration.frameFormat.encoding;
  const bool isReference = platform.frameMemory && header.length == referenceBytes(encoding);
  if (!isValidFrame(header, lastFrameID) ||
      (!isReference && !isPictureLength(encoding, header.size(), header.length))) {
    throw EncoderFailure::message("invalid raw frame header");
  }
  RecordPicture picture = isReference ? sharedPicture(header) : readPicture(header);
  lastFrameID = header.id;
  RawFrame frame{header.width, header.height, header.id, {}, uptime()};
  if (!raw.admit()) return logDropped({frame.id, frame.capturedAt});
  try {
    givePicture(frame, std::move(picture));
    platform.stateQueue->async(weakly(&VideoEncoder::encode, std::move(frame)));
  } catch (const std::bad_alloc&) {
    raw.release();  // the failure ends the take, which must not wait for this frame
    throw;
  }
}

// The state queue logs the frame, because it handles frames and commands in the order in which they
// were read. If the queue hangs, at most `maximumDropsAhead` frames wait, and the log ends with the
// last of them.
void VideoEncoder::logDropped(const ReadFrame& frame) {
  if (!raw.isLogged() || dropsAhead == maximumDropsAhead) return;
  const bool isLast = ++dropsAhead == maximumDropsAhead;
  platform.stateQueue->async(weakly([frame, isLast](VideoEncoder& self) {
    --self.dropsAhead;
    self.take.logFrame(frame, FrameOutcome::busy);
    const auto& movie = self.take.movie;
    if (isLast && movie && movie->log) movie->log->giveUp();
  }));
}

RecordPicture VideoEncoder::readPicture(const RecordHeader& header) {
  PictureMemory memory = allocatePicture(header.length);
  if (!readExactly({memory.get(), header.length})) {
    throw EncoderFailure::message("truncated raw frame");
  }
  return {std::move(memory), header.length};
}

RecordPicture VideoEncoder::sharedPicture(const RecordHeader& header) {
  const FrameEncoding encoding = configuration.frameFormat.encoding;
  Bytes reference(header.length);
  if (!readExactly(reference)) throw EncoderFailure::message("truncated raw frame");
  const auto offset = integerBE<std::uint64_t>(reference, 0);
  const std::uint64_t length = isCompressed(encoding)
                                   ? integerBE<std::uint64_t>(reference, referenceFieldBytes)
                                   : uncompressedBytes(encoding, header.size());
  if (!isPictureLength(encoding, header.size(), length) ||
      !isValidOffset(offset, length, platform.frameMemory->size())) {
    throw EncoderFailure::message("invalid raw frame header");
  }
  return {platform.frameMemory->pixels(header.id, offset), length, /*isShared=*/true};
}

PictureMemory VideoEncoder::allocatePicture(std::size_t bytes) {
  PictureMemory memory = platform.pictures->allocate(bytes);
  if (!memory) throw std::bad_alloc();
  return memory;
}

// Gives `frame` its picture. A frame that has to be decoded gets none if decoding fails, or if
// nobody needs it.
void VideoEncoder::givePicture(RawFrame& frame, RecordPicture picture) {
  const FrameFormat& format = configuration.frameFormat;
  const PictureSize size{frame.width, frame.height};
  if (!needsDecoding(format.encoding)) {
    frame.picture = pictureAt(picture.memory.get(), format.pixels, size);
    frame.rgba = std::move(picture.memory);
  } else if (raw.isNeeded()) {
    // Decodes a copy, because the parent could change the JPEG meanwhile.
    if (picture.isShared && isCompressed(format.encoding)) picture = copyOf(picture);
    auto decoded = platform.decoder->decode(format.encoding, format.pixels, size,
                                            {picture.memory.get(), picture.length});
    frame.picture = decoded.picture;
    frame.rgba = std::move(decoded.memory);
  }
  if (frame.rgba && !format.topFirst) frame.picture = upsideDown(frame.picture);
}

RecordPicture VideoEncoder::copyOf(const RecordPicture& picture) {
  PictureMemory copy = allocatePicture(picture.length);
  std::memcpy(copy.get(), picture.memory.get(), picture.length);
  return {std::move(copy), picture.length};
}

// State queue. The frame in flight is done. Begins the work that waited for that.
void VideoEncoder::releaseRaw() {
  raw.release();
  if (take.hasSessionOfAnotherTake()) take.resetRecordingSession();
  finishMovieIfReady();
}

}  // namespace lumora
