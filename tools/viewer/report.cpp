#include "tools/viewer/report.h"

#include <cstdio>

#include "tools/machine.h"
#include "tools/paced_run.h"
#include "tools/programs.h"

namespace lumora::viewer {
namespace {

constexpr const char* encoders[] = {"auto",     "software",     "h264_nvenc",
                                    "h264_qsv", "h264_v4l2m2m", "h264_vaapi"};

// The program's checksum, its libraries that decide which encoders it has, and the encoder that
// TAVO_H264_ENCODER asks for.
std::string describeHelper(const std::string& named) {
  const std::string program = named.empty() ? "\"${LUMORA_VIDEO_PATH:-$(command -v lumora-video)}\""
                                            : tools::shellQuoted(named);
  return tools::outputOf("{ sha256sum " + program + "; ldd " + program +
                         " | sed -nE 's/^\\s*(lib(avcodec|x264|openh264|va|mfx|vpl)\\S*) .*/\\1/p'"
                         " | tr '\\n' ' '; echo; echo \"TAVO_H264_ENCODER=$TAVO_H264_ENCODER\"; }");
}

std::string resultOf(const tools::RunReport& run) {
  if (run.deliveries.empty()) return run.error.empty() ? "no picture came" : run.error;
  char figures[96];
  std::snprintf(figures, sizeof figures, "%zu of %llu pictures, start %.0f ms, latency %.1f ms",
                run.deliveries.size(), static_cast<unsigned long long>(run.fed),
                run.readyMilliseconds, run.latency(0.5));
  return figures;
}

// Feeds a test card to a helper that gets this encoder as TAVO_H264_ENCODER. Returns the result and
// the helper's events.
std::string tryEncoder(const std::string& helper, const std::string& encoder) {
  std::string events;
  std::string result;
  try {
    tools::TestCard card({640, 360});
    const tools::RunOptions options{
        .helper = {.program = helper, .environment = {{"TAVO_H264_ENCODER", encoder}}},
        .framesPerSecond = 30,
        .seconds = 2,
        .clients = 1,
        .onEvent = [&](const std::string& line) { events += "    " + line + "\n"; }};
    result = resultOf(tools::runPaced(options, card));
  } catch (const std::exception& error) {
    result = error.what();
  }
  return "  " + encoder + ": " + result + "\n" + events;
}

}  // namespace

std::string makeReport(const std::string& helper, const std::vector<std::string>& events) {
  std::string text = "Machine and versions\n";
  for (const auto& [name, value] : tools::describeMachine())
    text.append("  ").append(name).append(": ").append(value).append("\n");
  text += "\nHelper\n" + describeHelper(helper) + "\nLast events of the run\n";
  for (const std::string& line : events) text.append("  ").append(line).append("\n");
  text += "\nEncoders, each with a test card of 640x360 at 30 pictures a second for two seconds\n";
  for (const char* encoder : encoders) text += tryEncoder(helper, encoder);
  return text;
}

}  // namespace lumora::viewer
