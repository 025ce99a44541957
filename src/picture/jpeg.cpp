#include "picture/jpeg.h"

// jpeglib.h needs this first.
#include <cstdio>

#include <jerror.h>
#include <jpeglib.h>
#include <libyuv.h>

#include <algorithm>
#include <array>
#include <csetjmp>
#include <tuple>

namespace lumora {
namespace {

constexpr std::size_t components = 3;
// A progressive picture may have many tiny scans. Each takes as long to decode as a whole picture.
constexpr int mostScans = 64;

using Planes = std::array<Plane, components>;

}  // namespace

// libjpeg reports an error by calling a function that must not return. Ours, `giveUp`, calls
// longjmp. No object with a destructor may be created between setjmp and longjmp.
class JpegDecoder::Library {
 public:
  Library() {
    state_.err = jpeg_std_error(&errors_.base);
    errors_.base.error_exit = [](j_common_ptr state) { giveUp(state); };
    errors_.base.emit_message = warn;
    errors_.base.output_message = [](j_common_ptr) {};
    progress_.progress_monitor = limitScans;
  }
  ~Library() { jpeg_destroy_decompress(&state_); }
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;

  // Whether this is a picture of `size` that can be decoded.
  bool readHeader(ByteView jpeg, PictureSize size) {
    if (setjmp(errors_.back) != 0) return false;
    jpeg_destroy_decompress(&state_);  // also frees the tables of the last picture
    jpeg_create_decompress(&state_);
    state_.progress = &progress_;
    jpeg_mem_src(&state_, jpeg.data(), jpeg.size());
    jpeg_read_header(&state_, TRUE);
    return state_.image_width == size.width && state_.image_height == size.height &&
           state_.num_components == int{components} && state_.jpeg_color_space == JCS_YCbCr &&
           hasUsableChroma();
  }

  bool hasFullChromaHeight() const {
    return component(0).v_samp_factor == component(1).v_samp_factor;
  }

  // `spare` has room for a row of luma.
  bool readPlanes(const Planes& planes, std::uint8_t* spare) {
    if (setjmp(errors_.back) != 0) return false;
    state_.raw_data_out = TRUE;
    state_.do_fancy_upsampling = FALSE;
    state_.out_color_space = JCS_YCbCr;
    jpeg_start_decompress(&state_);
    if (!hasEveryScan()) return false;
    while (state_.output_scanline < state_.output_height) readRows(planes, spare);
    return true;
  }

 private:
  struct Errors {
    jpeg_error_mgr base;
    std::jmp_buf back;
  };

  [[noreturn]] static void giveUp(j_common_ptr state) {
    std::longjmp(reinterpret_cast<Errors*>(state->err)->back, 1);
  }

  // A level below 0 is a warning. Most mean that a part of the picture is lost.
  static void warn(j_common_ptr state, int level) {
    const int code = state->err->msg_code;
    // Some cameras send extra bytes before a marker, or an unknown JFIF version number.
    const bool isHarmless = code == JWRN_EXTRANEOUS_DATA || code == JWRN_JFIF_MAJOR;
    if (level < 0 && !isHarmless) giveUp(state);
  }

  static void limitScans(j_common_ptr state) {
    if (reinterpret_cast<j_decompress_ptr>(state)->input_scan_number > mostScans) giveUp(state);
  }

  const jpeg_component_info& component(std::size_t i) const { return state_.comp_info[i]; }

  bool hasUsableChroma() const {
    const auto& [y, u, v] = std::tie(component(0), component(1), component(2));
    return u.h_samp_factor == v.h_samp_factor && u.v_samp_factor == v.v_samp_factor &&
           y.h_samp_factor == 2 * u.h_samp_factor &&
           (y.v_samp_factor == u.v_samp_factor || y.v_samp_factor == 2 * u.v_samp_factor);
  }

  // Whether all components are there and, in a progressive picture, all bits of all coefficients.
  bool hasEveryScan() const {
    for (std::size_t i = 0; i < components; ++i) {
      if (component(i).quant_table == nullptr) return false;
      if (state_.coef_bits != nullptr &&
          std::ranges::any_of(state_.coef_bits[i], [](int missing) { return missing != 0; })) {
        return false;
      }
    }
    return true;
  }

  // Reads one row of MCUs: `v_samp_factor` rows of blocks of each component. Samples below the
  // picture go to `spare`.
  void readRows(const Planes& planes, std::uint8_t* spare) {
    constexpr std::size_t mostRows = MAX_SAMP_FACTOR * DCTSIZE;
    JSAMPROW rows[components][mostRows];
    JSAMPARRAY image[components];
    const auto blockRow =
        state_.output_scanline / static_cast<JDIMENSION>(state_.max_v_samp_factor);
    for (std::size_t i = 0; i < components; ++i) {
      const auto blocks = static_cast<JDIMENSION>(component(i).v_samp_factor);
      const JDIMENSION first = blockRow * blocks;
      const JDIMENSION count = blocks * DCTSIZE;
      for (JDIMENSION row = 0; row < count; ++row) {
        const bool isInside = first + row < component(i).downsampled_height;
        rows[i][row] = isInside ? planes[i].samples + (first + row) * planes[i].stride : spare;
      }
      image[i] = rows[i];
    }
    jpeg_read_raw_data(&state_, image, static_cast<JDIMENSION>(state_.max_v_samp_factor * DCTSIZE));
  }

  jpeg_decompress_struct state_{};
  Errors errors_{};
  jpeg_progress_mgr progress_{};
};

JpegDecoder::JpegDecoder() : library_(std::make_unique<Library>()) {}
JpegDecoder::~JpegDecoder() = default;

bool JpegDecoder::decode(ByteView jpeg, const Picture& picture) {
  if (!library_->readHeader(jpeg, picture.size)) return false;
  const auto& [y, u, v] = picture.planes;
  spare_.resize(static_cast<std::size_t>(y.stride));
  if (!library_->hasFullChromaHeight()) return library_->readPlanes(picture.planes, spare_.data());
  const std::int64_t height = picture.size.height;
  chroma_.resize(static_cast<std::size_t>(2 * u.stride * height));
  const Plane fullU{chroma_.data(), u.stride};
  const Plane fullV{chroma_.data() + u.stride * height, v.stride};
  if (!library_->readPlanes({y, fullU, fullV}, spare_.data())) return false;
  for (const auto& [from, to] : {std::pair{fullU, u}, std::pair{fullV, v}}) {
    const auto stride = static_cast<int>(from.stride);
    const auto columns = static_cast<int>(picture.size.width / 2);
    const auto rows = static_cast<int>(height);
    libyuv::ScalePlane(from.samples, stride, columns, rows, to.samples, stride, columns, rows / 2,
                       libyuv::kFilterBox);
  }
  return true;
}

}  // namespace lumora
