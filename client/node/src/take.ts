// Takes: their options, their commands, and the promises that settle when a take starts or ends.

import { randomUUID } from 'node:crypto';
import { dirname, isAbsolute, join } from 'node:path';

import { deferred, type Deferred } from './deferred.js';
import { CodedError, invalid } from './errors.js';
import type { RecordingEvent } from './events.js';
import { commandRecord } from './records.js';
import { checkCaptureTime, uptime } from './timing.js';

export interface TakeOptions {
  /** Absolute, ends in ".mp4". The file must not exist. */
  path: string;
  /** 1080x720 by default. */
  resolution?: '640x360' | '1080x720' | '1920x1080';
  /** 60 by default. */
  targetFps?: 15 | 30 | 45 | 60;
  /**
   * True, the default, keeps almost every frame of a camera that runs at about `targetFps`, despite
   * jitter. False drops frames that come before the next point of a fixed grid.
   */
  steady?: boolean;
  /** When the take starts, by `uptime()`: at most 30 s ago or 50 ms ahead. Default: now. */
  startedAt?: number;
  /**
   * True, the default, keeps what a failed take has recorded, if half a second of it is on the
   * disk. What is only in memory is then written, too, unless the disk made the take fail. See
   * `TakeError`.
   */
  keepFailed?: boolean;
  /** Bytes, up to 2 ** 53. A take is stopped and saved when its file system has less space left. */
  minimumFree?: number;
  /** Bits per second, 250,000 to 50,000,000; 12,000,000 by default. */
  bitRate?: number;
  /** How players turn the picture, in degrees clockwise. */
  rotation?: 0 | 90 | 180 | 270;
  /** True writes what became of each frame to a file beside the movie, "<movie>.frames.csv". */
  frameLog?: boolean;
  /**
   * True adds the sound that `writeSound` gets. Pictures then lie in the movie at their capture
   * times, which the helper reads from their ids (`frameId`). Needs the `sound` of `startHelper`.
   */
  sound?: boolean;
  /** Bits per second, 32,000 to 320,000; 128,000 by default. */
  soundBitRate?: number;
}

/** What is left of a failed take. */
export interface KeptTake {
  path: string;
  frames: number;
  /** Seconds. */
  duration: number;
}

/**
 * `REFUSED`: the helper did not begin the take. `FAILED`: the take began and failed. Both have the
 * helper's words as the message.
 * `NO_ANSWER`: the helper did not answer within ten seconds.
 * `HELPER_ENDED`: the helper ended before the take was saved.
 */
export type TakeErrorCode = 'REFUSED' | 'FAILED' | 'NO_ANSWER' | 'HELPER_ENDED';

export class TakeError extends CodedError<TakeErrorCode> {
  override readonly name = 'TakeError';
  readonly kept: KeptTake | undefined;

  constructor(code: TakeErrorCode, message: string, kept?: KeptTake) {
    super(code, message);
    this.kept = kept;
  }
}

function failureOf(event: RecordingEvent, folder: string): TakeError {
  const { keptPath: name, keptFrames: frames = 0, keptDuration: duration = 0 } = event;
  const kept = name === undefined ? undefined : { path: join(folder, name), frames, duration };
  const isRefused = event.targetFps === undefined; // the answer to a refused start has none
  return new TakeError(isRefused ? 'REFUSED' : 'FAILED', event.error, kept);
}

type Send = (record: Buffer) => boolean;

// Milliseconds. No answer comes if the helper hangs, or if the answer is lost because the parent
// reads slowly. Otherwise the answer comes at once.
const answerLimit = 10_000;
const maximumPathBytes = 3000;

export class Take {
  /** Identifies the take in the helper's events. */
  readonly id: string;
  readonly path: string;
  /** When the movie begins, by `uptime()`. */
  readonly startedAt: number;
  /**
   * Resolves with the last event when the movie is safe on disk, at the `path` of that event.
   * Rejects with a TakeError.
   */
  readonly saved: Promise<RecordingEvent>;
  readonly #send: Send;
  #stoppedAt: number | undefined;

  /** @internal */
  constructor(
    { id, path, startedAt }: StartCommand,
    saved: Promise<RecordingEvent>,
    send: Send,
  ) {
    this.id = id;
    this.path = path;
    this.startedAt = startedAt;
    this.saved = saved;
    this.#send = send;
  }

  /** The file of a running take. It stays, and plays, when the helper is killed. */
  get stagingPath(): string {
    return `${this.path}.${this.id}.partial`;
  }

  /** When the movie ends; undefined until `stop` is called. */
  get stoppedAt(): number | undefined {
    return this.#stoppedAt;
  }

