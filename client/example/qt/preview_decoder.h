#pragma once

// Decodes a helper's preview into pictures that Qt draws. One thread at a time.

#include <lumora/packets.h>

#include <QImage>
#include <memory>
#include <vector>

struct AVCodecContext;
struct AVFrame;
struct AVPacket;
struct SwsContext;

class PreviewDecoder {
 public:
  PreviewDecoder();  // throws std::runtime_error if libavcodec has no decoder for H.264
  ~PreviewDecoder();
  PreviewDecoder(const PreviewDecoder&) = delete;
  PreviewDecoder& operator=(const PreviewDecoder&) = delete;

  // The picture of a frame. Null for a configuration, and for a frame that can't be decoded.
  // Throws what `toAnnexB` throws.
  QImage decode(const lumora::client::Packet& packet);

 private:
  QImage toImage() const;

  AVCodecContext* decoder_;
  AVPacket* packet_;
  AVFrame* frame_;
  mutable SwsContext* converter_ = nullptr;
  std::vector<std::uint8_t> configuration_;  // goes in front of the next frame
};
