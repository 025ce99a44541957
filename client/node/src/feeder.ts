// The way into the helper's standard input: at most one frame is being written and one waits; a
// newer one takes the place of the one that waits. Commands keep their place among the frames and
// are never dropped.

import type { Writable } from 'node:stream';

import { deferred } from './deferred.js';

/**
 * `written`: the helper has all of it (and may still drop it, see `droppedRaw` in its statistics).
 * `dropped`: a newer frame took its place, or the helper no longer reads.
 */
export type FrameOutcome = 'written' | 'dropped';

export interface FrameWrite {
  /** `dropped`: the helper has ended, or is about to. */
  state: 'queued' | 'dropped';
  /** Settles when the memory of the pixels may be used again; never rejects. */
  done: Promise<FrameOutcome>;
}

interface Entry {
  isFrame: boolean;
  parts: Buffer[];
  settle(outcome: FrameOutcome): void;
}

export class Feeder {
  readonly counts = { written: 0, dropped: 0 };
  readonly #input: Writable;
  #waiting: Entry[] = [];
  #isWriting = false;
  #ending = false;
  #abandonWrite: () => void = () => undefined;

  constructor(input: Writable) {
    this.#input = input;
    // A helper that ended shows as an error here; how it ended is told by its exit.
    input.on('error', () => undefined);
    input.on('close', () => this.#abandon());
  }

  writeFrame(header: Buffer, pixels: Buffer): FrameWrite {
    const { promise: done, resolve } = deferred<FrameOutcome>();
    const settle = (outcome: FrameOutcome) => {
      this.counts[outcome] += 1;
      resolve(outcome);
    };
    if (this.#ending) {
      settle('dropped');
      return { state: 'dropped', done };
    }
    this.#dropWaitingFrame();
    this.#waiting.push({ isFrame: true, parts: [header, pixels], settle });
    this.#writeNext();
    return { state: 'queued', done };
  }

  /** False when the helper no longer reads. */
  writeCommand(record: Buffer): boolean {
    if (this.#ending) return false;
    this.#waiting.push({ isFrame: false, parts: [record], settle: () => undefined });
    this.#writeNext();
    return true;
  }

  /** Ends the input behind what is being written and what waits. */
  end(): void {
    this.#ending = true;
    this.#writeNext();
  }

  #abandon(): void {
    this.#dropWaitingFrame();
    this.#waiting = [];
    this.#abandonWrite();
    this.end();
  }

  #dropWaitingFrame(): void {
    const index = this.#waiting.findIndex((entry) => entry.isFrame);
    if (index >= 0) this.#waiting.splice(index, 1)[0]?.settle('dropped');
  }

  #writeNext(): void {
    if (this.#isWriting) return;
    const next = this.#waiting.shift();
    if (next) void this.#write(next);
    else if (this.#ending) this.#input.end();
  }

  async #write({ parts, settle }: Entry): Promise<void> {
    this.#isWriting = true;
    settle(await this.#put(parts));
    this.#isWriting = false;
    this.#writeNext();
  }

  #put(parts: Buffer[]): Promise<FrameOutcome> {
    const input = this.#input;
    return new Promise((resolve) => {
      // A stream that is destroyed may forget the write it was at, or end it without an error.
      this.#abandonWrite = () => resolve('dropped');
      const done = (error?: Error | null) =>
        resolve(error || input.destroyed ? 'dropped' : 'written');
      // Corked, so that header and pixels leave in one system call.
      input.cork();
      parts.forEach((part, index) =>
        input.write(part, index === parts.length - 1 ? done : undefined),
      );
      input.uncork();
    });
  }
}
