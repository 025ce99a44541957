export { startHelper, type HelperOptions } from './start.js';
export { type Helper, type HelperEvents } from './helper.js';
export { type HelperExit } from './exit.js';
export { type FrameOutcome, type FrameWrite } from './feeder.js';
export { type FrameId, type FrameSize, type Pixels } from './records.js';
export { flipRows } from './rows.js';
export { StartError } from './launch.js';
export { findProgram } from './program.js';
export { TakeError, type Take, type TakeOptions } from './take.js';
export { frameId, uptime } from './timing.js';
export type * from './events.js';
export { connectStream, type StreamClient, type StreamOptions } from './stream.js';
export { type ConfigurationPacket, type FramePacket, type Packet } from './packets.js';
export {
  toWebCodecs,
  type DecoderConfig,
  type DecoderInput,
  type EncodedChunk,
} from './web_codecs.js';
