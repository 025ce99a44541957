// The helper's events: one JSON object per line of its standard output, then its exit. Keys are in
// camel case here; `raw` is the original line.

import type { HelperExit } from './exit.js';

export interface ReadyEvent {
  type: 'ready';
  raw: string;
  /** The port for stream clients. */
  port: number;
  recordingWidth: number;
  recordingHeight: number;
  recordingHd: boolean;
  recordingMirror: boolean;
  recordingProfiles: boolean;
  recordingTimebase: boolean;
  /** Only if the helper was started with `sound`. */
  recordingSound?: true;
}

/** Counters run from the start of the helper. */
export interface StatsEvent extends Partial<DeliveryStats> {
  type: 'stats';
  raw: string;
  clients: number;
  pendingHello: number;
  encodedFrames: number;
  encodeMs: number;
  droppedRaw: number;
  droppedPeers: number;
  encodeInflight: number;
  /**
   * Records of sound that were dropped: they came too late or too early, or too much sound waited.
   * Only in events with `DeliveryStats`, if the helper was started with `sound`.
   */
  droppedSound?: number;
}

/** At most one `stats` event a second has these. */
export interface DeliveryStats {
  creditDrops: number;
  sendDrops: number;
  resyncWaitDrops: number;
  idrResyncs: number;
  ackRttMs: number;
  ackOldestMs: number;
  ackRttMaxMs: number;
  maxPendingAcks: number;
  maxUnackedObserved: number;
  previewWidth: number;
  previewHeight: number;
  recordWidth: number;
  recordHeight: number;
  recordEncodedFrames: number;
  recordEncodeMs: number;
  recordEncoderFailures: number;
  maxMovieWorkObserved: number;
}

export type TakeState = 'starting' | 'recording' | 'finishing' | 'saved' | 'failed';

export interface RecordingEvent {
  type: 'recording';
  raw: string;
  id: string;
  state: TakeState;
  path: string;
  /** Why the take failed or was saved under another name; else empty. */
  error: string;
  /** Seconds; final from `finishing` on, but 0 if the take failed. */
  duration: number;
  /** Frames written. A `stoppedAt` in the past may remove the last ones from the movie again. */
  frames: number;
  dropped: number;
  width: number;
  height: number;
  /** `throttled`, `targetFps` and `recentFps` are missing when a start was refused. */
  throttled?: number;
  targetFps?: number;
  recentFps?: number;
  /** In `saved`: the number of frames in the file. Missing if the take's `keepFailed` was false. */
  framesInMovie?: number;
  /** While the take records: how long the space above `minimumFree` lasts. */
  secondsLeft?: number;
  /** The take was stopped because space was short. */
  stoppedFor?: 'minimum_free';
  /** In the last event of a take: why its log of frames is incomplete, missing or misnamed. */
  frameLogError?: string;
  /** Of takes with sound: how often silence was inserted or sound cut to match the pictures. */
  soundGaps?: number;
  /** In the last event of a take with sound: seconds of the movie for which no sound came. */
  soundMissing?: number;
  /** A failed take may leave a file in the folder of `path`: its name, its frames, its seconds. */
  keptPath?: string;
  keptFrames?: number;
  keptDuration?: number;
}

/**
 * The helper's "error" line. It comes just before the helper ends, with status 1, or with status 0
 * if it was already ending. The event has another name here because Node throws when an `error`
 * event has no listener.
 */
export interface FailureEvent {
  type: 'failure';
  raw: string;
  message: string;
}

/** A line that this version does not know. */
export interface UnknownEvent {
  type: 'unknown';
  raw: string;
}

/** Always the last event. */
export interface ExitEvent extends HelperExit {
  type: 'exit';
  raw: '';
}

/** The events of a running helper. */
export type LineEvent = StatsEvent | RecordingEvent | FailureEvent | UnknownEvent;

export type HelperEvent = LineEvent | ExitEvent;

// Maps the `type` in a line to the `type` of the event that is made of it.
const types = new Map<unknown, string>([
  ['ready', 'ready'],
  ['stats', 'stats'],
  ['recording', 'recording'],
  ['error', 'failure'],
]);

const camelCase = (key: string) =>
  key.replace(/_(.)/g, (_, letter: string) => letter.toUpperCase());

function parseFields(line: string): Record<string, unknown> {
  try {
    const entries = Object.entries(JSON.parse(line) as object);
    return Object.fromEntries(entries.map(([key, value]) => [camelCase(key), value]));
  } catch {
    return {};
  }
}

export function parseEvent(line: string): ReadyEvent | LineEvent {
  const fields = parseFields(line);
  const type = types.get(fields['type']);
  return type === undefined
    ? { type: 'unknown', raw: line }
    : ({ ...fields, type, raw: line } as unknown as ReadyEvent | LineEvent);
}
