// Takes: what was asked for, and how each ended, exactly once.

import { randomUUID } from 'node:crypto';
import { isAbsolute } from 'node:path';

import { deferred, type Deferred } from './deferred.js';
import type { RecordingEvent } from './events.js';
import { commandRecord } from './records.js';
import { checkCaptureTime, uptime } from './timing.js';

export interface TakeOptions {
  /** Absolute, ends in ".mp4"; nothing may exist there. */
  path: string;
  /** Together with `targetFps`; 1080x720 at 60 if both are missing. */
  resolution?: '640x360' | '1080x720' | '1920x1080';
  targetFps?: 15 | 30 | 45 | 60;
  /**
   * The default: every frame of a camera that runs at about `targetFps` counts, in spite of jitter.
   * False: a frame counts only from the next point of a fixed grid on.
   */
  steady?: boolean;
  /** Capture time on the clock of `uptime()`, at most 30 s ago or 50 ms ahead; now, if missing. */
  startedAt?: number;
}

/** The take was refused, failed, or lost its helper; the message is the helper's, if it had one. */
export class TakeError extends Error {
  override readonly name = 'TakeError';
}

type Send = (record: Buffer) => boolean;

export class Take {
  /** The helper's name for the take. */
  readonly id: string;
  readonly path: string;
  /** Where the movie begins on the clock of `uptime()`: what sound is aligned with. */
  readonly startedAt: number;
  /**
   * Resolves with the last event once the movie is safe on disk, under `path` of that event;
   * rejects with a TakeError.
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

  /** Where the movie grows. It stays, and plays, when the helper is killed. */
  get stagingPath(): string {
    return `${this.path}.${this.id}.partial`;
  }

  /** Where the movie ends; undefined until `stop` is called. */
  get stoppedAt(): number | undefined {
    return this.#stoppedAt;
  }

  /**
   * Ends the take behind the frames written so far; returns `saved`. Throws a RangeError, and lets
   * the take run, for a time that the helper would answer by deleting it: see `startedAt` of
   * TakeOptions, and before the take's own.
   */
  stop(options: { stoppedAt?: number } = {}): Promise<RecordingEvent> {
    if (this.#stoppedAt !== undefined) return this.saved;
    // A take may start a little ahead.
    const { stoppedAt = Math.max(uptime(), this.startedAt) } = options;
    checkCaptureTime(stoppedAt);
    if (stoppedAt < this.startedAt) throw new RangeError('a take ends no earlier than it begins');
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

function startCommand(options: TakeOptions): StartCommand {
  const { path, resolution, targetFps, steady = true, startedAt = uptime() } = options;
  if (typeof path !== 'string' || !isAbsolute(path) || !path.endsWith('.mp4')) {
    throw new RangeError('the path of a take is absolute and ends in ".mp4"');
  }
  checkCaptureTime(startedAt);
  const id = randomUUID();
  const record = commandRecord({
    type: 'record_start',
    id,
    path,
    resolution,
    target_fps: targetFps,
    cadence: steady ? 'steady' : undefined,
    started_at: startedAt,
  });
  return { id, path, startedAt, record };
}

export class Takes {
  readonly #open = new Map<string, OpenTake>();
  readonly #send: Send;

  constructor(send: Send) {
    this.#send = send;
  }

  /** Resolves when the helper has accepted the take. */
  start(options: TakeOptions): Promise<Take> {
    const command = startCommand(options);
    const saved = deferred<RecordingEvent>();
    const take = new Take(command, saved.promise, this.#send);
    const started = deferred<Take>();
    if (!this.#send(command.record)) return Promise.reject(new TakeError('the helper has ended'));
    this.#open.set(command.id, { take, started, saved });
    return started.promise;
  }

  handle(event: RecordingEvent): void {
    const open = this.#open.get(event.id);
    if (!open) return; // last events are repeated
    if (event.state === 'failed') return this.#fail(open, event.error);
    // Any event may be the first: the helper does not wait for a parent that is slow to read.
    open.started.resolve(open.take);
    if (event.state !== 'saved') return;
    this.#open.delete(event.id);
    open.saved.resolve(event);
  }

  abandon(reason: string): void {
    for (const open of this.#open.values()) {
      this.#fail(open, `the helper ended before the take was saved (${reason})`);
    }
  }

  #fail(open: OpenTake, reason: string): void {
    this.#open.delete(open.take.id);
    const error = new TakeError(reason);
    open.started.reject(error);
    open.saved.reject(error);
  }
}
