// One helper process: its input, its events, its end.

import { deferred } from './deferred.js';
import { disposeWith } from './dispose.js';
import { typedEmitter } from './emitter.js';
import { EventQueue } from './event_queue.js';
import {
  parseEvent,
  type ExitEvent,
  type HelperEvent,
  type ReadyEvent,
  type LineEvent,
} from './events.js';
import { invalid } from './errors.js';
import { describeExit, type HelperExit } from './exit.js';
import { Feeder, type FrameWrite } from './feeder.js';
import { FramePool, type Frame } from './frame.js';
import type { FrameCounts } from './frame_counts.js';
import { encodingOf, isSameFormat, type FrameFormat, type FrameSize } from './frame_format.js';
import type { HelperProcess } from './launch.js';
import { LineSplitter } from './lines.js';
import {
  checkedId,
  checkSize,
  pixelBytes,
  recordHeader,
  type FrameId,
  type Pixels,
} from './records.js';
import type { SoundFormat } from './sound.js';
import { StartError } from './start_error.js';
import { Takes, type Take, type TakeOptions } from './take.js';
import { frameId, settlesWithin, uptime } from './timing.js';

// Milliseconds since `stop`. A helper that is asked to end does so within 2.2 s, even if it must
// finish a take.
const terminateAfter = 2250;
const killAfter = 4500;
const giveUpAfter = 4900;
// Milliseconds for which the output of a helper that has ended is still read.
const outputAfterExit = 1000;

/** Every event except `ready`, by its type. */
export type HelperEvents = {
  [Type in HelperEvent['type']]: Extract<HelperEvent, { type: Type }>;
};

export class Helper extends typedEmitter<HelperEvents>() {
  /** Never rejects. */
  readonly exited: Promise<HelperExit>;
  /** Stops the helper. Missing where Node does not have the symbol. */
  declare [Symbol.asyncDispose]: () => Promise<void>;
  readonly #process: HelperProcess;
  readonly #token: string;
  readonly #format: FrameFormat;
  readonly #sound: SoundFormat | undefined;
  readonly #feeder: Feeder;
  readonly #pool = new FramePool();
  readonly #takes: Takes;
  readonly #queues = new Set<EventQueue<HelperEvent>>();
  readonly #whenReady = deferred<ReadyEvent>();
  readonly #whenExited = deferred<HelperExit>();
  #ready: ReadyEvent | undefined;
  #lastFrame = 0n;
  #error: string | undefined;
  #exit: ExitEvent | undefined;
  #stopping: Promise<HelperExit> | undefined;

