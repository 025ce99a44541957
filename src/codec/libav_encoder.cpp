#include "codec/libav_encoder.h"

extern "C" {
#include <libavutil/hwcontext.h>
#include <libavutil/log.h>
}

#include <algorithm>
#include <string_view>
#include <utility>
#include <vector>

#include "codec/allowed_encoders.h"
#include "codec/encoder_opening.h"
#include "codec/encoder_tuning.h"
#include "codec/memory_pixel_buffers.h"
#include "h264/memory_sample.h"
#include "h264/nal_units.h"
#include "h264/sequence_parameters.h"
#include "picture/encoder_picture.h"

namespace lumora {
namespace {

PixelLayout layoutOf(AVPixelFormat format) {
  return format == AV_PIX_FMT_NV12 ? PixelLayout::nv12 : PixelLayout::i420;
}

// The formats to try. A codec that lists its formats gets one: 4:2:0 in system memory, if possible
// in the layout of the frames. If it takes neither NV12 nor I420, it gets VAAPI's format, and NV12
// is uploaded. V4L2 lists no formats: only opening the encoder shows which one its driver takes.
std::vector<AVPixelFormat> inputFormats(const AVCodec& codec, PixelLayout frames) {
  const auto accepted = pixelFormats(codec);
  if (accepted.empty()) return {AV_PIX_FMT_NV12, AV_PIX_FMT_YUV420P};
  std::array planar = {AV_PIX_FMT_YUV420P, AV_PIX_FMT_NV12};
  if (layoutOf(planar[1]) == frames) std::swap(planar[0], planar[1]);
  for (const AVPixelFormat format : {planar[0], planar[1], AV_PIX_FMT_VAAPI}) {
    if (std::ranges::find(accepted, format) != accepted.end()) return {format};
  }
  return {};
}

// Makes `frame` keep `owner` alive. `owner` owns `memory`, which `frame` refers to.
template <typename Owner>
Status holdOnto(AVFrame& frame, std::uint8_t* memory, std::size_t size, Owner owner, int flags) {
  auto held = std::make_unique<Owner>(std::move(owner));
  const auto free = [](void* opaque, std::uint8_t*) { delete static_cast<Owner*>(opaque); };
  frame.buf[0] = av_buffer_create(memory, size, free, held.get(), flags);
  if (frame.buf[0] == nullptr) return AVERROR(ENOMEM);
  static_cast<void>(held.release());  // the frame has it now
  return 0;
}

// Makes `frame` refer to `planes`.
void setPlanes(AVFrame& frame, std::span<const PlaneView> planes) {
  for (std::size_t i = 0; i < planes.size(); ++i) {
    frame.data[i] = const_cast<std::uint8_t*>(planes[i].samples);
    frame.linesize[i] = static_cast<int>(planes[i].stride);
  }
}

// Gives `frame` planes in picture memory. Its format and size must be set.
Status usePictureMemory(AVFrame& frame, PicturePool& pictures) {
  const PixelLayout layout = layoutOf(static_cast<AVPixelFormat>(frame.format));
  const PictureSize size{frame.width, frame.height};
  const std::size_t bytes = pictureBytes(layout, size, rowAlignment);
  const PictureMemory memory = pictures.allocate(bytes);
  if (!memory) return AVERROR(ENOMEM);
  const PictureView picture = pictureAt(memory.get(), {layout}, size, rowAlignment);
  setPlanes(frame, picture.planes);
  return holdOnto(frame, memory.get(), bytes, memory, 0);
}

}  // namespace

Status LibavEncoder::open(const AVCodec& codec, const std::string& preset,
                          const PixelFormat& frames, const std::shared_ptr<PicturePool>& pictures,
                          const EncoderSettings& settings, std::unique_ptr<LibavEncoder>& encoder) {
  av_log_set_level(AV_LOG_QUIET);  // we report failures as events
  Status status = AVERROR(EINVAL);
  for (const AVPixelFormat format : inputFormats(codec, frames.layout)) {
    std::unique_ptr<LibavEncoder> made(new LibavEncoder(frames, pictures));
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
  borrowed_.reset(av_frame_alloc());
  if (!context_ || !packet_ || !borrowed_) return AVERROR(ENOMEM);
  context_->pix_fmt = format;
  int status = tune(*context_, preset, frames_.matrix, settings);
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
  Frame made(av_frame_alloc());
  if (!made) return AVERROR(ENOMEM);
  made->format = uploaded_ ? AV_PIX_FMT_NV12 : context_->pix_fmt;
  made->width = context_->width;
  made->height = context_->height;
  made->color_primaries = context_->color_primaries;
  made->color_trc = context_->color_trc;
  made->colorspace = context_->colorspace;
  made->color_range = context_->color_range;
  const int status = usePictureMemory(*made, *pictures_);
  if (status >= 0) picture_ = std::move(made);
  return status;
}

// Whether the encoder can read the picture where it lies. A driver may need other strides, or read
// the picture after the call. x264, OpenH264 and an upload copy it during the call. But OpenH264
// does not encode a picture with negative strides, and the upload may refuse it.
bool LibavEncoder::canBorrow(const PictureView& picture) const {
  if (picture.format.fullRange ||
      picture.format.layout != layoutOf(static_cast<AVPixelFormat>(picture_->format))) {
    return false;
  }
  const bool isUpright =
      std::ranges::none_of(picture.planes, [](PlaneView plane) { return plane.stride < 0; });
  const bool isX264 = std::string_view(context_->codec->name) == x264Encoder;
  return isX264 || (isUpright && (uploaded_ || !isHardware(*context_->codec)));
}

Status LibavEncoder::borrow(std::shared_ptr<PixelBuffer> buffer) {
  const PictureView picture = buffer->picture();
  const int status = av_frame_copy_props(borrowed_.get(), picture_.get());
  if (status < 0) return status;
  borrowed_->format = picture_->format;
  borrowed_->width = picture_->width;
  borrowed_->height = picture_->height;
  setPlanes(*borrowed_, picture.planes);
  return holdOnto(*borrowed_, borrowed_->data[0], 1, std::move(buffer), AV_BUFFER_FLAG_READONLY);
}

Status LibavEncoder::copy(const PictureView& picture) {
  // If the encoder still reads the last picture, the next one gets new memory.
  if (av_frame_is_writable(picture_.get()) == 0) {
    const Status status = allocatePicture();
    if (status < 0) return status;
  }
  const PixelLayout layout = layoutOf(static_cast<AVPixelFormat>(picture_->format));
  Picture destination{{.layout = layout}, picture.size};
  for (std::size_t i = 0; i < destination.planes.size(); ++i)
    destination.planes[i] = {picture_->data[i], picture_->linesize[i]};
  fillEncoderPicture(picture, destination);
  return 0;
}

Status LibavEncoder::upload(const AVFrame& from) {
  av_frame_unref(uploaded_.get());
  const int status = av_hwframe_get_buffer(context_->hw_frames_ctx, uploaded_.get(), 0);
  if (status < 0) return status;
  return av_hwframe_transfer_data(uploaded_.get(), &from, 0);
}

Status LibavEncoder::encode(std::shared_ptr<PixelBuffer> buffer, bool forceKeyFrame,
                            std::shared_ptr<const EncodedSample>& sample) try {
  if (!buffer->fill()) return fillingFailed;
  const PictureView shown = buffer->picture();
  AVFrame* frame = nullptr;
  Status status = 0;
  if (canBorrow(shown)) {
    frame = borrowed_.get();
    status = borrow(std::move(buffer));
  } else {
    status = copy(shown);
    frame = picture_.get();  // after `copy`, which may replace it
    buffer.reset();
  }
  if (status >= 0 && uploaded_) {
    status = upload(*frame);
    frame = uploaded_.get();
  }
  if (status >= 0) status = encodeFrame(*frame, forceKeyFrame, sample);
  av_frame_unref(borrowed_.get());
  return status;
} catch (const std::bad_alloc&) {
  av_frame_unref(borrowed_.get());
  return AVERROR(ENOMEM);
}

// Once the encoder has failed, it is not called again: x264 would crash after a failed allocation.
Status LibavEncoder::encodeFrame(AVFrame& frame, bool forceKeyFrame,
                                 std::shared_ptr<const EncodedSample>& sample) {
  if (failure_ < 0) return failure_;
  frame.pts = nextTime_++;
  frame.pict_type = forceKeyFrame ? AV_PICTURE_TYPE_I : AV_PICTURE_TYPE_NONE;
  failure_ = avcodec_send_frame(context_.get(), &frame);
  if (failure_ >= 0) failure_ = avcodec_receive_packet(context_.get(), packet_.get());
  if (failure_ < 0) return failure_;
  auto made = makeSample({packet_->data, static_cast<std::size_t>(packet_->size)});
  av_packet_unref(packet_.get());
  // An encoder that ran out of memory while it opened may have lost its parameter sets.
  if (sequenceSet_.empty() || pictureSet_.empty()) return AVERROR_INVALIDDATA;
  sample = std::move(made);
  return 0;
}

Status LibavEncoder::encodeGrey(int pictures) {
  if (pictures == 0) return 0;
  std::shared_ptr<PixelBuffer> buffer;
  Status status = makeGreyBuffer({context_->width, context_->height}, frames_, pictures_, buffer);
  for (int i = 0; i < pictures && status == 0; ++i) {
    std::shared_ptr<const EncodedSample> sample;
    status = encode(buffer, /*forceKeyFrame=*/i == 0, sample);
  }
  return status;
}

// Parameter sets go into the format description. Access unit delimiters are dropped.
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

// Keeps a parameter set; false for any other unit. A set that has changed makes a new format.
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
