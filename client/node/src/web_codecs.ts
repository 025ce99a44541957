// Packets as a browser's VideoDecoder takes them:
//
//   for await (const { config, chunk } of toWebCodecs(client)) {
//     if (config) decoder.configure(config);
//     decoder.decode(new EncodedVideoChunk(chunk));
//   }

import type { ConfigurationPacket, Packet } from './packets.js';

/** A VideoDecoderConfig. */
export interface DecoderConfig {
  codec: string;
  codedWidth: number;
  codedHeight: number;
  description: Uint8Array;
  optimizeForLatency: true;
}

/** An EncodedVideoChunkInit. */
export interface EncodedChunk {
  type: 'key' | 'delta';
  /** The frame id: count ids in microseconds where decoded pictures need their capture time. */
  timestamp: number;
  data: Uint8Array;
}

export interface DecoderInput {
  /** There when the decoder must be configured before it gets `chunk`. */
  config?: DecoderConfig;
  chunk: EncodedChunk;
}

// AVCDecoderConfigurationRecord, ISO/IEC 14496-15, 5.3.3.1
function avcConfiguration(packet: ConfigurationPacket): Buffer {
  const { sequenceParameterSet: sequence, pictureParameterSet: picture } = packet;
  const bytes = Buffer.alloc(11 + sequence.length + picture.length);
  bytes[0] = 1; // version
  bytes.set(sequence.subarray(1, 4), 1); // profile, compatibility, level
  bytes[4] = 0xfc | 3; // NAL units behind lengths of 3 + 1 bytes
  bytes[5] = 0xe0 | 1; // one sequence parameter set
  bytes.writeUInt16BE(sequence.length, 6);
  bytes.set(sequence, 8);
  bytes[8 + sequence.length] = 1; // one picture parameter set
  bytes.writeUInt16BE(picture.length, 9 + sequence.length);
  bytes.set(picture, 11 + sequence.length);
  return bytes;
}

function decoderConfig(packet: ConfigurationPacket): DecoderConfig {
  const description = avcConfiguration(packet);
  return {
    codec: `avc1.${description.toString('hex', 1, 4)}`,
    codedWidth: packet.width,
    codedHeight: packet.height,
    description: new Uint8Array(description),
    optimizeForLatency: true,
  };
}

const isSame = (a: DecoderConfig | undefined, b: DecoderConfig) =>
  a !== undefined && Buffer.compare(a.description, b.description) === 0;

export async function* toWebCodecs(
  packets: AsyncIterable<Packet>,
): AsyncGenerator<DecoderInput, void, undefined> {
  let last: DecoderConfig | undefined;
  let config: DecoderConfig | undefined;
  for await (const packet of packets) {
    if (packet.type === 'configuration') {
      // One comes with every key frame; a decoder that is configured anew starts from scratch.
      const next = decoderConfig(packet);
      if (!isSame(last, next)) config = last = next;
      continue;
    }
    const type = packet.keyframe ? 'key' : 'delta';
    const chunk: EncodedChunk = { type, timestamp: Number(packet.frameId), data: packet.data };
    yield config ? { config, chunk } : { chunk };
    config = undefined;
  }
}
