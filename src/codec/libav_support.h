#pragma once

// Owners for libavcodec's handles.

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/buffer.h>
#include <libavutil/frame.h>
}

#include <memory>

namespace lumora {

struct FreeCodecContext {
  void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
};
struct FreeFrame {
  void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
struct FreePacket {
  void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};
struct FreeBufferRef {
  void operator()(AVBufferRef* buffer) const { av_buffer_unref(&buffer); }
};

using CodecContext = std::unique_ptr<AVCodecContext, FreeCodecContext>;
using Frame = std::unique_ptr<AVFrame, FreeFrame>;
using Packet = std::unique_ptr<AVPacket, FreePacket>;
using BufferRef = std::unique_ptr<AVBufferRef, FreeBufferRef>;

}  // namespace lumora
