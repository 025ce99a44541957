#pragma once

// Owners for libavcodec's handles, and every call that differs between FFmpeg 5.1, 6.1 and 7.1.

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/buffer.h>
#include <libavutil/frame.h>
}

#include <memory>
#include <span>

namespace lumora {

// libavcodec's functions that free a handle also clear the caller's pointer to it.
template <auto freeHandle>
struct FreeHandle {
  template <typename Handle>
  void operator()(Handle* handle) const {
    freeHandle(&handle);
  }
};

using CodecContext = std::unique_ptr<AVCodecContext, FreeHandle<avcodec_free_context>>;
using Frame = std::unique_ptr<AVFrame, FreeHandle<av_frame_free>>;
using Packet = std::unique_ptr<AVPacket, FreeHandle<av_packet_free>>;
using BufferRef = std::unique_ptr<AVBufferRef, FreeHandle<av_buffer_unref>>;

// The pixel formats that `codec` takes. Empty if libavcodec does not know them, but only the driver
// of a hardware encoder. Any thread.
inline std::span<const AVPixelFormat> pixelFormats(const AVCodec& codec) {
#if LIBAVCODEC_VERSION_INT >= AV_VERSION_INT(61, 13, 100)  // FFmpeg 7.1 deprecates `pix_fmts`
  const void* formats = nullptr;
  int count = 0;
  if (avcodec_get_supported_config(nullptr, &codec, AV_CODEC_CONFIG_PIX_FORMAT, 0, &formats,
                                   &count) < 0 ||
      formats == nullptr) {
    return {};
  }
  return {static_cast<const AVPixelFormat*>(formats), static_cast<std::size_t>(count)};
#else
  std::size_t count = 0;
  while (codec.pix_fmts != nullptr && codec.pix_fmts[count] != AV_PIX_FMT_NONE) ++count;
  return {codec.pix_fmts, count};
#endif
}

}  // namespace lumora
