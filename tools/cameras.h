#pragma once

// The cameras and the sound devices of this machine, as ffmpeg sees them.

#include <string>
#include <vector>

namespace lumora::tools {

struct CameraFormat {
  std::string name;  // ffmpeg's, for `CameraWish::format`
  // "640x480 1280x720", or ranges with steps, such as "{32-1920, 2}x{32-1080, 2}". May be empty.
  std::string sizes;
};

// The formats in `printed`, which is what ffmpeg prints for "-list_formats all". Formats that
// ffmpeg can't read are left out. Pure.
std::vector<CameraFormat> parseCameraFormats(const std::string& printed);

// The formats and sizes of each camera, for people. For a camera that can't be read, the reason
// instead.
std::string listCameras();

// The sound devices in `printed`, which is what ffmpeg prints for "-sources" with `format` ("alsa"
// or "pulse"). The device "null" is left out. Each text begins with the argument for `Microphone`;
// a description follows. Pure.
std::vector<std::string> parseSoundDevices(const std::string& format, const std::string& printed);

// The sound devices, for people.
std::string listSoundDevices();

}  // namespace lumora::tools
