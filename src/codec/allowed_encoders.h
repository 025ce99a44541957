#pragma once

#include <string>
#include <vector>

namespace lumora {

constexpr const char* softwareEncoder = "libx264";

// Which encoders a user allows.
struct EncoderChoice {
  std::vector<std::string> hardware;  // names of libavcodec's encoders, best first
  bool software = false;              // where no hardware is found, or until it is
  std::string preset = {};            // of a software encoder; empty: our own settings
};

// `text` is auto (hardware where there is one, else software), hardware, software, or the name of a
// libavcodec encoder; "" is auto. A preset may follow: "software:ultrafast". Pure.
EncoderChoice parseEncoderChoice(const std::string& text);

}  // namespace lumora
