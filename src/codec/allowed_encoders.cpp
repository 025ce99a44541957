#include "codec/allowed_encoders.h"

#include <algorithm>

namespace lumora {

EncoderChoice parseEncoderChoice(const std::string& text) {
  const auto colon = std::min(text.find(':'), text.size());
  const std::string wanted = text.substr(0, colon);
  EncoderChoice choice;
  if (colon < text.size()) choice.preset = text.substr(colon + 1);
  const bool automatic = wanted.empty() || wanted == "auto";
  choice.software = automatic || wanted == "software" || wanted == softwareEncoder;
  if (automatic || wanted == "hardware") {
    choice.hardware = {"h264_videotoolbox", "h264_nvenc", "h264_qsv", "h264_v4l2m2m", "h264_vaapi"};
  } else if (!choice.software) {
    choice.hardware = {wanted};
  }
  return choice;
}

}  // namespace lumora
