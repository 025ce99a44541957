/** How the helper ended. */
export interface HelperExit {
  /** Its status, or null when a signal ended it. */
  code: number | null;
  signal: NodeJS.Signals | null;
  /** What it said last when its status is 1. */
  error?: string;
}

export function describeExit({ code, signal, error }: HelperExit): string {
  const cause = signal ?? `status ${code}`;
  return error === undefined ? cause : `${cause}: ${error}`;
}
