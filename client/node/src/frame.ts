// Memory for pictures that is used again. A forgotten frame costs a new buffer, nothing else.

import { disposeWith } from './dispose.js';
import { pictureBytes, type FrameEncoding, type FrameSize } from './frame_format.js';

// One is written, one waits, and two are filled.
const mostFree = 4;
const empty = new Uint8Array(0);

/** Memory of a helper for one picture. It goes back when the frame is published or closed. */
export class Frame {
  readonly size: FrameSize;
  /** Lets `using` close the frame. Missing where Node does not have the symbol. */
  declare [Symbol.dispose]: () => void;
  readonly #giveBack: (memory: Uint8Array) => void;
  #memory: Uint8Array;
  #length: number;

  /** @internal `length` is 0 if pictures of this format have no fixed length. */
  constructor(
    size: FrameSize,
    length: number,
    memory: Uint8Array,
    giveBack: (memory: Uint8Array) => void,
  ) {
    this.size = size;
    this.#length = length;
    this.#memory = memory;
    this.#giveBack = giveBack;
  }

  /**
   * The memory, which has the bytes of an earlier picture. For `mjpeg` it is the room for the
   * largest picture. Empty once the frame is published or closed.
   */
  get pixels(): Uint8Array {
    return this.#memory;
  }

  /** Sets the length of the picture in bytes. An `mjpeg` frame needs it before it is published. */
  setLength(bytes: number): void {
    this.#length = bytes;
  }

  /** Call it for a frame that you don't publish. Does nothing after that. */
  close(): void {
    this.take().giveBack();
  }

  /** @internal Leaves the frame empty. */
  take(): { picture: Uint8Array; giveBack: () => void } {
    const memory = this.#memory;
    this.#memory = empty;
    return {
      picture: memory.subarray(0, this.#length),
      giveBack: () => {
        if (memory !== empty) this.#giveBack(memory);
      },
    };
  }
}

disposeWith(Frame, Symbol.dispose, function () {
  this.close();
});

export class FramePool {
  readonly #free: Uint8Array[] = [];

  acquire(size: FrameSize, encoding: FrameEncoding): Frame {
    const [least, most] = pictureBytes(encoding, size);
    const free = this.#free.pop();
    const memory = free?.length === most ? free : new Uint8Array(most);
    return new Frame(size, least === most ? most : 0, memory, (used) => {
      if (this.#free.length < mostFree) this.#free.push(used);
    });
  }
}
