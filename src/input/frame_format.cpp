#include "input/frame_format.h"

#include <algorithm>
#include <string_view>
#include <vector>

#include "input/record_header.h"

namespace lumora {
namespace {

using enum FrameEncoding;

struct EncodingRule {
  std::string_view word;
  FrameEncoding encoding;
  PixelLayout layout;     // of the picture that sessions get
  unsigned bitsPerPixel;  // 0: varies
  bool needsDecoding;
  bool isRawYUV = false;  // the parent may name the matrix and the range
};

constexpr EncodingRule rules[] = {
    {"rgba", rgba, PixelLayout::rgba, 32, false},
    {"bgra", bgra, PixelLayout::bgra, 32, false},
    {"rgb24", rgb24, PixelLayout::bgra, 24, true},
    {"bgr24", bgr24, PixelLayout::bgra, 24, true},
    {"nv12", nv12, PixelLayout::nv12, 12, false, true},
    {"nv21", nv21, PixelLayout::i420, 12, true, true},
    {"i420", i420, PixelLayout::i420, 12, false, true},
    {"yuyv", yuyv, PixelLayout::i420, 16, true, true},
    {"uyvy", uyvy, PixelLayout::i420, 16, true, true},
    {"mjpeg", mjpeg, PixelLayout::i420, 0, true},
};

const EncodingRule& ruleOf(FrameEncoding encoding) {
  return *std::ranges::find(rules, encoding, &EncodingRule::encoding);
}

// The words between the commas, empty ones included.
std::vector<std::string_view> splitAtCommas(std::string_view text) {
  std::vector<std::string_view> words;
  for (;;) {
    const auto comma = text.find(',');
    words.push_back(text.substr(0, comma));
    if (comma == std::string_view::npos) return words;
    text.remove_prefix(comma + 1);
  }
}

FrameFormat defaultsOf(const EncodingRule& rule) {
  const bool isPlainRGB = isRGB(rule.layout) && !rule.needsDecoding;
  return {.encoding = rule.encoding,
          .topFirst = !isPlainRGB,
          .pixels = {.layout = rule.layout,
                     .matrix = isRGB(rule.layout) ? ColourMatrix::bt709 : ColourMatrix::bt601,
                     .fullRange = isCompressed(rule.encoding)}};
}

// A property of a format. It has one of two values, and each value has a word. The text of a format
// may have one of the two words, or neither.
template <typename Value>
struct Choice {
  std::string_view words[2];
  Value values[2];
  Value& chosen;
  bool isOpen;

  // Chooses the value that has this word. False if neither has it, or if the property is fixed or
  // already chosen.
  bool take(std::string_view word) {
    const auto* found = std::ranges::find(words, word);
    if (found == std::end(words) || !isOpen) return false;
    chosen = values[found - words];
    isOpen = false;
    return true;
  }
};

}  // namespace

std::optional<FrameFormat> parseFrameFormat(const std::string& text) {
  const auto words = splitAtCommas(text);
  const auto* rule = std::ranges::find(rules, words.front(), &EncodingRule::word);
  if (rule == std::end(rules)) return std::nullopt;
  FrameFormat format = defaultsOf(*rule);
  Choice<bool> order{{"top", "bottom"}, {true, false}, format.topFirst, true};
  Choice<ColourMatrix> matrix{{"bt601", "bt709"},
                              {ColourMatrix::bt601, ColourMatrix::bt709},
                              format.pixels.matrix,
                              rule->isRawYUV};
  Choice<bool> range{{"full", "limited"}, {true, false}, format.pixels.fullRange, rule->isRawYUV};
  for (std::size_t i = 1; i < words.size(); ++i) {
    if (!order.take(words[i]) && !matrix.take(words[i]) && !range.take(words[i]))
      return std::nullopt;
  }
  return format;
}

bool needsDecoding(FrameEncoding encoding) { return ruleOf(encoding).needsDecoding; }

bool isCompressed(FrameEncoding encoding) { return ruleOf(encoding).bitsPerPixel == 0; }

std::uint64_t uncompressedBytes(FrameEncoding encoding, PictureSize size) {
  return static_cast<std::uint64_t>(size.width * size.height) * ruleOf(encoding).bitsPerPixel / 8;
}

std::uint64_t referenceBytes(FrameEncoding encoding) {
  return isCompressed(encoding) ? 2 * referenceFieldBytes : referenceFieldBytes;
}

bool isPictureLength(FrameEncoding encoding, PictureSize size, std::uint64_t bytes) {
  constexpr std::uint64_t fewest = 2;                             // a JPEG's first marker
  constexpr std::uint64_t mostOfSmall = std::uint64_t{64} << 10;  // allowed even for a tiny picture
  if (!isCompressed(encoding)) return bytes == uncompressedBytes(encoding, size);
  const auto most = std::max(uncompressedBytes(FrameEncoding::yuyv, size), mostOfSmall);
  return bytes >= fewest && bytes <= most;
}

}  // namespace lumora
