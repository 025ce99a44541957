#include "tools/ffmpeg_source.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "tools/shell.h"
#include "tools/test_card.h"

namespace lumora::tools {
namespace {

bool isDevice(const std::string& input) {
  std::error_code error;
  return std::filesystem::is_character_file(input, error);
}

}  // namespace

FfmpegSource::FfmpegSource(const std::string& input, client::FrameSize size, int framesPerSecond)
    : size_(size), isCamera_(isDevice(input)), frame_(size.bytes()) {
  const std::string picture = std::to_string(size.width) + ":" + std::to_string(size.height);
  const std::string rate = std::to_string(framesPerSecond);
  // A camera keeps the rate that it has, if it has not this one.
  const std::string kind = isCamera_ ? "-f v4l2 -framerate " + rate + " " : "-stream_loop -1 ";
  const std::string command = "ffmpeg -v error -nostdin " + kind + "-i " + shellQuoted(input) +
                              " -an -vf 'scale=" + picture +
                              ":force_original_aspect_ratio=decrease,pad=" + picture +
                              ":(ow-iw)/2:(oh-ih)/2,vflip" + (isCamera_ ? "" : ",fps=" + rate) +
                              "' -pix_fmt rgba -f rawvideo -";
  pipe_.reset(popen(command.c_str(), "re"));
  if (!pipe_) throw std::system_error(errno, std::generic_category(), "ffmpeg");
}

std::span<const std::uint8_t> FfmpegSource::next(std::uint64_t, double) {
  if (std::fread(frame_.data(), 1, frame_.size(), pipe_.get()) != frame_.size()) return {};
  return frame_;
}

std::unique_ptr<FrameSource> openInput(client::FrameSize size, int framesPerSecond) {
  const char* input = std::getenv("INPUT");  // NOLINT(concurrency-mt-unsafe): before any thread
  if (input == nullptr || *input == '\0') return std::make_unique<TestCard>(size);
  return std::make_unique<FfmpegSource>(input, size, framesPerSecond);
}

}  // namespace lumora::tools
