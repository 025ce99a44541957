// Records what a V4L2 camera shows, if it delivers NV12, YUYV or JPEG pictures.
//
//   v4l2 DEVICE FOLDER [SECONDS]
//
// This was compiled. It was run with a stand-in for a camera's driver, but not with a camera.

#include <fcntl.h>
#include <linux/videodev2.h>
#include <lumora/helper.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <string>
#include <system_error>

using namespace lumora::client;

constexpr std::uint32_t capture = V4L2_BUF_TYPE_VIDEO_CAPTURE;

void require(bool done, const char* what) {
  if (!done) throw std::system_error(errno, std::generic_category(), what);
}

v4l2_buffer bufferOf(std::uint32_t index) {
  v4l2_buffer buffer{};
  buffer.index = index;
  buffer.type = capture;
  buffer.memory = V4L2_MEMORY_MMAP;
  return buffer;
}

// Asks for one format after the other. A driver that lacks the format chooses another instead.
v4l2_pix_format choosePicture(int device) {
  for (const std::uint32_t wanted : {V4L2_PIX_FMT_NV12, V4L2_PIX_FMT_YUYV, V4L2_PIX_FMT_MJPEG}) {
    v4l2_format answer{};
    answer.type = capture;
    answer.fmt.pix.width = 1280;
    answer.fmt.pix.height = 720;
    answer.fmt.pix.pixelformat = wanted;
    answer.fmt.pix.priv = V4L2_PIX_FMT_PRIV_MAGIC;  // enables the fields that `formatOf` reads
    const bool isTaken = ioctl(device, VIDIOC_S_FMT, &answer) == 0;
    if (isTaken && answer.fmt.pix.pixelformat == wanted) return answer.fmt.pix;
  }
  throw std::runtime_error("the camera has neither NV12 nor YUYV nor JPEG pictures");
}

// If the driver does not say what the samples mean, the kernel's defaults apply.
FrameFormat formatOf(const v4l2_pix_format& picture) {
  if (picture.pixelformat == V4L2_PIX_FMT_MJPEG) return {FrameEncoding::mjpeg};
  std::uint32_t matrix = picture.ycbcr_enc, range = picture.quantization;
  if (matrix == V4L2_YCBCR_ENC_DEFAULT) matrix = V4L2_MAP_YCBCR_ENC_DEFAULT(picture.colorspace);
  if (range == V4L2_QUANTIZATION_DEFAULT)
    range = V4L2_MAP_QUANTIZATION_DEFAULT(false, picture.colorspace, matrix);
  const bool isNV12 = picture.pixelformat == V4L2_PIX_FMT_NV12;
  const bool is709 = matrix == V4L2_YCBCR_ENC_709 || matrix == V4L2_YCBCR_ENC_XV709;
  const bool isFull = range == V4L2_QUANTIZATION_FULL_RANGE;
  return {.encoding = isNV12 ? FrameEncoding::nv12 : FrameEncoding::yuyv,
          .matrix = is709 ? ColourMatrix::bt709 : ColourMatrix::bt601,
          .range = isFull ? ColourRange::full : ColourRange::limited};
}

// The driver's buffers, which it fills from now on.
std::vector<const std::uint8_t*> startStream(int device) {
  v4l2_requestbuffers request{};
  request.count = 4;
  request.type = capture;
  request.memory = V4L2_MEMORY_MMAP;
  require(ioctl(device, VIDIOC_REQBUFS, &request) == 0, "VIDIOC_REQBUFS");
  std::vector<const std::uint8_t*> buffers;
  while (buffers.size() < request.count) {
    v4l2_buffer buffer = bufferOf(static_cast<std::uint32_t>(buffers.size()));
    require(ioctl(device, VIDIOC_QUERYBUF, &buffer) == 0, "VIDIOC_QUERYBUF");
    void* const memory = mmap(nullptr, buffer.length, PROT_READ | PROT_WRITE, MAP_SHARED, device,
                              static_cast<off_t>(buffer.m.offset));
    require(memory != MAP_FAILED, "mmap");
    require(ioctl(device, VIDIOC_QBUF, &buffer) == 0, "VIDIOC_QBUF");
    buffers.push_back(static_cast<const std::uint8_t*>(memory));
  }
  require(ioctl(device, VIDIOC_STREAMON, &request.type) == 0, "VIDIOC_STREAMON");
  return buffers;
}

