// The way into the helper's standard input: at most one frame is being written and one waits; a
// newer one takes the place of the one that waits. Commands keep their place among the frames and
// are never dropped.

import type { Writable } from 'node:stream';

/**
 * `written`: the helper has all of it (and may still drop it, see `droppedRaw` in its statistics).
 * `dropped`: a newer frame took its place, or the helper no longer reads.
 */
export type FrameOutcome = 'written' | 'dropped';

interface Entry {
  isFrame: boolean;
  parts: Buffer[];
  settle(outcome: FrameOutcome): void;
}

export class Feeder {
  readonly counts = { written: 0, dropped: 0 };
  readonly #input: Writable;
  readonly #waiting: Entry[] = [];
  #current: Entry | undefined;
  #ending = false;

  constructor(input: Writable) {
    this.#input = input;
    // A helper that ended shows as an error here; how it ended is told by its exit.
    input.on('error', () => undefined);
    input.on('close', () => {
      this.#finish('dropped'); // a stream that is destroyed may forget the write it was at
      this.end();
    });
  }

  /** Settles when the memory may be used again; never rejects. */
  writeFrame(header: Buffer, pixels: Buffer): Promise<FrameOutcome> {
    return new Promise((resolve) => {
      const settle = (outcome: FrameOutcome) => {
        this.counts[outcome] += 1;
        resolve(outcome);
      };
      if (this.#ending) return settle('dropped');
      this.#dropWaitingFrame();
      this.#waiting.push({ isFrame: true, parts: [header, pixels], settle });
      this.#writeNext();
    });
  }

  /** False when the helper no longer reads. */
  writeCommand(record: Buffer): boolean {
    if (this.#ending) return false;
    this.#waiting.push({ isFrame: false, parts: [record], settle: () => undefined });
    this.#writeNext();
    return true;
  }

  /** Ends the input behind what is being written and the commands that wait. */
  end(): void {
    this.#ending = true;
    this.#dropWaitingFrame();
    this.#writeNext();
  }

  #dropWaitingFrame(): void {
    const index = this.#waiting.findIndex((entry) => entry.isFrame);
    if (index >= 0) this.#waiting.splice(index, 1)[0]?.settle('dropped');
  }

  #writeNext(): void {
    if (this.#current) return;
    this.#current = this.#waiting.shift();
    if (this.#current) this.#write(this.#current);
    else if (this.#ending) this.#input.end();
  }

  #write({ parts }: Entry): void {
    // Without an error, too, a write is over when its stream is destroyed.
    const done = (error?: Error | null) =>
      this.#finish(error || this.#input.destroyed ? 'dropped' : 'written');
    // Corked, so that header and pixels leave in one system call.
    this.#input.cork();
    parts.forEach((part, index) =>
      this.#input.write(part, index === parts.length - 1 ? done : undefined),
    );
    this.#input.uncork();
  }

  #finish(outcome: FrameOutcome): void {
    this.#current?.settle(outcome);
    this.#current = undefined;
    this.#writeNext();
  }
}
