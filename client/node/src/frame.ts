// Reuses the memory of pictures. If a frame is never published or closed, its memory is not reused,
// and the garbage collector frees it.

import { disposeWith } from './dispose.js';
import { invalid } from './errors.js';
import {
  checkLength,
  encodingOf,
  pictureBytes,
  type FrameFormat,
  type FrameSize,
} from './frame_format.js';

// The most buffers to keep for reuse. Usually at most four are in use: one is being written, one
// waits, and the application fills two.
const mostFree = 4;
const empty = new Uint8Array(0);

/** Memory for one picture. It is reused after the frame is written, dropped or closed. */
export class Frame {
  readonly size: FrameSize;
  readonly format: FrameFormat;
  /** Lets `using` close the frame. Missing where Node does not have the symbol. */
  declare [Symbol.dispose]: () => void;
  readonly #giveBack: (memory: Uint8Array) => void;
  #memory: Uint8Array;
  #length: number;

  /** @internal `length` is 0 if pictures of this format have no fixed length. */
  constructor(
    size: FrameSize,
    format: FrameFormat,
    length: number,
    memory: Uint8Array,
    giveBack: (memory: Uint8Array) => void,
  ) {
    this.size = size;
    this.format = format;
    this.#length = length;
    this.#memory = memory;
    this.#giveBack = giveBack;
  }

  /**
   * The memory, which may have the bytes of an earlier picture. For `mjpeg` it has room for the
   * largest picture. Empty once the frame is published or closed.
   */
  get pixels(): Uint8Array {
    return this.#memory;
  }

  /**
   * Sets the length of the picture in bytes. Call it for each `mjpeg` frame before `publish`.
   * Throws an ArgumentError if no picture of this format and size has this length.
   */
  setLength(bytes: number): void {
    checkLength(bytes, this.size, encodingOf(this.format));
    this.#length = bytes;
  }

  /** Call it for a frame that you don't publish. Does nothing after `publish` or `close`. */
  close(): void {
    if (this.#memory !== empty) this.take()();
  }

  /** @internal Throws an ArgumentError if the frame is empty or its length is not set. */
  picture(): Uint8Array {
    if (this.#memory === empty) throw invalid('this frame was already published or closed');
    if (this.#length === 0) throw invalid('the length of the picture was not set');
    return this.#memory.subarray(0, this.#length);
  }

  /** @internal Leaves the frame empty. Returns a function that gives the memory back. */
  take(): () => void {
    const memory = this.#memory;
    this.#memory = empty;
    return () => this.#giveBack(memory);
  }
}

disposeWith(Frame, Symbol.dispose, function () {
  this.close();
});

export class FramePool {
  readonly #free: Uint8Array[] = [];

  acquire(size: FrameSize, format: FrameFormat): Frame {
    const [least, most] = pictureBytes(encodingOf(format), size);
    const free = this.#free.pop();
    const memory = free?.length === most ? free : new Uint8Array(most);
    return new Frame(size, format, least === most ? most : 0, memory, (used) => {
      if (this.#free.length < mostFree) this.#free.push(used);
    });
  }
}
