// Takes one message of the viewer apart: a packet of the helper's stream, byte for byte. Pure.
//
//   0        4      5            13    14
//   +--------+------+------------+-----+---------
//   | length | type | frame id   | key | payload        length = 10 + payload bytes
//   +--------+------+------------+-----+---------

const headerBytes = 14;
const maximumLength = 2_097_152;

// `frameID` is a BigInt, since ids have 64 bits. Throws an Error on anything that no helper sends.
export function parsePacket(buffer) {
  if (buffer.byteLength < headerBytes) throw new Error('a packet is cut off');
  const view = new DataView(buffer);
  const length = view.getUint32(0);
  if (length > maximumLength || length + 4 !== buffer.byteLength) {
    throw new Error('a packet is not as long as it says');
  }
  const payload = new Uint8Array(buffer, headerBytes);
  const type = view.getUint8(4);
  if (type === 1) return parseConfiguration(payload);
  if (type !== 2) throw new Error('a packet is of an unknown type');
  if (payload.length === 0) throw new Error('a frame has no bytes');
  return { type: 'frame', frameID: view.getBigUint64(5), isKey: view.getUint8(13) === 1, payload };
}

//   0       2        4   6   8     8 + S
//   +-------+--------+---+---+-----+-----
//   | width | height | S | P | SPS | PPS
//   +-------+--------+---+---+-----+-----
function parseConfiguration(payload) {
  if (payload.length < 8) throw new Error('a configuration is cut off');
  const view = new DataView(payload.buffer, payload.byteOffset, payload.length);
  const [width, height, sequence, picture] = [0, 2, 4, 6].map((at) => view.getUint16(at));
  if (8 + sequence + picture !== payload.length || sequence < 4 || picture < 1) {
    throw new Error('a configuration does not hold the parameter sets that it announces');
  }
  return {
    type: 'configuration', width, height, payload,
    sequenceParameterSet: payload.subarray(8, 8 + sequence),
    pictureParameterSet: payload.subarray(8 + sequence),
  };
}

export function haveSameBytes(one, other) {
  return one.length === other.length && one.every((byte, at) => byte === other[at]);
}
