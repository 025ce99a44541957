import { randomBytes } from 'node:crypto';

import { invalid } from './errors.js';

export function makeToken(): string {
  return randomBytes(24).toString('base64url');
}

/** Throws an ArgumentError for an invalid token. The message is logged, so it lacks the token. */
export function checkToken(token: string): void {
  if (typeof token !== 'string' || !/^[A-Za-z0-9_-]{16,128}$/.test(token)) {
    throw invalid('a token must be 16 to 128 characters of A-Z a-z 0-9 _ -');
  }
}
