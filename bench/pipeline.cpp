#include "bench/pipeline.h"

#include <fcntl.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <stdexcept>
#include <thread>

#include "client/child_process.h"
#include "tools/programs.h"

namespace lumora::bench {
namespace {

using SteadyClock = std::chrono::steady_clock;

// Enlarges the program's input pipe to 1 MiB, as the helper does with its own.
void enlargeInput(pid_t process) {
  const std::string input = "/proc/" + std::to_string(process) + "/fd/0";
  const client::Descriptor pipe(open(input.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  // A program that has already ended has no input. `runPipeline` finds out how it ended.
  if (pipe.isOpen() && fcntl(pipe.get(), F_SETPIPE_SZ, 1 << 20) < 0)
    throw std::runtime_error("cannot enlarge the input pipe");
}

}  // namespace

PipelineReport runPipeline(const std::string& command, CameraClip& clip,
                           const std::vector<std::uint64_t>& numbers, int framesPerSecond) {
  std::signal(SIGPIPE, SIG_IGN);
  client::ChildProcess process({"/bin/sh", "", {"-c", "exec " + command}, {}});
  enlargeInput(process.pid());
  SteadyClock::time_point start;
  auto due = start;
  bool isWritten = true;
  for (const std::uint64_t number : numbers) {
    std::this_thread::sleep_until(due);
    isWritten = process.writeBytes(clip.next(number, 0));
    if (!isWritten) break;
    if (number == numbers.front()) start = due = SteadyClock::now();
    if (framesPerSecond > 0) due += std::chrono::microseconds(1'000'000 / framesPerSecond);
  }
  PipelineReport report;
  report.peakMegabytes = tools::peakMegabytes(process.pid());
  process.closeInput();
  while (const auto line = process.nextLine(client::Seconds(60))) report.output += *line + "\n";
  const auto end = process.wait(client::Seconds(10));
  if (!isWritten || !end || !end->isClean())
    throw std::runtime_error(command + " failed: " + report.output);
  report.cpuSeconds = end->cpuTime.count();
  report.wallSeconds = std::chrono::duration<double>(SteadyClock::now() - start).count();
  return report;
}

double measureSSIM(const std::string& path, CameraClip& clip,
                   const std::vector<std::uint64_t>& numbers, client::FrameSize size) {
  const std::string wanted = std::to_string(size.width) + ":" + std::to_string(size.height);
  const std::string camera =
      std::to_string(clip.size().width) + "x" + std::to_string(clip.size().height);
  const std::string filter =
      "[0]" + std::string(clip.uprightFilter()) + ",scale=" + wanted +
      ":force_original_aspect_ratio=decrease:flags=lanczos+accurate_rnd+full_chroma_int"
      ":in_color_matrix=bt709:out_color_matrix=bt709,pad=" +
      wanted +
      ":-1:-1,format=yuv420p,settb=1/60,setpts=N[source];"
      "[1]format=yuv420p,settb=1/60,setpts=N[made];[made][source]ssim";
  const std::string output =
      runPipeline("ffmpeg -nostdin -nostats -hide_banner -f rawvideo -pix_fmt " +
                      std::string(clip.formatName()) + " -r 60 -s " + camera + " -i pipe:0 -i " +
                      tools::shellQuoted(path) + " -filter_complex " + tools::shellQuoted(filter) +
                      " -f null - 2>&1",
                  clip, numbers)
          .output;
  const auto at = output.rfind(" All:");
  if (at == std::string::npos) throw std::runtime_error("ffmpeg printed no SSIM: " + output);
  return std::strtod(output.c_str() + at + 5, nullptr);
}

}  // namespace lumora::bench
