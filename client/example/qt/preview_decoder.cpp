#include "preview_decoder.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libswscale/swscale.h>
}

#include <algorithm>
#include <stdexcept>
#include <utility>

using namespace lumora::client;

PreviewDecoder::PreviewDecoder()
    : decoder_(avcodec_alloc_context3(avcodec_find_decoder(AV_CODEC_ID_H264))),
      packet_(av_packet_alloc()),
      frame_(av_frame_alloc()) {
  decoder_->thread_count = 1;  // more threads would hold pictures back
  if (avcodec_open2(decoder_, nullptr, nullptr) < 0)
    throw std::runtime_error("libavcodec has no decoder for H.264");
}

PreviewDecoder::~PreviewDecoder() {
  sws_freeContext(converter_);
  av_frame_free(&frame_);
  av_packet_free(&packet_);
  avcodec_free_context(&decoder_);
}

QImage PreviewDecoder::decode(const Packet& packet) {
  std::vector<std::uint8_t> bytes = toAnnexB(packet);
  if (packet.type == Packet::Type::configuration) {
    configuration_ = std::move(bytes);
    return {};
  }
  bytes.insert(bytes.begin(), configuration_.begin(), configuration_.end());
  configuration_.clear();
  if (av_new_packet(packet_, static_cast<int>(bytes.size())) < 0) return {};
  std::ranges::copy(bytes, packet_->data);
  const int status = avcodec_send_packet(decoder_, packet_);
  av_packet_unref(packet_);
  const bool hasPicture = status >= 0 && avcodec_receive_frame(decoder_, frame_) >= 0;
  return hasPicture ? toImage() : QImage();
}

QImage PreviewDecoder::toImage() const {
  const auto format = static_cast<AVPixelFormat>(frame_->format);
  converter_ = sws_getCachedContext(converter_, frame_->width, frame_->height, format,
                                    frame_->width, frame_->height, AV_PIX_FMT_RGB32, SWS_BILINEAR,
                                    nullptr, nullptr, nullptr);
  // The range is limited. The matrix is BT.709, unless the stream says BT.601.
  const bool is601 = frame_->colorspace == AVCOL_SPC_SMPTE170M;
  sws_setColorspaceDetails(converter_, sws_getCoefficients(is601 ? SWS_CS_ITU601 : SWS_CS_ITU709),
                           0, sws_getCoefficients(SWS_CS_DEFAULT), 1, 0, 1 << 16, 1 << 16);
  QImage image(frame_->width, frame_->height, QImage::Format_RGB32);
  std::uint8_t* const rows[] = {image.bits()};
  const int stride[] = {static_cast<int>(image.bytesPerLine())};
  sws_scale(converter_, frame_->data, frame_->linesize, 0, frame_->height, rows, stride);
  return image;
}
