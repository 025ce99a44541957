export { startHelper, type HelperOptions } from './start.js';
export { type Helper, type HelperEvents } from './helper.js';
export { type HelperExit } from './exit.js';
export { ArgumentError } from './errors.js';
export { type FrameWrite } from './feeder.js';
export { type Frame } from './frame.js';
export { type FrameCounts, type FrameOutcome } from './frame_counts.js';
export { type FrameEncoding, type FrameFormat, type FrameSize } from './frame_format.js';
export { type FrameId, type Pixels } from './records.js';
export { type SoundFormat } from './sound.js';
export { acceptFrames, sendPreview, type NodePort, type PreviewLimits } from './ports.js';
export { recoverTakes, RecoverError, type RecoveredTake } from './recover.js';
export { flipRows } from './rows.js';
export { StartError, type StartErrorCode } from './start_error.js';
export { findProgram } from './program.js';
export {
  TakeError,
  type KeptTake,
  type Take,
  type TakeErrorCode,
  type TakeOptions,
} from './take.js';
export { frameId, uptime } from './timing.js';
export type * from './events.js';
export {
  connectStream,
  StreamError,
  type StreamClient,
  type StreamErrorCode,
  type StreamOptions,
} from './stream.js';
export { type ConfigurationPacket, type FramePacket, type Packet } from './packets.js';
export { type DecoderConfig } from './decoder_config.js';
export { toWebCodecs, type DecoderInput, type EncodedChunk } from './web_codecs.js';
