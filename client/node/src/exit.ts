/** How the helper ended. */
export interface HelperExit {
  /** The exit status; null when a signal ended the helper. */
  code: number | null;
  signal: NodeJS.Signals | null;
  /** The message of its `failure` event, if there was one. */
  error?: string;
}

export function describeExit({ code, signal, error }: HelperExit): string {
  const cause = signal ?? `status ${code}`;
  return error === undefined ? cause : `${cause}: ${error}`;
}
