/** Seconds on the clock that the helper times frames and takes on. */
export function uptime(): number {
  return Number(process.hrtime.bigint()) / 1e9;
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
