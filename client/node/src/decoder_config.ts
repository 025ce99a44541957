// Makes the VideoDecoderConfig of a stream.
//
// The source is client/node/src/decoder_config.ts. It uses no modules of Node, because it is also
// compiled for the viewer's page. If you change the source, run `npm run page` in client/node.

import type { ConfigurationPacket } from './packets.js';

/** The fields of WebCodecs' VideoDecoderConfig that we set. */
export interface DecoderConfig {
  codec: string;
  codedWidth: number;
  codedHeight: number;
  description: Uint8Array;
  optimizeForLatency: true;
}

const withLength = (unit: Uint8Array) => [unit.length >> 8, unit.length & 0xff, ...unit];

// AVCDecoderConfigurationRecord, ISO/IEC 14496-15, 5.3.3.1
function avcConfiguration(packet: ConfigurationPacket): Uint8Array {
  const { sequenceParameterSet: sequence, pictureParameterSet: picture } = packet;
  return Uint8Array.from([
    1, // version
    ...sequence.subarray(1, 4), // profile, constraints, level
    0xfc | 3, // the length of a NAL unit has 3 + 1 bytes
    0xe0 | 1, // one sequence parameter set
    ...withLength(sequence),
    1, // one picture parameter set
    ...withLength(picture),
  ]);
}

const hex = (byte: number) => byte.toString(16).padStart(2, '0');

export function decoderConfig(packet: ConfigurationPacket): DecoderConfig {
  const description = avcConfiguration(packet);
  return {
    codec: `avc1.${Array.from(description.subarray(1, 4), hex).join('')}`,
    codedWidth: packet.width,
    codedHeight: packet.height,
    description,
    optimizeForLatency: true,
  };
}

/** Compares the parameter sets, which also hold the size. */
export function isSameConfig(a: DecoderConfig | undefined, b: DecoderConfig): boolean {
  return String(a?.description) === String(b.description);
}
