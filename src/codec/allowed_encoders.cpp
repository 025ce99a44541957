#include "codec/allowed_encoders.h"

#include <algorithm>

namespace lumora {

AllowedEncoders parseAllowedEncoders(const std::string& text) {
  const auto colon = std::min(text.find(':'), text.size());
  const std::string wanted = text.substr(0, colon);
  AllowedEncoders allowed;
  if (colon < text.size()) allowed.preset = text.substr(colon + 1);
  const bool automatic = wanted.empty() || wanted == "auto";
  allowed.software = automatic || wanted == "software" || wanted == x264Encoder;
  if (automatic || wanted == "hardware") {
    allowed.hardware = {"h264_videotoolbox", "h264_nvenc", "h264_qsv", "h264_v4l2m2m",
                        "h264_vaapi"};
  } else if (!allowed.software) {
    allowed.hardware = {wanted};
  }
  return allowed;
}

}  // namespace lumora
