#pragma once

#include <array>
#include <string>
#include <vector>

namespace lumora {

constexpr const char* x264Encoder = "libx264";
// Best first. An FFmpeg without GPL parts lacks the first.
inline constexpr std::array softwareEncoders = {x264Encoder, "libopenh264"};

// Which encoders the user allows.
struct AllowedEncoders {
  std::vector<std::string> hardware;  // names of libavcodec's encoders, best first
  bool software = false;              // used until hardware is found, and if hardware refuses
  std::string preset = {};            // of libx264; empty: our own settings
};

// `text` is auto (hardware if there is any, else software), hardware, software, or the name of a
// libavcodec encoder. An empty text means auto. A preset may follow: "software:ultrafast". Pure.
AllowedEncoders parseAllowedEncoders(const std::string& text);

}  // namespace lumora
