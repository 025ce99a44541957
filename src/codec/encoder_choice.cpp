#include "codec/encoder_choice.h"

#include <algorithm>

namespace lumora {
namespace {

std::vector<std::string> candidates(const std::string& wanted) {
  if (wanted == "software") return {softwareEncoder};
  if (!wanted.empty() && wanted != "auto" && wanted != "hardware") return {wanted};
  std::vector<std::string> names = {"h264_videotoolbox", "h264_nvenc", "h264_qsv", "h264_v4l2m2m",
                                    "h264_vaapi"};
  if (wanted != "hardware") names.emplace_back(softwareEncoder);
  return names;
}

}  // namespace

EncoderChoice parseEncoderChoice(const std::string& text) {
  const auto colon = std::min(text.find(':'), text.size());
  EncoderChoice choice{.names = candidates(text.substr(0, colon))};
  if (colon < text.size()) choice.preset = text.substr(colon + 1);
  choice.substitute = choice.names.size() > 1 && choice.names.back() == softwareEncoder;
  return choice;
}

}  // namespace lumora
