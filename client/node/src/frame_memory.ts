// Memory that the helper has, too: pictures are written into it, and only where they lie goes
// through the helper's input.
//
//   0              4096      + slotBytes
//   +--------------+---------+---------+---
//   | release word | slot    | slot    | ...      the release word, in the machine's byte order: the
//   +--------------+---------+---------+---       id of the latest frame that, like all before it,
//                                                 the helper no longer reads
//
// A file without a name, so that nobody else opens it and it goes with the last process that has it.

import { closeSync, ftruncateSync, openSync, readSync, unlinkSync, write, writeSync } from 'node:fs';
import { randomUUID } from 'node:crypto';
import { promisify } from 'node:util';

import { frameReference, type Frame } from './records.js';

const pageBytes = 4096;
const slotBytes = 1920 * 1080 * 4; // of whole pages, for the largest frame
const slots = 3; // the helper copies one, one waits for it, one is being written

const writeAsync = promisify(write);

function openUnnamed(): number {
  const path = `/dev/shm/lumora-frames-${randomUUID()}`;
  const descriptor = openSync(path, 'wx+', 0o600);
  unlinkSync(path);
  return descriptor;
}

export class FrameMemory {
  readonly descriptor: number;
  readonly #free: number[] = Array.from({ length: slots }, (_, i) => pageBytes + i * slotBytes);
  /** What the helper may be reading, the oldest first. */
  readonly #lent: { id: bigint; offset: number }[] = [];
  readonly #releaseWord = new BigUint64Array(1);
  #isOpen = true;

  private constructor(descriptor: number) {
    this.descriptor = descriptor;
    ftruncateSync(descriptor, pageBytes + slots * slotBytes);
    writeSync(descriptor, Buffer.alloc(pageBytes), 0, pageBytes, 0); // so that it takes a release
  }

  /** Undefined where there is no such memory. */
  static make(): FrameMemory | undefined {
    let descriptor: number | undefined;
    try {
      descriptor = openUnnamed();
      return new FrameMemory(descriptor);
    } catch {
      if (descriptor !== undefined) closeSync(descriptor);
      return undefined;
    }
  }

  /** Whether the helper still needs every slot. */
  isFull(): boolean {
    readSync(this.descriptor, this.#releaseWord, 0, 8, 0);
    // Nothing keeps a read from meeting the helper's write half way: only an id that was lent counts.
    const released = this.#lent.findIndex(({ id }) => id === this.#releaseWord[0]);
    for (const { offset } of this.#lent.splice(0, released + 1)) this.#free.push(offset);
    return this.#free.length === 0;
  }

  /**
   * Copies the picture into a slot, unless `isFull`; resolves with the record that refers to it, or
   * with undefined when there is no memory left. One at a time, by growing ids.
   */
  async store({ size, id, pixels }: Frame): Promise<Buffer | undefined> {
    const offset = this.#free.pop() as number;
    try {
      for (let done = 0; done < pixels.length; ) {
        const left = pixels.length - done;
        done += (await writeAsync(this.descriptor, pixels, done, left, offset + done)).bytesWritten;
      }
    } catch {
      return undefined;
    }
    this.#lent.push({ id, offset });
    return frameReference(size, id, offset);
  }

  /** Not while a picture is being stored: its descriptor would soon name another file. */
  close(): void {
    if (this.#isOpen) closeSync(this.descriptor);
    this.#isOpen = false;
  }
}
