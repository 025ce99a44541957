import { CodedError } from './errors.js';
import type { HelperExit } from './exit.js';

/**
 * `PROGRAM_NOT_FOUND`: the message says which path has no program, what to install, or that there
 * is no program for this system.
 * `NOT_STARTED`: the system did not start the program; `cause` is the system's error.
 * `ENDED`: the helper ended before it was ready; `exit` says how.
 * `NOT_READY`: the helper did not become ready within ten seconds.
 */
export type StartErrorCode = 'PROGRAM_NOT_FOUND' | 'NOT_STARTED' | 'ENDED' | 'NOT_READY';

/** The helper did not start, or did not become ready. */
export class StartError extends CodedError<StartErrorCode> {
  override readonly name = 'StartError';
  readonly exit: HelperExit | undefined;

  constructor(
    code: StartErrorCode,
    message: string,
    options: ErrorOptions & { exit?: HelperExit } = {},
  ) {
    super(code, message, options);
    this.exit = options.exit;
  }
}
