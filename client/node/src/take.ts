// Takes: what was asked for, and how each ended, exactly once.

import { randomUUID } from 'node:crypto';
import { isAbsolute } from 'node:path';

import { deferred, type Deferred } from './deferred.js';
import type { RecordingEvent } from './events.js';
import { commandRecord } from './records.js';
import { uptime } from './timing.js';

export interface TakeOptions {
  /** Absolute, ends in ".mp4"; nothing may exist there. */
  path: string;
  /** Together with `targetFps`; 1080x720 at 60 if both are missing. */
  resolution?: '640x360' | '1080x720' | '1920x1080';
  targetFps?: 15 | 30 | 45 | 60;
  /** For a camera that runs at about `targetFps`: every frame counts, in spite of jitter. */
  cadence?: 'steady';
  /** Capture time on the clock of `uptime()`, at most 30 s ago; now, if missing. */
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
  /**
   * Resolves with the last event once the movie is safe on disk, under `path` of that event;
   * rejects with a TakeError.
   */
  readonly saved: Promise<RecordingEvent>;
  readonly #send: Send;
  #stopped = false;

  constructor(id: string, path: string, saved: Promise<RecordingEvent>, send: Send) {
    this.id = id;
    this.path = path;
    this.saved = saved;
    this.#send = send;
  }

  /** Where the movie grows. It stays, and plays, when the helper is killed. */
  get stagingPath(): string {
    return `${this.path}.${this.id}.partial`;
  }

  /** Ends the take behind the frames written so far; returns `saved`. */
  stop({ stoppedAt = uptime() }: { stoppedAt?: number } = {}): Promise<RecordingEvent> {
    if (!this.#stopped) {
      this.#stopped = true;
      this.#send(commandRecord({ type: 'record_stop', id: this.id, stopped_at: stoppedAt }));
    }
    return this.saved;
  }
}

interface OpenTake {
  take: Take;
  started: Deferred<Take>;
  saved: Deferred<RecordingEvent>;
}

function startCommand(id: string, options: TakeOptions): Buffer {
  const { path, resolution, targetFps, cadence, startedAt = uptime() } = options;
  if (typeof path !== 'string' || !isAbsolute(path) || !path.endsWith('.mp4')) {
    throw new RangeError('the path of a take is absolute and ends in ".mp4"');
  }
  return commandRecord({
    type: 'record_start',
    id,
    path,
    resolution,
    target_fps: targetFps,
    cadence,
    started_at: startedAt,
  });
}

export class Takes {
  readonly #open = new Map<string, OpenTake>();
  readonly #send: Send;

  constructor(send: Send) {
    this.#send = send;
  }

  /** Resolves when the helper has accepted the take. */
  start(options: TakeOptions): Promise<Take> {
    const id = randomUUID();
    const command = startCommand(id, options);
    const saved = deferred<RecordingEvent>();
    const take = new Take(id, options.path, saved.promise, this.#send);
    const started = deferred<Take>();
    if (!this.#send(command)) return Promise.reject(new TakeError('the helper has ended'));
    this.#open.set(id, { take, started, saved });
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
