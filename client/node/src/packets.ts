// Cuts the helper's TCP stream into packets. Pure: bytes in, packets out.
//
//   0        4      5            13    14
//   +--------+------+------------+-----+---------
//   | length | type | frame id   | key | payload        length = 10 + payload bytes
//   +--------+------+------------+-----+---------
//
// The payload of a configuration:
//
//   0       2        4   6   8
//   +-------+--------+---+---+----------------+----------------
//   | width | height | S | P | S bytes of SPS | P bytes of PPS
//   +-------+--------+---+---+----------------+----------------

const lengthBytes = 4;
const headerBytes = 14;
const minimumLength = headerBytes - lengthBytes;
const maximumLength = 2_097_152;
const configurationType = 1;
const frameType = 2;

/** Precedes every key frame. */
export interface ConfigurationPacket {
  type: 'configuration';
  /** Of the preview, in pixels. */
  width: number;
  height: number;
  sequenceParameterSet: Uint8Array;
  pictureParameterSet: Uint8Array;
}

export interface FramePacket {
  type: 'frame';
  /** Of the camera frame, as it was written into the helper. */
  frameId: bigint;
  keyframe: boolean;
  /** NAL units, each behind its length as 4 bytes. */
  data: Uint8Array;
}

export type Packet = ConfigurationPacket | FramePacket;

function parseConfiguration(payload: Buffer): ConfigurationPacket {
  const sequenceBytes = payload.length < 8 ? 0 : payload.readUInt16BE(4);
  const pictureBytes = payload.length < 8 ? 0 : payload.readUInt16BE(6);
  const pictureStart = 8 + sequenceBytes;
  // The first four bytes of a sequence parameter set name the codec.
  if (sequenceBytes < 4 || pictureStart + pictureBytes > payload.length) {
    throw new Error('malformed configuration packet');
  }
  return {
    type: 'configuration',
    width: payload.readUInt16BE(0),
    height: payload.readUInt16BE(2),
    sequenceParameterSet: new Uint8Array(payload.subarray(8, pictureStart)),
    pictureParameterSet: new Uint8Array(
      payload.subarray(pictureStart, pictureStart + pictureBytes),
    ),
  };
}

function parsePacket(bytes: Buffer): Packet {
  const payload = bytes.subarray(headerBytes);
  if (bytes[4] === configurationType) return parseConfiguration(payload);
  if (bytes[4] !== frameType) throw new Error('unknown packet type');
  return {
    type: 'frame',
    frameId: bytes.readBigUInt64BE(5),
    keyframe: bytes[13] === 1,
    data: new Uint8Array(payload), // memory of its own, which can be transferred
  };
}

export class PacketParser {
  #pending: Buffer = Buffer.alloc(0);

  feed(bytes: Buffer): void {
    this.#pending = Buffer.concat([this.#pending, bytes]);
  }

  /** The next whole packet. Throws an Error on bytes that no helper sends. */
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
