import { randomBytes } from 'node:crypto';

export function makeToken(): string {
  return randomBytes(24).toString('base64url');
}

/** Says nothing of the token itself: errors end in logs. */
export function checkToken(token: string): void {
  if (typeof token !== 'string' || !/^[A-Za-z0-9_-]{16,128}$/.test(token)) {
    throw new RangeError('a token is 16 to 128 of A-Z a-z 0-9 _ -');
  }
}
