#include "bench/ssim.h"

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "bench/pipeline.h"

namespace lumora::bench {

double measureSSIM(const std::string& path, CameraClip& clip,
                   const std::vector<std::uint64_t>& numbers, client::FrameSize size) {
  const std::string wanted = std::to_string(size.width) + ":" + std::to_string(size.height);
  const std::string camera =
      std::to_string(clip.size().width) + "x" + std::to_string(clip.size().height);
  const std::string result = path + ".ssim";
  std::ostringstream filter;
  filter << "[0]vflip,scale=" << wanted
         << ":force_original_aspect_ratio=decrease:flags=lanczos+accurate_rnd+full_chroma_int"
            ":out_color_matrix=bt709,pad="
         << wanted << ":-1:-1,format=yuv420p,settb=1/60,setpts=N[source];"
         << "[1]format=yuv420p,settb=1/60,setpts=N[made];[made][source]ssim";
  runPipeline({"sh", "-c",
               "ffmpeg -nostdin -hide_banner -loglevel info -f rawvideo -pix_fmt rgba -r 60 -s " +
                   camera + " -i pipe:0 -i '" + path + "' -filter_complex '" + filter.str() +
                   "' -f null - 2> '" + result + "'"},
              clip, numbers);
  std::ifstream file(result);
  const std::string text(std::istreambuf_iterator<char>(file), {});
  std::remove(result.c_str());
  const auto at = text.rfind(" All:");
  return at == std::string::npos ? 0 : std::strtod(text.c_str() + at + 5, nullptr);
}

}  // namespace lumora::bench
