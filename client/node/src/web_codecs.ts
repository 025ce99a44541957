// Converts packets for a browser's VideoDecoder:
//
//   for await (const { config, chunk } of toWebCodecs(client)) {
//     if (config) decoder.configure(config);
//     decoder.decode(new EncodedVideoChunk(chunk));
//   }

import { decoderConfig, isSameConfig, type DecoderConfig } from './decoder_config.js';
import type { Packet } from './packets.js';

/** An EncodedVideoChunkInit. */
export interface EncodedChunk {
  type: 'key' | 'delta';
  /** The frame id. Ids made by `frameId` are capture times in microseconds. */
  timestamp: number;
  data: Uint8Array;
}

export interface DecoderInput {
  /** Present when the decoder must be configured before it gets `chunk`. */
  config?: DecoderConfig;
  chunk: EncodedChunk;
}

export async function* toWebCodecs(
  packets: AsyncIterable<Packet>,
): AsyncGenerator<DecoderInput, void, undefined> {
  let last: DecoderConfig | undefined;
  let config: DecoderConfig | undefined;
  for await (const packet of packets) {
    if (packet.type === 'configuration') {
      // Every key frame brings a configuration. Only a changed one is passed on, because a decoder
      // restarts when it is configured.
      const next = decoderConfig(packet);
      if (!isSameConfig(last, next)) config = last = next;
      continue;
    }
    const type = packet.keyframe ? 'key' : 'delta';
    const chunk: EncodedChunk = { type, timestamp: Number(packet.frameId), data: packet.data };
    yield config ? { config, chunk } : { chunk };
    config = undefined;
  }
}