  /**
   * Ends the take at `stoppedAt`, by default now. Returns `saved`; later calls only return it.
   * `stoppedAt` has the limits of `startedAt` in TakeOptions, and must not be before the take's
   * start. For any other time `stop` throws an ArgumentError, and the take goes on.
   */
  stop(options: { stoppedAt?: number } = {}): Promise<RecordingEvent> {
    if (this.#stoppedAt !== undefined) return this.saved;
    // `startedAt` may be a little ahead.
    const { stoppedAt = Math.max(uptime(), this.startedAt) } = options;
    checkCaptureTime(stoppedAt);
    if (stoppedAt < this.startedAt) throw invalid('stoppedAt is before startedAt');
    this.#stoppedAt = stoppedAt;
    this.#send(commandRecord({ type: 'record_stop', id: this.id, stopped_at: stoppedAt }));
    return this.saved;
  }
}

interface OpenTake {
  take: Take;
  started: Deferred<Take>;
  saved: Deferred<RecordingEvent>;
}

interface StartCommand {
  id: string;
  path: string;
  startedAt: number;
  record: Buffer;
}

function checkInteger(name: string, value: number | undefined, least: number, most: number): void {
  if (value === undefined || (Number.isInteger(value) && value >= least && value <= most)) return;
  throw invalid(`${name} must be an integer from ${least} to ${most}`);
}

function startCommand(options: TakeOptions): StartCommand {
  const { path, resolution = '1080x720', targetFps = 60, steady = true } = options;
  const { startedAt = uptime(), keepFailed = true, minimumFree, bitRate } = options;
  const { rotation, frameLog, sound, soundBitRate } = options;
  if (typeof path !== 'string' || !isAbsolute(path) || !path.endsWith('.mp4')) {
    throw invalid('the path of a take must be absolute and end in ".mp4"');
  }
  // A path with half of a surrogate pair is not UTF-8. The helper would end if it got one.
  if (Buffer.from(path).toString() !== path) throw invalid('the path of a take must be UTF-8');
  if (Buffer.byteLength(path) > maximumPathBytes) throw invalid('the path of a take is too long');
  checkCaptureTime(startedAt);
  checkInteger('minimumFree', minimumFree, 0, 2 ** 53);
  checkInteger('bitRate', bitRate, 250_000, 50_000_000);
  checkInteger('soundBitRate', soundBitRate, 32_000, 320_000);
  if (rotation !== undefined && ![0, 90, 180, 270].includes(rotation)) {
    throw invalid('rotation must be 0, 90, 180 or 270');
  }
  const id = randomUUID();
  const record = commandRecord({
    type: 'record_start',
    id,
    path,
    resolution,
    target_fps: targetFps,
    cadence: steady ? 'steady' : undefined,
    started_at: startedAt,
    on_failure: keepFailed ? 'keep' : undefined,
    minimum_free: minimumFree,
    bit_rate: bitRate,
    rotation,
    frame_log: frameLog,
    sound,
    sound_bit_rate: soundBitRate,
  });
  return { id, path, startedAt, record };
}

export class Takes {
  readonly #open = new Map<string, OpenTake>();
  readonly #send: Send;
  readonly #answerLimit: number;

  constructor(send: Send, limit = answerLimit) {
    this.#send = send;
    this.#answerLimit = limit;
  }

  /** Resolves when the helper has accepted the take. */
  start(options: TakeOptions): Promise<Take> {
    const command = startCommand(options);
    const saved = deferred<RecordingEvent>();
    const take = new Take(command, saved.promise, this.#send);
    const started = deferred<Take>();
    if (!this.#send(command.record)) {
      return Promise.reject(new TakeError('HELPER_ENDED', 'the helper has ended'));
    }
    const open = { take, started, saved };
    this.#open.set(command.id, open);
    let isAnswered = false;
    const expire = () => {
      if (isAnswered) return;
      void take.stop(); // perhaps only the answer was lost, and the take runs
      this.#fail(open, new TakeError('NO_ANSWER', 'the helper did not answer'));
    };
    // Node reads a waiting answer before it runs the immediate.
    const timer = setTimeout(() => setImmediate(expire), this.#answerLimit);
    const answered = () => {
      isAnswered = true;
      clearTimeout(timer);
    };
    started.promise.then(answered, answered);
    return started.promise;
  }

  /** Settles when the takes that were told to stop have ended. Never rejects. */
  stopped(): Promise<unknown> {
    const told = [...this.#open.values()].filter(({ take }) => take.stoppedAt !== undefined);
    return Promise.allSettled(told.map(({ saved }) => saved.promise));
  }

  handle(event: RecordingEvent): void {
    const open = this.#open.get(event.id);
    if (!open) return; // the helper repeats the last event of a take
    if (event.state === 'failed') {
      return this.#fail(open, failureOf(event, dirname(open.take.path)));
    }
    // Any event may be the first to arrive: a parent that reads slowly loses events.
    open.started.resolve(open.take);
    if (event.state !== 'saved') return;
    this.#open.delete(event.id);
    open.saved.resolve(event);
  }

  abandon(reason: string): void {
    for (const open of this.#open.values()) {
      const message = `the helper ended before the take was saved (${reason})`;
      this.#fail(open, new TakeError('HELPER_ENDED', message));
    }
  }

  #fail(open: OpenTake, error: TakeError): void {
    this.#open.delete(open.take.id);
    open.started.reject(error);
    open.saved.reject(error);
  }
}
