// One helper process: what goes in, what it says, how it ends.

import { deferred } from './deferred.js';
import { typedEmitter } from './emitter.js';
import { EventQueue } from './event_queue.js';
import {
  parseEvent,
  type ExitEvent,
  type HelperEvent,
  type ReadyEvent,
  type LineEvent,
} from './events.js';
import { describeExit, type HelperExit } from './exit.js';
import { Feeder, type FrameWrite } from './feeder.js';
import { StartError, type HelperProcess, type Launched } from './launch.js';
import { LineSplitter } from './lines.js';
import {
  checkedId,
  checkSize,
  pixelBytes,
  type FrameId,
  type FrameSize,
  type Pixels,
} from './records.js';
import { Takes, type Take, type TakeOptions } from './take.js';
import { settlesWithin } from './timing.js';

// Milliseconds. With a take to finish the helper ends within 2 s of being asked to.
const endingLimit = 2500;

/** Every event by its type. */
export type HelperEvents = {
  [Type in HelperEvent['type']]: Extract<HelperEvent, { type: Type }>;
};

export class Helper extends typedEmitter<HelperEvents>() {
  /** Never rejects. */
  readonly exited: Promise<HelperExit>;
  /** Stops the helper; where Node knows the symbol. */
  declare [Symbol.asyncDispose]: () => Promise<void>;
  readonly #process: HelperProcess;
  readonly #token: string;
  readonly #feeder: Feeder;
  readonly #takes: Takes;
  readonly #queues = new Set<EventQueue<HelperEvent>>();
  readonly #whenReady = deferred<ReadyEvent>();
  #ready: ReadyEvent | undefined;
  #lastFrame = 0n;
  #error: string | undefined;
  #exit: ExitEvent | undefined;
  #stopping: Promise<HelperExit> | undefined;

  /** @internal */
  constructor({ child, memory }: Launched, token: string) {
    super();
    this.#process = child;
    this.#token = token;
    this.#feeder = new Feeder(child.stdin, memory);
    this.#takes = new Takes((record) => this.#feeder.writeCommand(record));
    const lines = new LineSplitter();
    child.stdout.on('data', (bytes: Buffer) => {
      for (const line of lines.feed(bytes)) this.#handle(parseEvent(line));
    });
    child.on('error', () => undefined); // of a signal that could not be sent
    // "close" comes behind the last event, "exit" may come before it.
    this.exited = new Promise((resolve) => {
      child.on('close', (code, signal) => {
        const exit = { code, signal, ...(this.#error && { error: this.#error }) };
        resolve(exit);
        this.#settle(exit);
      });
    });
  }

  get pid(): number {
    return this.#process.pid as number;
  }

  /** What stream clients must present; a getter of the class, so that no log shows it. */
  get token(): string {
    return this.#token;
  }

  /** Where stream clients connect. */
  get port(): number {
    return this.ready.port;
  }

  /** What the helper said when it was ready. */
  get ready(): ReadyEvent {
    return this.#ready as ReadyEvent;
  }

  /** Frames that went into the helper, and frames that did not. */
  get frames(): { written: number; dropped: number } {
    return { ...this.#feeder.counts };
  }

  /** @internal */
  whenReady(): Promise<ReadyEvent> {
    return this.#whenReady.promise;
  }

  /**
   * Hands over a picture: RGBA, the bottom row first. Returns at once; `rgba` may be used again when
   * `done` settles, with what became of the frame: while one is being written and another waits,
   * the newer one takes the place of the one that waits. Throws a TypeError or a RangeError when
   * size, id or length are not what the helper accepts.
   */
  writeFrame(size: FrameSize, id: FrameId, rgba: Pixels): FrameWrite {
    checkSize(size);
    const pixels = pixelBytes(rgba, size);
    this.#lastFrame = checkedId(id, this.#lastFrame);
    // The frame may wait, and `size` change meanwhile.
    return this.#feeder.writeFrame({ size: { ...size }, id: this.#lastFrame, pixels });
  }

  /**
   * Starts a take behind the frames written so far. Resolves when the helper has accepted it,
   * rejects with a TakeError when it refuses, or a RangeError for what it would refuse.
   */
  async startTake(options: TakeOptions): Promise<Take> {
    return this.#takes.start(options);
  }

  /**
   * Events from now on; the helper's exit is the last. A slow reader loses the oldest (`lost`).
   */
  events(): EventQueue<HelperEvent> {
    const queue = new EventQueue<HelperEvent>(() => this.#queues.delete(queue));
    this.#queues.add(queue);
    if (this.#exit) this.#close(queue, this.#exit);
    return queue;
  }

  /**
   * Ends the helper, which saves a take that runs: by the end of its input, then by SIGTERM, then
   * by SIGKILL.
   */
  stop(): Promise<HelperExit> {
    this.#stopping ??= this.#stop();
    return this.#stopping;
  }

  async #stop(): Promise<HelperExit> {
    this.#feeder.end();
    for (const signal of ['SIGTERM', 'SIGKILL'] as const) {
      if (await settlesWithin(this.exited, endingLimit)) break;
      this.#process.kill(signal);
    }
    return this.exited;
  }

  #handle(event: ReadyEvent | LineEvent): void {
    if (event.type === 'ready') {
      this.#ready = event;
      this.#whenReady.resolve(event);
      return;
    }
    if (event.type === 'recording') this.#takes.handle(event);
    if (event.type === 'failure') this.#error = event.message;
    for (const queue of this.#queues) queue.push(event);
    this.emit(event.type, event);
  }

  #settle(exit: HelperExit): void {
    this.#exit = { type: 'exit', raw: '', ...exit };
    this.#feeder.end();
    const cause = describeExit(exit);
    this.#whenReady.reject(new StartError(`the helper ended at once (${cause})`));
    this.#takes.abandon(cause);
    for (const queue of this.#queues) this.#close(queue, this.#exit);
    this.emit('exit', this.#exit);
  }

  #close(queue: EventQueue<HelperEvent>, exit: ExitEvent): void {
    queue.push(exit);
    queue.end();
    this.#queues.delete(queue);
  }
}

if (Symbol.asyncDispose) {
  Object.defineProperty(Helper.prototype, Symbol.asyncDispose, {
    async value(this: Helper) {
      await this.stop();
    },
  });
}
