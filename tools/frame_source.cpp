#include "tools/frame_source.h"

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <system_error>

namespace lumora::tools {
namespace {

std::string environment(const char* name) {
  const char* value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): no code sets it
  return value == nullptr ? "" : value;
}

std::string text(client::FrameSize size, char between) {
  return std::to_string(size.width) + between + std::to_string(size.height);
}

// ffmpeg's options for a camera.
std::string cameraOptions(const std::string& rate, const CameraWish& wish) {
  std::string options = "-f v4l2 -framerate " + rate;
  if (wish.size) options += " -video_size " + text(*wish.size, 'x');
  if (!wish.format.empty()) options += " -input_format " + shellQuoted(wish.format);
  return options;
}

}  // namespace

std::string nv12Filters(client::FrameSize size) {
  const std::string picture = text(size, ':');
  return "scale=" + picture +
         ":force_original_aspect_ratio=decrease:flags=bicubic:param0=0:param1=0.5"
         ":out_color_matrix=bt709:out_range=tv,format=nv12,pad=" +
         picture + ":-1:-1";
}

CommandSource::CommandSource(const std::string& command, client::FrameSize size,
                             const client::FrameFormat& format, bool keepsTime)
    : size_(size),
      format_(format),
      keepsTime_(keepsTime),
      pipe_(command),
      frame_(format.bytes(size)) {}

std::span<const std::uint8_t> CommandSource::next(std::uint64_t, double) {
  const std::span bytes(reinterpret_cast<char*>(frame_.data()), frame_.size());
  for (std::size_t filled = 0; filled < bytes.size();) {
    const std::size_t count = pipe_.read(bytes.subspan(filled));
    if (count == 0) return {};
    filled += count;
  }
  return frame_;
}

std::unique_ptr<FrameSource> openInput(client::FrameSize size, int framesPerSecond,
                                       const CameraWish& wish) {
  const std::string input = environment("INPUT");
  if (input.empty()) return std::make_unique<TestCard>(size, framesPerSecond);
  std::error_code error;
  const bool isCamera = std::filesystem::is_character_file(input, error);
  const std::string rate = std::to_string(framesPerSecond);
  return std::make_unique<CommandSource>(
      "ffmpeg -v error -nostdin " + (isCamera ? cameraOptions(rate, wish) : "-stream_loop -1") +
          " -i " + shellQuoted(input) + " -an -vf " + nv12Filters(size) +
          (isCamera ? "" : ",fps=" + rate) + " -f rawvideo -",
      size, nv12BT709, isCamera);
}

client::HelperOptions helperFor(const FrameSource& source, client::HelperOptions options) {
  options.frameSize = source.size();
  options.format = source.format();
  return options;
}

client::FrameTransport frameTransport(client::FrameTransport fallback) {
  const std::string way = environment("FRAMES");
  if (way.empty()) return fallback;
  if (way == "memory") return client::FrameTransport::memory;
  if (way == "pipe") return client::FrameTransport::pipe;
  throw std::runtime_error("FRAMES is \"" + way + "\", but must be \"memory\" or \"pipe\"");
}

}  // namespace lumora::tools
