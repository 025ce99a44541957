// The way into the helper's standard input: at most one frame is being written and one waits; a
// newer one takes the place of the one that waits. Commands keep their place among the frames and
// are never dropped. The pixels go into memory that the helper shares, if there is such memory.

import type { Writable } from 'node:stream';

import { deferred } from './deferred.js';
import type { FrameMemory } from './frame_memory.js';
import { frameHeader, type Frame } from './records.js';

// Milliseconds. The helper tells nobody that it has released a frame.
const retryInterval = 2;

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
  content: Frame | Buffer;
  settle(outcome: FrameOutcome): void;
}

const isFrame = (content: Frame | Buffer): content is Frame => !Buffer.isBuffer(content);

export class Feeder {
  readonly counts = { written: 0, dropped: 0 };
  readonly #input: Writable;
  #memory: FrameMemory | undefined;
  #waiting: Entry[] = [];
  #isWriting = false;
  #ending = false;
  #retry: NodeJS.Timeout | undefined;
  #abandonWrite: () => void = () => undefined;

  /** Closes `memory` in the end. */
  constructor(input: Writable, memory?: FrameMemory) {
    this.#input = input;
    this.#memory = memory;
    // A helper that ended shows as an error here; how it ended is told by its exit.
    input.on('error', () => undefined);
    input.on('close', () => this.#abandon());
  }

  writeFrame(frame: Frame): FrameWrite {
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
    this.#waiting.push({ content: frame, settle });
    this.#writeNext();
    return { state: 'queued', done };
  }

  /** False when the helper no longer reads. */
  writeCommand(record: Buffer): boolean {
    if (this.#ending) return false;
    this.#waiting.push({ content: record, settle: () => undefined });
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
    const index = this.#waiting.findIndex(({ content }) => isFrame(content));
    if (index >= 0) this.#waiting.splice(index, 1)[0]?.settle('dropped');
  }

  #writeNext(): void {
    if (this.#isWriting) return;
    const [next] = this.#waiting;
    if (!next) return this.#ending ? this.#close() : undefined;
    if (isFrame(next.content) && this.#memory?.isFull()) return this.#writeLater();
    this.#waiting.shift();
    void this.#write(next);
  }

  #writeLater(): void {
    this.#retry ??= setTimeout(() => {
      this.#retry = undefined;
      this.#writeNext();
    }, retryInterval);
  }

  async #write({ content, settle }: Entry): Promise<void> {
    this.#isWriting = true;
    settle(await this.#put(isFrame(content) ? await this.#frameRecord(content) : [content]));
    this.#isWriting = false;
    this.#writeNext();
  }

  async #frameRecord(frame: Frame): Promise<Buffer[]> {
    const reference = await this.#memory?.store(frame);
    if (reference) return [reference];
    this.#closeMemory(); // there is none left; the helper's input takes any frame
    return [frameHeader(frame.size, frame.id), frame.pixels];
  }

  #close(): void {
    this.#input.end();
    this.#closeMemory();
  }

  #closeMemory(): void {
    this.#memory?.close();
    this.#memory = undefined;
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
