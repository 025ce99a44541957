#pragma once

#include <string>
#include <vector>

namespace lumora {

constexpr const char* softwareEncoder = "libx264";

// Which encoder a user wants.
struct EncoderChoice {
  std::vector<std::string> names;  // of libavcodec's encoders, best first
  std::string preset = {};         // of a software encoder; empty: our own settings
  bool substitute = false;         // a session that hardware refuses is encoded in software
};

// `text` is auto (hardware where there is one, else software), hardware, software, or the name of a
// libavcodec encoder; "" is auto. A preset may follow: "software:ultrafast". Pure.
EncoderChoice parseEncoderChoice(const std::string& text);

}  // namespace lumora
