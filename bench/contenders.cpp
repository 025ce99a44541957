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

std::string ffmpeg(client::FrameSize size, const std::string& preset, const Outputs& outputs,
                   const std::string& filters) {
  return "ffmpeg -nostdin -v error -y -f rawvideo -pix_fmt rgba -r 60 -s " +
         std::to_string(size.width) + "x" + std::to_string(size.height) +
         " -i pipe:0 -filter_complex " + shellQuoted(filters) + " -map '[p]'" +
         ffmpegEncoder(preset, "baseline", 4, 1) + "-f h264 " + shellQuoted(outputs.preview) +
         " -map '[t]'" + ffmpegEncoder(preset, "high", 12, 2) + shellQuoted(outputs.take);
}

std::string gstreamerEncoder(const std::string& preset, const std::string& profile, int megabits,
                             int threads) {
  return " ! x264enc speed-preset=" + preset +
         " tune=zerolatency bitrate=" + std::to_string(megabits * 1000) +
         " vbv-buf-capacity=1000 key-int-max=60 threads=" + std::to_string(threads) +
         " sliced-threads=true option-string=scenecut=0 ! video/x-h264,profile=" + profile;
}

}  // namespace

std::string ffmpegCommand(client::FrameSize size, const std::string& preset,
                          const Outputs& outputs) {
  return ffmpeg(size, preset, outputs,
                "[0]vflip,split[a][b];[a]scale=640:360:flags=area:" + matrix +
                    ",format=yuv420p[p];[b]scale=" + matrix + ",format=yuv420p[t]");
}

std::string ffmpegOnceCommand(client::FrameSize size, const std::string& preset,
                              const Outputs& outputs) {
  return ffmpeg(
      size, preset, outputs,
      "[0]vflip,scale=" + matrix + ",format=yuv420p,split[a][t];[a]scale=640:360:flags=area[p]");
}

std::string gstreamerCommand(client::FrameSize size, const std::string& preset,
                             const Outputs& outputs) {
  const std::string format = "video/x-raw,format=I420,colorimetry=bt709";
  return "gst-launch-1.0 -q fdsrc fd=0 blocksize=" + std::to_string(size.bytes()) +
         " ! rawvideoparse format=rgba width=" + std::to_string(size.width) +
         " height=" + std::to_string(size.height) +
         " framerate=60/1 ! videoflip video-direction=vert ! tee name=t" +
         " t. ! queue ! videoscale ! videoconvert ! " + format + ",width=640,height=360" +
         gstreamerEncoder(preset, "baseline", 4, 1) +
         ",stream-format=byte-stream ! filesink location=" + shellQuoted(outputs.preview) +
         " t. ! queue ! videoconvert ! " + format + gstreamerEncoder(preset, "high", 12, 2) +
         " ! h264parse ! mp4mux ! filesink location=" + shellQuoted(outputs.take);
}

}  // namespace lumora::bench
