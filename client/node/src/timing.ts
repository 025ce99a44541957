/** Seconds on the clock that the helper times frames and takes on. */
export function uptime(): number {
  return Number(process.hrtime.bigint()) / 1e9;
}

/** The id to give a frame captured at this uptime: whoever watches can tell how old it is. */
export function frameId(uptimeSeconds: number): number {
  return Math.floor(uptimeSeconds * 1e6);
}

// Seconds, as the helper has them.
const maximumAge = 30;
const maximumLead = 0.05;

/** Throws a RangeError for a time that the helper takes for no capture time. */
export function checkCaptureTime(seconds: number): void {
  const age = uptime() - seconds;
  const isAccepted = Number.isFinite(seconds) && seconds >= 0 && age <= maximumAge;
  if (!isAccepted || age < -maximumLead) {
    throw new RangeError(
      `a capture time is uptime(), at most ${maximumAge} s ago or ${maximumLead} s ahead`,
    );
  }
}

/** Whether `promise`, which never rejects, is settled before so many milliseconds have passed. */
export function settlesWithin(promise: Promise<unknown>, milliseconds: number): Promise<boolean> {
  return new Promise((resolve) => {
    const timer = setTimeout(() => resolve(false), milliseconds);
    void promise.then(() => {
      clearTimeout(timer);
      resolve(true);
    });
  });
}
