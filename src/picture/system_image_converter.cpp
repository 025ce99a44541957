#include "picture/system_image_converter.h"

#include <libyuv.h>

#include <algorithm>
#include <cmath>

namespace lumora {
namespace {

constexpr std::size_t keptResamplers = 4;  // for luma and for chroma, up to two passes each
// Beyond this a kernel's weights are too small for one pass in fixed point. With two passes,
// samples are off by at most 1 at every size.
constexpr double largestReduction = 8;

struct Extent {
  std::int64_t begin;
  std::int64_t size;
};

// One axis of a plane. The picture is `source` pixels long there. It is scaled to the area `pixels`
// of the destination, and `samples` are the plane's samples in that area. A sample stands for
// `pixelsPerSample` pixels. It lies `centre` pixels after the middle of its first pixel.
SampleGrid gridOf(std::int64_t source, Extent pixels, Extent samples, int pixelsPerSample,
                  double centre) {
  const double scale = static_cast<double>(source) / static_cast<double>(pixels.size);
  const auto first = static_cast<double>(samples.begin * pixelsPerSample - pixels.begin);
  // Pixel p of the area is at (p + 0.5) × scale - 0.5 in the source.
  const double firstPixel = (first + centre + 0.5) * scale - 0.5;
  return {.source = source / pixelsPerSample,
          .destination = samples.size,
          .step = scale,
          .origin = (firstPixel - centre) / pixelsPerSample};
}

// A chroma sample lies where H.264 has it by default: in the left one of its two columns, and
// halfway between its two rows.
PlaneGeometry geometryOf(const PlaneShape& shape, PictureSize source, const PictureRectangle& area,
                         const PictureRectangle& samples) {
  const double betweenRows = (shape.rows - 1) / 2.0;
  return {.channels = shape.channels,
          .x = gridOf(source.width, {area.left, area.size.width},
                      {samples.left, samples.size.width}, shape.columns, 0),
          .y = gridOf(source.height, {area.top, area.size.height},
                      {samples.top, samples.size.height}, shape.rows, betweenRows)};
}

bool isCopy(const SampleGrid& grid) {
  return grid.step == 1 && grid.origin == 0 && grid.source == grid.destination;
}

void copyPlane(PlaneView source, Plane destination, std::int64_t columns, std::int64_t rows,
               int channels) {
  const auto stride = static_cast<int>(source.stride);
  const auto to = static_cast<int>(destination.stride);
  const auto width = static_cast<int>(columns);
  const auto height = static_cast<int>(rows);
  if (channels == 4) {  // exchanges red and blue
    libyuv::ABGRToARGB(source.samples, stride, destination.samples, to, width, height);
  } else {
    libyuv::CopyPlane(source.samples, stride, destination.samples, to, width * channels, height);
  }
}

}  // namespace

bool SystemImageConverter::convert(const PictureView& source, const Picture& destination,
                                   const PictureRectangle& area) {
  std::size_t i = 0;
  for (const PlaneShape& shape : planesOf(source.format.layout)) {
    const PictureRectangle samples = samplesIn(area, shape);
    const Plane whole = destination.planes[i];
    const Plane inside{whole.samples + samples.top * whole.stride + samples.left * shape.channels,
                       whole.stride};
    resample(source.planes[i], inside, geometryOf(shape, source.size, area, samples));
    ++i;
  }
  return true;
}

void SystemImageConverter::resample(PlaneView source, Plane destination,
                                    const PlaneGeometry& geometry) {
  const auto& [channels, x, y] = geometry;
  if (isCopy(x) && isCopy(y)) return copyPlane(source, destination, x.source, y.source, channels);
  if (std::max(x.step, y.step) > largestReduction)
    return resampleTwice(source, destination, geometry);
  resamplerFor(geometry).run(source, destination);
}

// Resamples twice, through a plane of a size between the source and the destination.
void SystemImageConverter::resampleTwice(PlaneView source, Plane destination,
                                         const PlaneGeometry& geometry) {
  PlaneGeometry first = geometry;
  PlaneGeometry second = geometry;
  for (const auto axis : {&PlaneGeometry::x, &PlaneGeometry::y}) {
    const SampleGrid& whole = geometry.*axis;
    const double step = std::sqrt(whole.step);
    const auto between = std::llround(static_cast<double>(whole.source) / step);
    // The samples of the plane in between lie evenly over the source.
    const double firstStep = static_cast<double>(whole.source) / static_cast<double>(between);
    const double firstOrigin = (firstStep - 1) / 2;
    first.*axis = {whole.source, between, firstStep, firstOrigin};
    second.*axis = {between, whole.destination, whole.step / firstStep,
                    (whole.origin - firstOrigin) / firstStep};
  }
  const std::int64_t stride = first.x.destination * geometry.channels;
  halfway_.resize(static_cast<std::size_t>(first.y.destination * stride));
  const Plane halfway{halfway_.data(), stride};
  resamplerFor(first).run(source, halfway);
  if (geometry.channels == 4) {  // each pass exchanges red and blue, so a third exchange is needed
    copyPlane({halfway.samples, stride}, halfway, first.x.destination, first.y.destination, 4);
  }
  resamplerFor(second).run({halfway.samples, stride}, destination);
}

const Resampler& SystemImageConverter::resamplerFor(const PlaneGeometry& geometry) {
  const auto found = std::ranges::find_if(
      resamplers_, [&](const auto& kept) { return kept->geometry() == geometry; });
  if (found != resamplers_.end()) return **found;
  if (resamplers_.size() == keptResamplers) resamplers_.pop_front();
  resamplers_.push_back(std::make_unique<Resampler>(geometry));
  return *resamplers_.back();
}

}  // namespace lumora
