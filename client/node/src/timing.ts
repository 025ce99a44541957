import { invalid } from './errors.js';

/** The time now, in seconds, on the clock that the helper uses for frames, sound and takes. */
export function uptime(): number {
  return Number(process.hrtime.bigint()) / 1e9;
}

/** The id for a frame captured at this uptime. Viewers can tell from it how old the frame is. */
export function frameId(capturedAt = uptime()): number {
  return Math.round(capturedAt * 1e6);
}

// The helper's limits for capture times, in seconds.
const maximumAge = 30;
const maximumLead = 0.05;

/** Whether this time is too far in the future: the helper drops sound with such a time. */
export function isAhead(capturedAt: number): boolean {
  return capturedAt > uptime() + maximumLead;
}

/** Throws an ArgumentError for a capture time that the helper does not accept. */
export function checkCaptureTime(seconds: number): void {
  const age = uptime() - seconds;
  const isAccepted = Number.isFinite(seconds) && seconds >= 0 && age <= maximumAge;
  if (!isAccepted || age < -maximumLead) {
    throw invalid(
      `a capture time must be a time of uptime(), at most ${maximumAge} s ago or ${maximumLead} s ahead`,
    );
  }
}

/** Whether `promise`, which must not reject, settles within this time. */
export function settlesWithin(promise: Promise<unknown>, milliseconds: number): Promise<boolean> {
  return new Promise((resolve) => {
    const timer = setTimeout(() => resolve(false), milliseconds);
    void promise.then(() => {
      clearTimeout(timer);
      resolve(true);
    });
  });
}
