#pragma once

// The cameras and the sound devices of this machine, as ffmpeg sees them.

#include <string>
#include <vector>

namespace lumora::tools {

struct CameraFormat {
  std::string name;   // ffmpeg's, for `CameraWish::format`
  std::string sizes;  // "640x480 1280x720", or ranges such as "{32-1920, 2}x{32-1080, 2}"
};

// The formats that ffmpeg lists for "-list_formats all", except those that ffmpeg can't read.
// Pure.
std::vector<CameraFormat> parseCameraFormats(const std::string& printed);

// The formats and sizes of each camera, for people. A camera that can't be read has ffmpeg's reason
// instead.
std::string listCameras();

// The sound devices in what ffmpeg prints for "-sources" of a format, without "null". Each begins
// with the argument for `Microphone`; a description follows. Pure.
std::vector<std::string> parseSoundDevices(const std::string& format, const std::string& printed);

// The sound devices, for people.
std::string listSoundDevices();

}  // namespace lumora::tools