  /** @internal */
  constructor(child: HelperProcess, token: string, format: FrameFormat, sound?: SoundFormat) {
    super();
    this.#process = child;
    this.#token = token;
    this.#format = format;
    this.#sound = sound;
    this.#feeder = new Feeder(child.stdin);
    this.#takes = new Takes((record) => this.#feeder.writeCommand(record));
    const lines = new LineSplitter();
    child.stdout.on('data', (bytes: Buffer) => {
      // A listener that throws must not keep the next lines from their listeners.
      for (const line of lines.feed(bytes)) queueMicrotask(() => this.#handle(parseEvent(line)));
    });
    child.on('error', () => undefined); // a signal could not be sent
    // Node emits "close" after it has read the helper's last line, and "exit" perhaps before that.
    // While another process holds the output open, "close" does not come.
    child.on('close', (code, signal) => this.#settle(code, signal));
    child.on('exit', () => {
      const timer = setTimeout(this.#giveUpSoon, outputAfterExit);
      child.once('close', () => clearTimeout(timer));
    });
    this.exited = this.#whenExited.promise;
  }

  get pid(): number {
    return this.#process.pid as number;
  }

  /** The token that stream clients must send. It is a getter, so logs of a Helper lack it. */
  get token(): string {
    return this.#token;
  }

  /** The format of the frames, as `startHelper` got it. */
  get format(): FrameFormat {
    return this.#format;
  }

  /** The port for stream clients. */
  get port(): number {
    return this.ready.port;
  }

  /** The helper's `ready` event. */
  get ready(): ReadyEvent {
    return this.#ready as ReadyEvent;
  }

  get frameCounts(): FrameCounts {
    return { ...this.#feeder.counts };
  }

  /** @internal */
  whenReady(): Promise<ReadyEvent> {
    return this.#whenReady.promise;
  }

  /**
   * Memory for the next frame. Undefined while the previous frame waits to be written, unless a
   * take was started or stopped since that frame was published. Also undefined once the helper is
   * stopping or has ended. Skip the camera's frame then; it counts as dropped. Throws an
   * ArgumentError for a size that the helper does not accept.
   */
  acquireFrame(size: FrameSize): Frame | undefined {
    checkSize(size);
    return this.#feeder.skipsFrame() ? undefined : this.#pool.acquire(size, this.#format);
  }

  /**
   * Queues a frame of `acquireFrame`, and returns at once. The frame is empty after that. `id` is
   * as in `writeFrame`. Throws an ArgumentError if the id is not above the last id, or if the frame
   * has another format than the helper, was already published or closed, or is `mjpeg` and has no
   * length yet. After an error, the frame still has its memory unless it was published or closed.
   */
  publish(frame: Frame, id?: FrameId): FrameWrite {
    if (!isSameFormat(frame.format, this.#format)) {
      throw invalid("the frame has another format than this helper's");
    }
    const write = this.writeFrame(frame.size, frame.picture(), id);
    void write.done.then(frame.take());
    return write;
  }

  /**
   * Queues a picture in the helper's format, and returns at once. `pixels` may be reused when
   * the result's `done` resolves. It resolves with `written`, or with `dropped` if a newer frame
   * replaced this one, or if the helper is stopping or has ended. By default the `id` is the uptime
   * now in microseconds, but at least one more than the last id. Throws an ArgumentError for a
   * size, a length or an id that the helper does not accept.
   */
  writeFrame(size: FrameSize, pixels: Pixels, id: FrameId = this.#nextId()): FrameWrite {
    checkSize(size);
    const bytes = pixelBytes(pixels, size, encodingOf(this.#format));
    this.#lastFrame = checkedId(id, this.#lastFrame);
    return this.#feeder.writeFrame(recordHeader(bytes.length, size, this.#lastFrame), bytes);
  }

  /**
   * Queues a copy of these samples, which are interleaved. `capturedAt` is the `uptime()` of the
   * first sample; by default the last sample counts as captured now. Returns false if the sound was
   * skipped: more than two seconds of sound would wait, the first sample is more than 50 ms in the
   * future, or the helper is ending. Throws an ArgumentError if the channels have different numbers
   * of samples, if `capturedAt` is negative or not a number, or if `startHelper` got no `sound`.
   */
  writeSound(samples: Int16Array, capturedAt?: number): boolean {
    const format = this.#sound;
    if (!format) throw invalid('the helper was started without sound');
    const seconds = samples.length / format.channels / format.rate;
    return this.#feeder.writeSound(samples, format, capturedAt ?? uptime() - seconds);
  }

  /**
   * Starts a take after the frames written so far. Resolves when the helper has accepted it.
   * Rejects with a TakeError when the helper refuses, ends or does not answer for 10 s, or with an
   * ArgumentError for most options that the helper would refuse.
   */
  async startTake(options: TakeOptions): Promise<Take> {
    return this.#takes.start(options);
  }

  /**
   * Returns the events from now on. `exit` is the last. A slow reader loses the oldest events, and
   * `lost` counts them.
   */
  events(): EventQueue<HelperEvent> {
    const queue = new EventQueue<HelperEvent>(() => this.#queues.delete(queue));
    this.#queues.add(queue);
    if (this.#exit) this.#close(queue, this.#exit);
    return queue;
  }

  /**
   * Waits for the takes that were told to stop, then closes the input. The helper saves a running
   * take and ends. If it has not ended in time, it gets SIGTERM, then SIGKILL. Resolves within 5 s.
   * If the system has not ended the helper by then, the result names SIGKILL.
   */
  stop(): Promise<HelperExit> {
    this.#stopping ??= this.#stop();
    return this.#stopping;
  }

  // The uptime in microseconds, but at least one more than the last id.
  #nextId(): bigint {
    const [now, next] = [BigInt(frameId()), this.#lastFrame + 1n];
    return now > next ? now : next;
  }

  async #stop(): Promise<HelperExit> {
    const timers = [
      setTimeout(() => this.#process.kill('SIGTERM'), terminateAfter),
      setTimeout(() => this.#process.kill('SIGKILL'), killAfter),
      setTimeout(this.#giveUpSoon, giveUpAfter),
    ];
    this.#feeder.endFrames();
    // Waits for the takes that were told to stop. If the input closed earlier, a take might end
    // at once, not at its `stoppedAt`.
    await settlesWithin(this.#takes.stopped(), terminateAfter);
    this.#feeder.end();
    const exit = await this.exited;
    timers.forEach(clearTimeout);
    return exit;
  }

  // If the timer is late, Node still reads waiting output before it runs the immediate.
  readonly #giveUpSoon = () => void setImmediate(() => this.#giveUp());

  // Called if SIGKILL has not ended the helper, or if the helper has ended but another process
  // keeps the helper's pipes open.
  #giveUp(): void {
    const { stdio, exitCode, signalCode } = this.#process;
    for (const pipe of stdio) pipe?.destroy();
    this.#process.unref();
    this.#settle(exitCode, exitCode === null ? (signalCode ?? 'SIGKILL') : null);
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

  #settle(code: number | null, signal: NodeJS.Signals | null): void {
    if (this.#exit) return;
    const exit = { code, signal, ...(this.#error && { error: this.#error }) };
    this.#whenExited.resolve(exit);
    this.#exit = { type: 'exit', raw: '', ...exit };
    this.#feeder.end();
    const cause = describeExit(exit);
    const message = `the helper ended at once (${cause})`;
    this.#whenReady.reject(new StartError('ENDED', message, { exit }));
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

disposeWith(Helper, Symbol.asyncDispose, async function () {
  await this.stop();
});
