#pragma once

extern "C" {
#include <libavformat/avformat.h>
}

#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "base/bytes.h"

namespace lumora {

struct MovieContents {
  bool opened = false;
  std::int64_t duration = 0;  // of the stream
  std::vector<std::int64_t> times, durations;
  int keyframes = 0;
};

// What libavformat reads of a movie. Only packets count that carry a whole sample of the tests.
inline MovieContents readMovie(ByteView bytes) {
  av_log_set_level(AV_LOG_QUIET);
  const int file = memfd_create("movie", 0);
  const std::string path = "/proc/self/fd/" + std::to_string(file);
  MovieContents read;
  AVFormatContext* format = nullptr;
  read.opened =
      ::write(file, bytes.data(), bytes.size()) == std::ssize(bytes) &&
      avformat_open_input(&format, path.c_str(), av_find_input_format("mp4"), nullptr) == 0 &&
      format->nb_streams == 1;
  if (read.opened) read.duration = format->streams[0]->duration;
  AVPacket* packet = av_packet_alloc();
  for (; read.opened && av_read_frame(format, packet) == 0; av_packet_unref(packet)) {
    const bool whole =
        packet->size >= 8 && packet->data[5] == 0x11 && packet->data[packet->size - 1] == 0x11;
    if (!whole || (packet->flags & AV_PKT_FLAG_CORRUPT) != 0) continue;
    read.times.push_back(packet->pts);
    read.durations.push_back(packet->duration);
    read.keyframes += (packet->flags & AV_PKT_FLAG_KEY) != 0 ? 1 : 0;
  }
  av_packet_free(&packet);
  avformat_close_input(&format);
  close(file);
  return read;
}

}  // namespace lumora
