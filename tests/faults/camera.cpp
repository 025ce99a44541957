// Stands in for a camera. Linked into the V4L2 example, it answers the calls for "/dev/camera". It
// delivers the same picture of 320 x 240 again and again. Every third buffer holds broken
// bytes instead, and has the error flag.
//
//   CAMERA   a file with that picture: NAME.nv12 (601, limited range) or NAME.yuyv (709, full
//            range), both with rows padded to twice their length, or NAME.jpg

#include <fcntl.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdlib>
#include <ctime>
#include <deque>
#include <fstream>
#include <iterator>
#include <string>

namespace {

constexpr unsigned width = 320, height = 240;
constexpr unsigned bufferBytes = width * 2 * 2 * height;  // of padded YUYV, the largest
constexpr unsigned bufferCount = 3;

int memory = -1;  // of the buffers; also the camera's descriptor
std::deque<unsigned> queued;
bool isOn = false;

const std::string name = std::getenv("CAMERA");
const bool isNV12 = name.ends_with("nv12"), isYUYV = name.ends_with("yuyv");

std::ifstream file(name, std::ios::binary);
const std::string good(std::istreambuf_iterator<char>(file), {}), broken(good.size(), '\xFF');

void describe(v4l2_pix_format& asked) {
  asked.width = width;
  asked.height = height;
  asked.bytesperline = isNV12 ? width * 2 : width * 4;
  asked.pixelformat = isNV12 ? V4L2_PIX_FMT_NV12 : isYUYV ? V4L2_PIX_FMT_YUYV : V4L2_PIX_FMT_MJPEG;
  asked.sizeimage = static_cast<unsigned>(good.size());
  asked.colorspace = isNV12 ? V4L2_COLORSPACE_SRGB : V4L2_COLORSPACE_REC709;
  if (asked.priv != V4L2_PIX_FMT_PRIV_MAGIC) return;
  asked.ycbcr_enc = V4L2_YCBCR_ENC_DEFAULT;
  asked.quantization = isNV12 ? V4L2_QUANTIZATION_DEFAULT : V4L2_QUANTIZATION_FULL_RANGE;
}

int deliver(v4l2_buffer& buffer) {
  static unsigned delivered = 0;
  if (!isOn || queued.empty()) return -1;
  usleep(10'000);
  const bool isBroken = ++delivered % 3 == 0;
  buffer.index = queued.front();
  queued.pop_front();
  buffer.bytesused = static_cast<unsigned>(good.size());
  buffer.flags = V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC | (isBroken ? V4L2_BUF_FLAG_ERROR : 0);
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  buffer.timestamp = {now.tv_sec, now.tv_nsec / 1000};
  const char* bytes = (isBroken ? broken : good).data();
  return pwrite(memory, bytes, good.size(), off_t{buffer.index} * bufferBytes) > 0 ? 0 : -1;
}

int answer(unsigned long request, void* argument) {
  auto* const buffer = static_cast<v4l2_buffer*>(argument);  // for the requests that have one
  if (request == VIDIOC_QUERYCAP) {
    constexpr unsigned can = V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_STREAMING;
    static_cast<v4l2_capability*>(argument)->device_caps = can;
  } else if (request == VIDIOC_S_FMT) {
    describe(static_cast<v4l2_format*>(argument)->fmt.pix);
  } else if (request == VIDIOC_REQBUFS) {
    static_cast<v4l2_requestbuffers*>(argument)->count = bufferCount;
  } else if (request == VIDIOC_QUERYBUF) {
    buffer->length = bufferBytes;
    buffer->m.offset = buffer->index * bufferBytes;
  } else if (request == VIDIOC_QBUF) {
    queued.push_back(buffer->index);
  } else if (request == VIDIOC_STREAMON) {
    isOn = true;
  } else {
    return request == VIDIOC_DQBUF ? deliver(*buffer) : -1;
  }
  return 0;
}

}  // namespace

extern "C" {
int open(const char* path, int flags, ...) {
  if (std::string(path) != "/dev/camera") return openat(AT_FDCWD, path, flags, 0600);
  memory = memfd_create("camera", MFD_CLOEXEC);
  return ftruncate(memory, off_t{bufferCount} * bufferBytes) == 0 ? memory : -1;
}

int ioctl(int descriptor, unsigned long request, ...) noexcept {
  std::va_list list;
  va_start(list, request);
  void* const argument = va_arg(list, void*);
  va_end(list);
  return descriptor == memory ? answer(request, argument) : -1;
}
}
