// What a decoder has to be told before the first H.264 frame, out of its parameter sets. Pure.

// RFC 6381: profile, constraints and level as they stand in the sequence parameter set.
export function codecString(sequenceParameterSet) {
  const hex = (byte) => byte.toString(16).padStart(2, '0');
  return `avc1.${Array.from(sequenceParameterSet.subarray(1, 4), hex).join('')}`;
}

// ISO/IEC 14496-15, 5.3.3.1: AVCDecoderConfigurationRecord. NAL units stand behind lengths of 4 bytes; a
// Baseline stream, as every preview is, needs no more.
export function avcRecord(sequenceParameterSet, pictureParameterSet) {
  const [, profile, constraints, level] = sequenceParameterSet;
  return Uint8Array.from([
    1, profile, constraints, level,
    0xfc | 3,
    0xe0 | 1, ...behindLength(sequenceParameterSet),
    1, ...behindLength(pictureParameterSet),
  ]);
}

function behindLength(unit) {
  return [unit.length >> 8, unit.length & 0xff, ...unit];
}
