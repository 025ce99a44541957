#include "tests/unit/movie_reader.h"

extern "C" {
#include <libavformat/avformat.h>
}

#include <algorithm>
#include <memory>

namespace lumora {
namespace {

struct Source {
  ByteView bytes;
  std::int64_t position = 0;
};

int readSome(void* opaque, std::uint8_t* space, int size) {
  auto& [bytes, position] = *static_cast<Source*>(opaque);
  const auto count = std::min<std::int64_t>(size, std::ssize(bytes) - position);
  if (count <= 0) return AVERROR_EOF;
  std::copy_n(bytes.begin() + position, count, space);
  position += count;
  return static_cast<int>(count);
}

std::int64_t seekTo(void* opaque, std::int64_t offset, int whence) {
  auto& [bytes, position] = *static_cast<Source*>(opaque);
  if (whence == AVSEEK_SIZE) return std::ssize(bytes);
  if (whence == SEEK_CUR) offset += position;
  if (whence == SEEK_END) offset += std::ssize(bytes);
  return position = std::clamp<std::int64_t>(offset, 0, std::ssize(bytes));
}

void readPackets(AVFormatContext& format, MovieContents& read) {
  AVPacket* packet = av_packet_alloc();
  while (av_read_frame(&format, packet) == 0) {
    const bool whole =
        packet->size >= 8 && packet->data[5] == 0x11 && packet->data[packet->size - 1] == 0x11;
    if (whole && (packet->flags & AV_PKT_FLAG_CORRUPT) == 0) {
      read.times.push_back(packet->pts);
      read.durations.push_back(packet->duration);
      read.keyframes += (packet->flags & AV_PKT_FLAG_KEY) != 0 ? 1 : 0;
    }
    av_packet_unref(packet);
  }
  av_packet_free(&packet);
}

}  // namespace

MovieContents readMovie(ByteView bytes) {
  constexpr int bufferBytes = 4096;
  av_log_set_level(AV_LOG_QUIET);
  Source source{bytes};
  AVIOContext* input = avio_alloc_context(static_cast<unsigned char*>(av_malloc(bufferBytes)),
                                          bufferBytes, 0, &source, readSome, nullptr, seekTo);
  AVFormatContext* format = avformat_alloc_context();
  format->pb = input;
  MovieContents read;
  if (avformat_open_input(&format, "movie.mp4", nullptr, nullptr) == 0 && format->nb_streams == 1) {
    read.opened = true;
    read.duration = format->streams[0]->duration;
    readPackets(*format, read);
  }
  avformat_close_input(&format);
  av_freep(&input->buffer);
  avio_context_free(&input);
  return read;
}

}  // namespace lumora
