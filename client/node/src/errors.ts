// Errors have a `code`, so that nobody has to compare messages. This file uses none of Node's
// modules, because a page uses it, too.

export class CodedError<Code extends string> extends Error {
  readonly code: Code;

  constructor(code: Code, message: string, options?: ErrorOptions) {
    super(message, options);
    this.code = code;
  }
}

/**
 * `INVALID_ARGUMENT`: this value or this call is not accepted; the message says why.
 * `FORMAT_CHANGED`: a picture from a page does not have the format that the helper was started for.
 */
export class ArgumentError extends CodedError<'INVALID_ARGUMENT' | 'FORMAT_CHANGED'> {
  override readonly name = 'ArgumentError';
}

export const invalid = (message: string) => new ArgumentError('INVALID_ARGUMENT', message);

export function formatChanged(wanted: string, found: string): ArgumentError {
  const message = `the helper was started for ${wanted}, and the frame is ${found}`;
  return new ArgumentError('FORMAT_CHANGED', message);
}
