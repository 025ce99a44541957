#include "codec/libav_encoder.h"

extern "C" {
#include <libavutil/hwcontext.h>
#include <libavutil/imgutils.h>
#include <libavutil/log.h>
}

#include <algorithm>
#include <utility>
#include <vector>

#include "codec/encoder_tuning.h"
#include "codec/memory_pixel_buffers.h"
#include "h264/memory_sample.h"
#include "h264/nal_units.h"
#include "h264/sequence_parameters.h"
#include "picture/rgb_to_yuv.h"

namespace lumora {
namespace {

constexpr int planeAlignment = 64;  // bytes, of every row

// The formats to try. 4:2:0 in system memory comes first; VAAPI takes NV12 through an upload. V4L2
// lists no formats: only opening it shows which one its driver takes.
std::vector<AVPixelFormat> inputFormats(const AVCodec& codec) {
  const auto accepted = pixelFormats(codec);
  if (accepted.empty()) return {AV_PIX_FMT_NV12, AV_PIX_FMT_YUV420P};
  for (const AVPixelFormat format : {AV_PIX_FMT_YUV420P, AV_PIX_FMT_NV12, AV_PIX_FMT_VAAPI}) {
    if (std::ranges::find(accepted, format) != accepted.end()) return {format};
  }
  return {};
}

// Gives `frame`, whose format and size are set, planes in memory for pictures.
Status usePictureMemory(AVFrame& frame, PicturePool& pictures) {
  const auto format = static_cast<AVPixelFormat>(frame.format);
  const int size = av_image_get_buffer_size(format, frame.width, frame.height, planeAlignment);
  if (size < 0) return size;
  PictureMemory memory = pictures.allocate(static_cast<std::size_t>(size));
  if (!memory) return AVERROR(ENOMEM);
  const int filled = av_image_fill_arrays(frame.data, frame.linesize, memory.get(), format,
                                          frame.width, frame.height, planeAlignment);
  if (filled < 0) return filled;
  auto owner = std::make_unique<PictureMemory>(memory);
  const auto free = [](void* held, std::uint8_t*) { delete static_cast<PictureMemory*>(held); };
  frame.buf[0] =
      av_buffer_create(memory.get(), static_cast<std::size_t>(size), free, owner.get(), 0);
  if (frame.buf[0] == nullptr) return AVERROR(ENOMEM);
  static_cast<void>(owner.release());  // the frame has it now
  return 0;
}

}  // namespace

Status LibavEncoder::open(const AVCodec& codec, const std::string& preset,
                          const std::shared_ptr<PicturePool>& pictures,
                          const EncoderSettings& settings, std::unique_ptr<LibavEncoder>& encoder) {
  av_log_set_level(AV_LOG_QUIET);  // we report failures as events
  Status status = AVERROR(EINVAL);
  for (const AVPixelFormat format : inputFormats(codec)) {
    std::unique_ptr<LibavEncoder> made(new LibavEncoder(pictures));
    status = made->openFor(format, codec, preset, settings);
    if (status < 0) continue;
    encoder = std::move(made);
    return 0;
  }
  return status;
}

Status LibavEncoder::openFor(AVPixelFormat format, const AVCodec& codec, const std::string& preset,
                             const EncoderSettings& settings) {
  context_.reset(avcodec_alloc_context3(&codec));
  packet_.reset(av_packet_alloc());
  if (!context_ || !packet_) return AVERROR(ENOMEM);
  context_->pix_fmt = format;
  int status = tune(*context_, preset, settings);
  if (status >= 0 && format == AV_PIX_FMT_VAAPI) status = openHardwareFrames();
  if (status >= 0) status = avcodec_open2(context_.get(), &codec, nullptr);
  if (status >= 0) status = allocatePicture();
  if (status < 0) return status;
  for (const ByteView unit :
       splitAnnexB({context_->extradata, static_cast<std::size_t>(context_->extradata_size)})) {
    takeParameterSet(unit);
  }
  return 0;
}

Status LibavEncoder::openHardwareFrames() {
  AVBufferRef* created = nullptr;
  const int status = av_hwdevice_ctx_create(&created, AV_HWDEVICE_TYPE_VAAPI, nullptr, nullptr, 0);
  if (status < 0) return status;
  const BufferRef device(created);
  BufferRef frames(av_hwframe_ctx_alloc(device.get()));
  if (!frames) return AVERROR(ENOMEM);
  auto& properties = *reinterpret_cast<AVHWFramesContext*>(frames->data);
  properties.format = AV_PIX_FMT_VAAPI;
  properties.sw_format = AV_PIX_FMT_NV12;
  properties.width = context_->width;
  properties.height = context_->height;
  const int initialised = av_hwframe_ctx_init(frames.get());
  if (initialised < 0) return initialised;
  context_->hw_frames_ctx = frames.release();
  uploaded_.reset(av_frame_alloc());
  return uploaded_ ? 0 : AVERROR(ENOMEM);
}

Status LibavEncoder::allocatePicture() {
  picture_.reset(av_frame_alloc());
  if (!picture_) return AVERROR(ENOMEM);
  picture_->format = uploaded_ ? AV_PIX_FMT_NV12 : context_->pix_fmt;
  picture_->width = context_->width;
  picture_->height = context_->height;
  picture_->color_primaries = context_->color_primaries;
  picture_->color_trc = context_->color_trc;
  picture_->colorspace = context_->colorspace;
  picture_->color_range = context_->color_range;
  return usePictureMemory(*picture_, *pictures_);
}

Status LibavEncoder::load(const BufferPicture& shown) {
  // An encoder that still reads the last picture keeps its memory; the next one gets new memory.
  if (av_frame_is_writable(picture_.get()) == 0) {
    const Status status = allocatePicture();
    if (status < 0) return status;
  }
  const auto plane = [this](int i) { return Plane{picture_->data[i], picture_->linesize[i]}; };
  if (picture_->format == AV_PIX_FMT_NV12)
    convertToNV12(shown.view, shown.order, plane(0), plane(1));
  else
    convertToI420(shown.view, shown.order, plane(0), plane(1), plane(2));
  return 0;
}

Status LibavEncoder::upload() {
  av_frame_unref(uploaded_.get());
  const int status = av_hwframe_get_buffer(context_->hw_frames_ctx, uploaded_.get(), 0);
  if (status < 0) return status;
  return av_hwframe_transfer_data(uploaded_.get(), picture_.get(), 0);
}

Status LibavEncoder::encode(std::shared_ptr<PixelBuffer> buffer, bool forceKeyFrame,
                            std::shared_ptr<const EncodedSample>& sample) try {
  Status status = load(buffer->picture());
  buffer.reset();
  if (status >= 0 && uploaded_) status = upload();
  if (status < 0) return status;
  AVFrame& frame = uploaded_ ? *uploaded_ : *picture_;
  frame.pts = nextTime_++;
  frame.pict_type = forceKeyFrame ? AV_PICTURE_TYPE_I : AV_PICTURE_TYPE_NONE;
  status = avcodec_send_frame(context_.get(), &frame);
  if (status >= 0) status = avcodec_receive_packet(context_.get(), packet_.get());
  if (status < 0) return status;
  auto made = makeSample({packet_->data, static_cast<std::size_t>(packet_->size)});
  av_packet_unref(packet_.get());
  // An encoder that ran out of memory while it opened may have lost its parameter sets.
  if (sequenceSet_.empty() || pictureSet_.empty()) return AVERROR_INVALIDDATA;
  sample = std::move(made);
  return 0;
} catch (const std::bad_alloc&) {
  return AVERROR(ENOMEM);
}

Status LibavEncoder::encodeGrey(int pictures) {
  if (pictures == 0) return 0;
  std::shared_ptr<PixelBuffer> buffer;
  Status status = makeGreyBuffer(context_->width, context_->height, pictures_, buffer);
  for (int i = 0; i < pictures && status == 0; ++i) {
    std::shared_ptr<const EncodedSample> sample;
    status = encode(buffer, /*forceKeyFrame=*/i == 0, sample);
  }
  return status;
}

// Parameter sets travel in the format description. Access unit delimiters are dropped.
std::shared_ptr<const EncodedSample> LibavEncoder::makeSample(ByteView stream) {
  Bytes data;
  data.reserve(stream.size() + 64);
  for (const ByteView unit : splitAnnexB(stream)) {
    if (takeParameterSet(unit) || nalType(unit[0]) == NalType::accessUnitDelimiter) continue;
    appendLengthPrefixed(data, unit);
  }
  if (!format_) {
    format_ = std::make_shared<MemoryFormatDescription>(sequenceSet_, pictureSet_, context_->width,
                                                        context_->height, colour());
  }
  return std::make_shared<MemorySample>(std::move(data), format_);
}

ColourDescription LibavEncoder::colour() const {
  return {static_cast<std::uint16_t>(context_->color_primaries),
          static_cast<std::uint16_t>(context_->color_trc),
          static_cast<std::uint16_t>(context_->colorspace),
          context_->color_range == AVCOL_RANGE_JPEG};
}

// Whether `unit` is a parameter set. One that differs from the last makes a new format.
bool LibavEncoder::takeParameterSet(ByteView unit) {
  const NalType type = nalType(unit[0]);
  const bool sequence = type == NalType::sequenceParameterSet;
  if (!sequence && type != NalType::pictureParameterSet) return false;
  Bytes& kept = sequence ? sequenceSet_ : pictureSet_;
  Bytes set = sequence ? withUsabilityInformation(unit, colour()) : Bytes(unit.begin(), unit.end());
  if (kept == set) return true;
  kept = std::move(set);
  format_.reset();
  return true;
}

}  // namespace lumora
