// A stream into which a page pipes its camera. Frames that come while the helper is behind are
// dropped before they are copied, so that the camera never waits. Uses none of Node's modules.

import { invalid } from './errors.js';
import type { FrameCounts, FrameOutcome } from './frame_counts.js';
import type { FrameFormat } from './frame_format.js';
import {
  copyPicture,
  copyVideoFrame,
  videoFrameFormat,
  type Bytes,
  type CameraFrame,
  type FrameCopy,
  type Picture,
} from './video_frame.js';

/** What travels from the page to the helper. */
export interface PostedFrame extends FrameCopy {
  format: FrameFormat;
}

/** Writes a frame. Resolves when the frame's `pixels` may be reused. */
export type FrameWriter = (frame: PostedFrame) => Promise<FrameOutcome>;

export interface FrameSinkOptions {
  /**
   * The helper's format. By default it is the first VideoFrame's format. If the helper does not
   * accept that format, the default is `rgba,top`, and the browser converts the frames. Pictures
   * that are no VideoFrames need this option.
   */
  format?: FrameFormat;
  /** Called for each dropped frame, with the counts. */
  onDrop?: (counts: Readonly<FrameCounts>) => void;
}

// The format of a sink without the option `format`. The sink's first frame decides.
function ownFormat(frame: CameraFrame | Picture): FrameFormat {
  if ('pixels' in frame) throw invalid('pictures that are no VideoFrames need the option "format"');
  return videoFrameFormat(frame) ?? 'rgba,top';
}

// One frame is being written, and one waits in the `Helper` object. A third would replace the frame
// that waits.
const mostUnanswered = 2;

export class FrameSink {
  /** A frame that failed counts neither as written nor as dropped. */
  readonly counts: FrameCounts = { written: 0, dropped: 0 };
  /**
   * Takes VideoFrames and pictures. Copies both, and does not wait for the helper. Closes each
   * VideoFrame that it takes. It takes none after it has failed. A picture's memory may be reused
   * when the stream's `write` of it resolves. Fails with an ArgumentError, or with the error of the
   * VideoFrame's `copyTo`, of the FrameWriter or of `onDrop`.
   */
  readonly writable: WritableStream<CameraFrame | Picture>;
  readonly #write: FrameWriter;
  readonly #options: FrameSinkOptions;
  readonly #free: Bytes[] = [];
  #format: FrameFormat | undefined;
  #unanswered = 0;

  constructor(write: FrameWriter, options: FrameSinkOptions = {}) {
    this.#write = write;
    this.#options = options;
    this.#format = options.format;
    this.writable = new WritableStream({
      write: (frame: CameraFrame | Picture, controller) =>
        this.#take(frame, (error) => controller.error(error)),
    });
  }

  async #take(frame: CameraFrame | Picture, fail: (error: unknown) => void): Promise<void> {
    try {
      if (this.#unanswered === mostUnanswered) return this.#count('dropped');
      const format = (this.#format ??= ownFormat(frame));
      const copy = await this.#copy(frame, format);
      void this.#post({ format, ...copy }).then(() => this.#free.push(copy.pixels), fail);
    } finally {
      if ('close' in frame) frame.close();
    }
  }

  async #copy(frame: CameraFrame | Picture, format: FrameFormat): Promise<FrameCopy> {
    const reuse = this.#free.pop();
    return 'pixels' in frame ? copyPicture(frame, reuse) : copyVideoFrame(frame, format, reuse);
  }

  async #post(frame: PostedFrame): Promise<void> {
    this.#unanswered += 1;
    const outcome = await this.#write(frame);
    this.#unanswered -= 1;
    this.#count(outcome);
  }

  #count(outcome: FrameOutcome): void {
    this.counts[outcome] += 1;
    if (outcome === 'dropped') this.#options.onDrop?.(this.counts);
  }
}

/** The answer to a posted frame. */
export type FrameAnswer = { outcome: FrameOutcome } | { error: FrameFailure };
type FrameFailure = { code?: string; message: string };

const errorOf = ({ code, message }: FrameFailure) => Object.assign(new Error(message), { code });

/** A page's MessagePort. */
export interface PagePort {
  onmessage: ((event: any) => void) | null;
  addEventListener(type: 'close', listener: () => void): void;
  postMessage(message: PostedFrame): void;
}

/**
 * Writes frames through a port, at whose other end `acceptFrames` answers. They are copied on the
 * way, because Electron loses the data of messages that transfer memory. When the other end is
 * gone, writing fails with the code `PORT_CLOSED` if the browser's ports have a `close` event. In
 * other browsers it never resolves.
 */
export function throughPort(port: PagePort): FrameWriter {
  const waiting: ((answer: FrameAnswer) => void)[] = [];
  const message = 'the process with the helper has closed the port';
  const closed: FrameFailure = { code: 'PORT_CLOSED', message };
  let isClosed = false;
  port.onmessage = ({ data }: { data: FrameAnswer }) => waiting.shift()?.(data);
  port.addEventListener('close', () => {
    isClosed = true;
    for (const answer of waiting.splice(0)) answer({ error: closed });
  });
  return async (frame) => {
    if (isClosed) throw errorOf(closed);
    port.postMessage(frame);
    const answer = await new Promise<FrameAnswer>((resolve) => waiting.push(resolve));
    if ('outcome' in answer) return answer.outcome;
    throw errorOf(answer.error);
  };
}
