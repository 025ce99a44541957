// Splits the helper's TCP stream into packets.

import { parsePacket, type Packet } from './packets.js';

const lengthBytes = 4;
const minimumLength = 10;
const maximumLength = 2_097_152;

export class PacketSplitter {
  #pending: Buffer = Buffer.alloc(0);

  feed(bytes: Buffer): void {
    this.#pending = Buffer.concat([this.#pending, bytes]);
  }

  /** Returns the next whole packet, if any. Throws an Error on bytes that no helper sends. */
  next(): Packet | undefined {
    if (this.#pending.length < lengthBytes) return undefined;
    const length = this.#pending.readUInt32BE(0);
    if (length < minimumLength || length > maximumLength) {
      throw new Error('packet length out of range');
    }
    const end = lengthBytes + length;
    if (this.#pending.length < end) return undefined;
    const packet = parsePacket(this.#pending.subarray(0, end));
    this.#pending = this.#pending.subarray(end);
    return packet;
  }
}
