// What a decoder has to be told before the first H.264 frame, out of its parameter sets. Pure.

// RFC 6381: profile, constraints and level as they stand in the sequence parameter set.
export function codecString(sequenceParameterSet) {
  const hex = (byte) => byte.toString(16).padStart(2, '0');
  return `avc1.${Array.from(sequenceParameterSet.subarray(1, 4), hex).join('')}`;
}

// ISO/IEC 14496-15, 5.3.3.1: AVCDecoderConfigurationRecord. NAL units stand behind lengths of 4 bytes.
export function avcRecord(sequenceParameterSet, pictureParameterSet) {
  const [, profile, constraints, level] = sequenceParameterSet;
  return Uint8Array.from([
    1, profile, constraints, level,
    0xfc | 3,
    0xe0 | 1, ...behindLength(sequenceParameterSet),
    1, ...behindLength(pictureParameterSet),
    ...(extendedProfiles.includes(profile) ? extension(sequenceParameterSet) : []),
  ]);
}

const extendedProfiles = [100, 110, 122, 144];

function behindLength(unit) {
  return [unit.length >> 8, unit.length & 0xff, ...unit];
}

// ITU-T H.264, 7.3.2.1.1: the fields from behind the level to the bit depths. They hold no run of zeros that
// would need emulation prevention.
function extension(sequenceParameterSet) {
  const { bit, number } = bitReader(sequenceParameterSet, 4);
  number(); // seq_parameter_set_id
  const chromaFormat = number();
  if (chromaFormat === 3) bit(); // separate_colour_plane_flag
  return [0xfc | chromaFormat, 0xf8 | number(), 0xf8 | number(), 0];
}

function bitReader(bytes, firstByte) {
  let at = firstByte * 8;
  const bit = () => {
    if (at >= bytes.length * 8) throw new Error('a sequence parameter set is cut off');
    const value = (bytes[at >> 3] >> (7 - (at & 7))) & 1;
    at += 1;
    return value;
  };
  const number = () => { // ue(v)
    let zeros = 0;
    while (bit() === 0) zeros += 1;
    let value = 1;
    for (; zeros > 0; zeros -= 1) value = value * 2 + bit();
    return value - 1;
  };
  return { bit, number };
}