// Cameras deliver empty and broken buffers, too.
bool isWhole(const v4l2_buffer& filled, const v4l2_pix_format& picture) {
  if ((filled.flags & V4L2_BUF_FLAG_ERROR) != 0) return false;
  if (picture.pixelformat != V4L2_PIX_FMT_MJPEG) {
    const bool isNV12 = picture.pixelformat == V4L2_PIX_FMT_NV12;
    return filled.bytesused >= picture.bytesperline * picture.height * (isNV12 ? 3 : 2) / 2;
  }
  const FrameSize size{static_cast<int>(picture.width), static_cast<int>(picture.height)};
  return filled.bytesused > 2 && filled.bytesused <= formatOf(picture).bytes(size);
}

void copy(const std::uint8_t* samples, std::size_t bytes, const v4l2_pix_format& from, Frame& to) {
  if (from.pixelformat == V4L2_PIX_FMT_MJPEG) return to.copyFrom({samples, bytes});
  const std::ptrdiff_t stride = from.bytesperline;
  // The second plane of NV12 begins below the last row of the first.
  const SourcePlane planes[] = {{samples, stride}, {samples + stride * from.height, stride}};
  to.copyFrom(std::span(planes, from.pixelformat == V4L2_PIX_FMT_NV12 ? 2 : 1));
}

Uptime::time_point capturedAt(const v4l2_buffer& buffer) {
  const auto clock = buffer.flags & V4L2_BUF_FLAG_TIMESTAMP_MASK;
  if (clock != V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC) return Uptime::now();
  const auto [seconds, microseconds] = buffer.timestamp;
  return Uptime::time_point(std::chrono::seconds(seconds) +
                            std::chrono::microseconds(microseconds));
}

int main(int argc, char** argv) try {
  if (argc < 3) throw std::runtime_error("usage: v4l2 DEVICE FOLDER [SECONDS]");
  const Seconds length(argc > 3 ? std::stod(argv[3]) : 5);
  const int device = open(argv[1], O_RDWR | O_CLOEXEC);
  require(device >= 0, argv[1]);
  v4l2_capability can{};
  require(ioctl(device, VIDIOC_QUERYCAP, &can) == 0, "VIDIOC_QUERYCAP");
  constexpr std::uint32_t needed = V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_STREAMING;
  if ((can.device_caps & needed) != needed)
    throw std::runtime_error("this device does not support video capture with streaming I/O");
  const v4l2_pix_format picture = choosePicture(device);
  const FrameSize size{static_cast<int>(picture.width), static_cast<int>(picture.height)};
  Helper helper({.frameSize = size, .format = formatOf(picture)});
  const auto buffers = startStream(device);
  Take take = helper.startTake({.path = std::filesystem::absolute(argv[2]) / "take.mp4"});
  const auto end = take.startedAt() + length;
  for (std::uint64_t lastID = 0; Uptime::now() < end;) {
    pollfd camera{device, POLLIN, 0};
    if (poll(&camera, 1, 1000) <= 0) continue;  // no picture for a second
    v4l2_buffer filled = bufferOf(0);
    require(ioctl(device, VIDIOC_DQBUF, &filled) == 0, "VIDIOC_DQBUF");
    // Skips a broken buffer, and a picture for which no slot is free.
    if (auto frame = isWhole(filled, picture) ? helper.acquireFrame(size) : std::nullopt) {
      copy(buffers.at(filled.index), filled.bytesused, picture, *frame);
      lastID = std::max(lastID + 1, frameID(capturedAt(filled)));
      helper.publish(*std::move(frame), lastID);
    }
    require(ioctl(device, VIDIOC_QBUF, &filled) == 0, "VIDIOC_QBUF");
  }
  take.stop();
  const auto saved = take.waitForEnd(Seconds(10));
  if (!saved) throw std::runtime_error("the take did not end in 10 s");
  std::printf("%s: %.3f s %s\n", saved->path.c_str(), saved->duration.count(),
              saved->error.c_str());
  return saved->state == TakeState::saved ? 0 : 1;
} catch (const std::exception& error) {
  std::fprintf(stderr, "%s\n", error.what());
  return 1;
}
