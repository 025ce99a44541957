// Sound as the helper reads it: interleaved 16-bit samples. Uses none of Node's modules.

import { invalid } from './errors.js';

export interface SoundFormat {
  /** Samples per second and channel, 8000 to 96000. */
  rate: number;
  channels: 1 | 2;
}

/** Throws an ArgumentError for a format that the helper does not accept. */
export function checkSoundFormat({ rate, channels }: SoundFormat): void {
  const hasRate = Number.isInteger(rate) && rate >= 8000 && rate <= 96000;
  if (!hasRate || (channels !== 1 && channels !== 2)) {
    throw invalid('sound must have 1 or 2 channels and a rate of 8000 to 96000');
  }
}

/** The parts of WebCodecs' AudioData that are used here. */
export interface MicrophoneSound {
  readonly numberOfFrames: number;
  readonly numberOfChannels: number;
  readonly sampleRate: number;
  copyTo(target: Float32Array, options: { planeIndex: number; format: 'f32-planar' }): void;
}

/**
 * Converts the sound of a microphone for `writeSound`. `format` must be the same as in
 * `startHelper`. If it has one channel, takes the first channel of the microphone. If it has two
 * channels, takes the microphone's first two, or copies its only channel into both. Throws an
 * ArgumentError if the microphone has another rate.
 */
export function copyAudioData(sound: MicrophoneSound, format: SoundFormat): Int16Array {
  const { rate, channels } = format;
  const { sampleRate } = sound;
  if (sampleRate !== rate) {
    throw invalid(
      `the helper was started for ${rate} samples a second, and the AudioData has ${sampleRate}`,
    );
  }
  const samples = new Int16Array(sound.numberOfFrames * channels);
  const plane = new Float32Array(sound.numberOfFrames);
  for (let channel = 0; channel < channels; channel += 1) {
    const planeIndex = Math.min(channel, sound.numberOfChannels - 1);
    sound.copyTo(plane, { planeIndex, format: 'f32-planar' });
    plane.forEach((value, i) => {
      const level = Math.max(-1, Math.min(1, value));
      samples[i * channels + channel] = Math.round(level * 32767);
    });
  }
  return samples;
}
