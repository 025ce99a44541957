// What a page may import. Uses none of Node's modules.

export { ArgumentError } from './errors.js';
export { type FrameCounts, type FrameOutcome } from './frame_counts.js';
export { type FrameEncoding, type FrameFormat, type FrameSize } from './frame_format.js';
export {
  FrameSink,
  throughPort,
  type FrameAnswer,
  type FrameSinkOptions,
  type FrameWriter,
  type PagePort,
  type PostedFrame,
} from './frame_sink.js';
export { copyAudioData, type MicrophoneSound, type SoundFormat } from './sound.js';
export {
  copyVideoFrame,
  videoFrameFormat,
  type Bytes,
  type CameraFrame,
  type FrameCopy,
  type Picture,
} from './video_frame.js';
