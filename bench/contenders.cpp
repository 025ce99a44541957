#include "bench/contenders.h"

#include "tools/programs.h"

namespace lumora::bench {
namespace {

using tools::shellQuoted;

const std::string matrix = "out_color_matrix=bt709";

std::string ffmpegEncoder(const std::string& preset, const std::string& profile, int megabits,
                          int threads) {
  const std::string rate = std::to_string(megabits) + "M";
  return " -c:v libx264 -preset " + preset + " -tune zerolatency -profile:v " + profile + " -b:v " +
         rate + " -maxrate " + rate + " -bufsize " + rate + " -g 60 -sc_threshold 0 -threads " +
         std::to_string(threads) + " ";
}

std::string ffmpeg(const CameraClip& clip, const std::string& preset, const Outputs& outputs,
                   const std::string& filters) {
  return "ffmpeg -nostdin -v error -y -f rawvideo -r 60 -pix_fmt " +
         std::string(clip.formatName()) + " -s " + std::to_string(clip.size().width) + "x" +
         std::to_string(clip.size().height) + " -i pipe:0 -filter_complex " + shellQuoted(filters) +
         " -map '[p]'" + ffmpegEncoder(preset, "baseline", 4, 1) + "-f h264 " +
         shellQuoted(outputs.preview) + " -map '[t]'" + ffmpegEncoder(preset, "high", 12, 2) +
         shellQuoted(outputs.take);
}

std::string gstreamerEncoder(const std::string& preset, const std::string& profile, int megabits,
                             int threads) {
  return " ! x264enc speed-preset=" + preset +
         " tune=zerolatency bitrate=" + std::to_string(megabits * 1000) +
         " vbv-buf-capacity=1000 key-int-max=60 threads=" + std::to_string(threads) +
         " sliced-threads=true option-string=scenecut=0 ! video/x-h264,profile=" + profile;
}

}  // namespace

std::string ffmpegCommand(const CameraClip& clip, const std::string& preset,
                          const Outputs& outputs) {
  const std::string smaller = "[a]scale=640:360:flags=area";
  return ffmpeg(clip, preset, outputs,
                clip.isNV12() ? "[0]split[a][t];" + smaller + "[p]"
                              : "[0]vflip,split[a][b];" + smaller + ":" + matrix +
                                    ",format=yuv420p[p];[b]scale=" + matrix + ",format=yuv420p[t]");
}

std::string ffmpegOnceCommand(const CameraClip& clip, const std::string& preset,
                              const Outputs& outputs) {
  return ffmpeg(
      clip, preset, outputs,
      "[0]vflip,scale=" + matrix + ",format=yuv420p,split[a][t];[a]scale=640:360:flags=area[p]");
}

std::string gstreamerCommand(const CameraClip& clip, const std::string& preset,
                             const Outputs& outputs) {
  const bool isNV12 = clip.isNV12();
  const std::string format =
      "video/x-raw,colorimetry=bt709,format=" + std::string(isNV12 ? "NV12" : "I420");
  return "gst-launch-1.0 -q fdsrc fd=0 blocksize=" + std::to_string(clip.frameBytes()) +
         " ! rawvideoparse framerate=60/1 format=" + clip.formatName() +
         (isNV12 ? " colorimetry=bt709" : "") + " width=" + std::to_string(clip.size().width) +
         " height=" + std::to_string(clip.size().height) +
         (isNV12 ? "" : " ! videoflip video-direction=vert") + " ! tee name=t" +
         " t. ! queue ! videoscale ! videoconvert ! " + format + ",width=640,height=360" +
         gstreamerEncoder(preset, "baseline", 4, 1) +
         ",stream-format=byte-stream ! filesink location=" + shellQuoted(outputs.preview) +
         " t. ! queue ! videoconvert ! " + format + gstreamerEncoder(preset, "high", 12, 2) +
         " ! h264parse ! mp4mux ! filesink location=" + shellQuoted(outputs.take);
}

}  // namespace lumora::bench
