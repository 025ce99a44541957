#pragma once

extern "C" {
#include <libavformat/avformat.h>
}

#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "base/bytes.h"

namespace lumora {

struct MovieContents {
  bool opened = false;
  std::int64_t duration = 0, samples = 0;  // as the tables of the track say
  std::vector<std::int64_t> times, durations;
  int keyframes = 0;
  std::uint32_t skipped = 0;  // samples of sound at the beginning
};

// Reads one track of a movie with libavformat. Keeps only whole packets. A packet is whole if it
// has 0x11 in byte 5 (counted from 0) and in the last byte, as every sample of the tests has.
inline MovieContents readMovie(ByteView bytes, unsigned track = 0) {
  av_log_set_level(AV_LOG_QUIET);
  const int file = memfd_create("movie", 0);
  const std::string path = "/proc/self/fd/" + std::to_string(file);
  MovieContents read;
  AVFormatContext* format = nullptr;
  read.opened =
      ::write(file, bytes.data(), bytes.size()) == std::ssize(bytes) &&
      avformat_open_input(&format, path.c_str(), av_find_input_format("mp4"), nullptr) == 0 &&
      format->nb_streams > track;
  if (read.opened) {
    read.duration = format->streams[track]->duration;
    read.samples = format->streams[track]->nb_frames;
  }
  AVPacket* packet = av_packet_alloc();
  for (; read.opened && av_read_frame(format, packet) == 0; av_packet_unref(packet)) {
    if (packet->stream_index != static_cast<int>(track)) continue;
    const auto* skips = av_packet_get_side_data(packet, AV_PKT_DATA_SKIP_SAMPLES, nullptr);
    if (skips != nullptr) std::memcpy(&read.skipped, skips, sizeof read.skipped);
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
