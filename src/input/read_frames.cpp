// The reader: splits standard input into records and hands them to the state queue. It blocks in
// `read` on a thread of its own, reads every payload whole (also of frames that nobody takes, so
// that encoding never slows the parent down). Of the service's state it touches `RawAdmission`
// only.

#include <array>
#include <new>

#include "app/video_encoder.h"
#include "base/big_endian.h"
#include "base/text.h"
#include "input/record_header.h"

namespace lumora {

void VideoEncoder::readFrames() {
  try {
    readRecords();
  } catch (const std::exception& error) {
    requestFailure(reasonOf(error));
  }
}

void VideoEncoder::readRecords() {
  std::array<std::uint8_t, recordHeaderBytes> bytes{};
  for (;;) {
    if (!readExactly(bytes)) return requestShutdown();
    const RecordHeader header = decodeRecordHeader(bytes);
    if (!(header.isCommand() ? readCommand(header) : readFrame(header))) return;
  }
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

bool VideoEncoder::readCommand(const RecordHeader& header) {
  Bytes payload(isValidCommand(header) ? header.length : 0);
  if (payload.empty() || !readExactly(payload)) {
    requestFailure("invalid recording command framing");
    return false;
  }
  // While the state queue stands still the reader goes on after one wait: the end of the input is
  // what ends a process whose parent is gone.
  const bool hasSlot = commandsAreLate ? commandSlots.try_acquire()
                                       : commandSlots.try_acquire_for(commandSlotTimeout);
  commandsAreLate = !hasSlot;
  platform.stateQueue->async(weakly([hasSlot, payload = std::move(payload)](VideoEncoder& self) {
    if (hasSlot) self.commandSlots.release();
    self.recordingCommand(payload);
  }));
  return true;
}

bool VideoEncoder::readFrame(const RecordHeader& header) {
  const bool isShared = platform.frameMemory && header.length == frameOffsetBytes;
  if (!isValidFrame(header, lastFrameID) || (!isShared && !header.carriesPixels())) {
    requestFailure("invalid raw frame header");
    return false;
  }
  auto rgba = isShared ? sharedPixels(header) : readPixels(header);
  if (!rgba) return false;
  lastFrameID = header.id;
  auto frame = std::make_shared<const RawFrame>(
      RawFrame{header.width, header.height, header.id, std::move(rgba), uptime()});
  if (raw.admit()) enqueue(std::move(frame));
  return true;
}

std::shared_ptr<const std::uint8_t[]> VideoEncoder::readPixels(const RecordHeader& header) {
  PictureMemory rgba = platform.pictures->allocate(header.length);
  if (!rgba) throw std::bad_alloc();
  if (readExactly({rgba.get(), header.length})) return rgba;
  requestFailure("truncated raw frame");
  return nullptr;
}

std::shared_ptr<const std::uint8_t[]> VideoEncoder::sharedPixels(const RecordHeader& header) {
  std::array<std::uint8_t, frameOffsetBytes> payload{};
  if (!readExactly(payload)) {
    requestFailure("truncated raw frame");
    return nullptr;
  }
  const auto offset = integerBE<std::uint64_t>(payload, 0);
  if (!isValidOffset(offset, header.pictureBytes(), platform.frameMemory->size())) {
    requestFailure("invalid raw frame header");
    return nullptr;
  }
  return platform.frameMemory->pixels(header.id, offset);
}

// The frame is the queue's alone: it goes as soon as that is done with it.
void VideoEncoder::enqueue(std::shared_ptr<const RawFrame> admitted) {
  try {
    platform.stateQueue->async(
        weakly([admitted = std::move(admitted)](VideoEncoder& self) { self.encode(*admitted); }));
  } catch (const std::bad_alloc&) {
    raw.release();  // the take that is to be finished now waits for no frame
    throw;
  }
}

// State queue: the frame in flight has left, so what waited for it can begin.
void VideoEncoder::releaseRaw() {
  raw.release();
  if (take.hasSessionOfAnotherTake()) take.resetRecordingSession();
  finishMovieIfReady();
}

}  // namespace lumora
