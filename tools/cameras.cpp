#include "tools/cameras.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <sstream>

#include "tools/programs.h"

namespace lumora::tools {
namespace {

std::string describeCamera(const std::string& device) {
  // ffmpeg fails even when it has printed the list. `true` hides that exit status.
  const std::string printed =
      outputOf("{ ffmpeg -hide_banner -nostdin -f v4l2 -list_formats all -i " +
               shellQuoted(device) + "; true; }");
  std::string text = device + "\n";
  const auto formats = parseCameraFormats(printed);
  for (const auto& [name, sizes] : formats)
    text += "  --format " + name + (sizes.empty() ? "" : " --size " + sizes) + "\n";
  if (!formats.empty()) return text;
  std::string reason;
  std::istringstream lines(printed);
  for (std::string line; std::getline(lines, line);) reason = line;  // the last line has it
  if (printed.find("Unsupported") != std::string::npos) reason = "ffmpeg can't read its formats";
  return text + "  " + reason + "\n";
}

}  // namespace

std::vector<CameraFormat> parseCameraFormats(const std::string& printed) {
  // "Raw       :     yuyv422 :           YUYV 4:2:2 : 640x480 1280x720"
  static const std::regex line(R"((?:Raw|Compressed) *: *(\S+) :.*: *(.*))");
  std::vector<CameraFormat> formats;
  for (std::sregex_iterator found(printed.begin(), printed.end(), line), end; found != end; ++found)
    if ((*found)[1] != "Unsupported") formats.push_back({(*found)[1], (*found)[2]});
  return formats;
}

std::string listCameras() {
  std::set<std::string> devices;
  for (const auto& entry : std::filesystem::directory_iterator("/dev"))
    if (entry.path().filename().string().starts_with("video")) devices.insert(entry.path());
  std::string text;
  for (const std::string& device : devices) text += describeCamera(device);
  return text.empty() ? "There is no camera in /dev.\n" : text;
}

std::vector<std::string> parseSoundDevices(const std::string& format, const std::string& printed) {
  // "* alsa_input.usb-1 [Blue Yeti] (audio)"; some versions of ffmpeg leave out "(audio)"
  static const std::regex line(R"((?:^|\n)[* ] (\S+) \[(.*)\])");
  std::vector<std::string> devices;
  for (std::sregex_iterator found(printed.begin(), printed.end(), line), end; found != end; ++found)
    if ((*found)[1] != "null")
      devices.push_back(format + ":" + found->str(1) + "  " + found->str(2));
  return devices;
}

std::string listSoundDevices() {
  std::ifstream cards("/proc/asound/cards");
  const bool hasCard =
      std::string(std::istreambuf_iterator(cards), {}).find('[') != std::string::npos;
  std::vector<std::string> formats = {"pulse"};
  // ALSA also lists plugins, which need no card. So it is asked only if there is one.
  if (hasCard) formats.emplace_back("alsa");
  std::string text;
  for (const std::string& format : formats)
    for (const std::string& device :
         parseSoundDevices(format, outputOf("ffmpeg -hide_banner -nostdin -sources " + format)))
      text += "--sound " + device + "\n";
  return text.empty() ? "There is no sound device.\n" : text;
}

}  // namespace lumora::tools
