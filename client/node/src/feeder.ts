// Writes frames, commands and sound into the helper's standard input, one at a time, in the order
// in which they were queued. A newer frame replaces a frame that waits, unless a command was queued
// between the two. Commands are dropped only when the input closes.

import type { Writable } from 'node:stream';

import { deferred } from './deferred.js';
import { invalid } from './errors.js';
import type { FrameCounts, FrameOutcome } from './frame_counts.js';
import { soundRecords } from './records.js';
import type { SoundFormat } from './sound.js';
import { frameId, isAhead } from './timing.js';

const mostSoundSeconds = 2;

export interface FrameWrite {
  /** `dropped`: the helper has ended or is stopping. */
  state: 'queued' | 'dropped';
  /** Resolves when the buffer of the pixels may be reused. Never rejects. */
  done: Promise<FrameOutcome>;
}

interface Entry {
  parts: Buffer[];
  isFrame: boolean;
  /** Bytes of sound in `parts`, without the headers. */
  soundBytes: number;
  settle(outcome: FrameOutcome): void;
}

export class Feeder {
  readonly counts: FrameCounts = { written: 0, dropped: 0 };
  readonly #input: Writable;
  #waiting: Entry[] = [];
  #soundBytes = 0; // in `#waiting`
  #lastSound = 0n; // the id of the last record of sound
  #isWriting = false;
  #framesHaveEnded = false;
  #ending = false;
  #abandonWrite: () => void = () => undefined;

  constructor(input: Writable) {
    this.#input = input;
    // When the helper ends, writes fail. The helper's exit event says why.
    input.on('error', () => undefined);
    input.on('close', () => this.#abandon());
  }

  writeFrame(header: Buffer, pixels: Buffer): FrameWrite {
    const { promise: done, resolve } = deferred<FrameOutcome>();
    const settle = (outcome: FrameOutcome) => {
      this.counts[outcome] += 1;
      resolve(outcome);
    };
    if (this.#framesHaveEnded) {
      settle('dropped');
      return { state: 'dropped', done };
    }
    this.#dropOlderFrame();
    this.#waiting.push({ parts: [header, pixels], isFrame: true, soundBytes: 0, settle });
    this.#writeNext();
    return { state: 'queued', done };
  }

  /**
   * Whether a frame written now would be dropped, or would replace one that waits. If so, counts a
   * dropped frame: the caller leaves its frame out.
   */
  skipsFrame(): boolean {
    const skips = this.#framesHaveEnded || this.#lastUnlessSound()?.isFrame;
    if (skips) this.counts.dropped += 1;
    return skips ?? false;
  }

  /** Returns false once the input is closing. */
  writeCommand(record: Buffer): boolean {
    if (this.#ending) return false;
    this.#queue([record], 0);
    return true;
  }

  /** `capturedAt` is the `uptime()` of the first sample. Returns false if the sound is skipped. */
  writeSound(samples: Int16Array, format: SoundFormat, capturedAt: number): boolean {
    const { rate, channels } = format;
    if (!(samples instanceof Int16Array)) throw invalid('sound must be an Int16Array');
    if (samples.length % channels !== 0) {
      throw invalid('all channels of sound must have the same number of samples');
    }
    if (!(capturedAt >= 0)) throw invalid('the capture time of sound must be a time of uptime()');
    const bytes = samples.byteLength;
    const most = mostSoundSeconds * rate * channels * samples.BYTES_PER_ELEMENT;
    if (this.#ending || this.#soundBytes + bytes > most) return false;
    // The id of sound is its capture time, and ids must grow. After an id too far ahead, later
    // sound would get wrong times.
    if (isAhead(capturedAt)) return false;
    if (bytes === 0) return true;
    const { records, last } = soundRecords(samples, format, frameId(capturedAt), this.#lastSound);
    this.#lastSound = last;
    this.#soundBytes += bytes;
    this.#queue(records, bytes);
    return true;
  }

  /** Drops frames from now on. A frame that already waits is still written. */
  endFrames(): void {
    this.#framesHaveEnded = true;
  }

  /** Closes the input once everything in the queue is written. */
  end(): void {
    this.endFrames();
    this.#ending = true;
    this.#writeNext();
  }

  #queue(parts: Buffer[], soundBytes: number): void {
    this.#waiting.push({ parts, isFrame: false, soundBytes, settle: () => undefined });
    this.#writeNext();
  }

  #abandon(): void {
    for (const { isFrame, settle } of this.#waiting) if (isFrame) settle('dropped');
    this.#waiting = [];
    this.#abandonWrite();
    this.end();
  }

  // A frame in front of a command stays: it may be the last one before a take's stop.
  #dropOlderFrame(): void {
    const last = this.#lastUnlessSound();
    if (!last?.isFrame) return;
    this.#waiting = this.#waiting.filter((entry) => entry !== last);
    last.settle('dropped');
  }

  #lastUnlessSound(): Entry | undefined {
    return this.#waiting.filter(({ soundBytes }) => soundBytes === 0).at(-1);
  }

  #writeNext(): void {
    if (this.#isWriting) return;
    const next = this.#waiting.shift();
    if (next) void this.#write(next);
    else if (this.#ending) this.#input.end();
  }

  async #write({ parts, soundBytes, settle }: Entry): Promise<void> {
    this.#isWriting = true;
    this.#soundBytes -= soundBytes;
    settle(await this.#put(parts));
    this.#isWriting = false;
    this.#writeNext();
  }

  #put(parts: Buffer[]): Promise<FrameOutcome> {
    const input = this.#input;
    return new Promise((resolve) => {
      // A destroyed stream may call back without an error, or not at all.
      this.#abandonWrite = () => resolve('dropped');
      const done = (error?: Error | null) =>
        resolve(error || input.destroyed ? 'dropped' : 'written');
      // Corked, so that header and pixels go out in one system call.
      input.cork();
      parts.forEach((part, index) =>
        input.write(part, index === parts.length - 1 ? done : undefined),
      );
      input.uncork();
    });
  }
}
