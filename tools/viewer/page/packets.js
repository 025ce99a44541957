// Parses one packet of the helper's TCP stream.
//
// The source is client/node/src/packets.ts. It uses no modules of Node, because it is also compiled
// for the viewer's page. If you change the source, run `npm run page` in client/node.
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
const headerBytes = 14;
const configurationType = 1;
const frameType = 2;
const viewOf = (bytes) => new DataView(bytes.buffer, bytes.byteOffset, bytes.byteLength);
function parseConfiguration(payload) {
    const view = viewOf(payload);
    const sequenceBytes = payload.length < 8 ? 0 : view.getUint16(4);
    const pictureBytes = payload.length < 8 ? 0 : view.getUint16(6);
    const pictureStart = 8 + sequenceBytes;
    // A sequence parameter set has four bytes or more: its second to fourth make the codec name.
    if (sequenceBytes < 4 || pictureStart + pictureBytes > payload.length) {
        throw new Error('malformed configuration packet');
    }
    return {
        type: 'configuration',
        width: view.getUint16(0),
        height: view.getUint16(2),
        sequenceParameterSet: new Uint8Array(payload.subarray(8, pictureStart)),
        pictureParameterSet: new Uint8Array(payload.subarray(pictureStart, pictureStart + pictureBytes)),
    };
}
/** Parses one whole packet. Throws an Error on an unknown type or a malformed configuration. */
export function parsePacket(bytes) {
    const payload = bytes.subarray(headerBytes);
    const view = viewOf(bytes);
    const type = view.getUint8(4);
    if (type === configurationType)
        return parseConfiguration(payload);
    if (type !== frameType)
        throw new Error('unknown packet type');
    return {
        type: 'frame',
        frameId: view.getBigUint64(5),
        keyframe: view.getUint8(13) === 1,
        data: new Uint8Array(payload), // a copy, whose buffer the caller may transfer
    };
}
