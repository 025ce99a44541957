// Finishes takes that a crash or a power cut has interrupted.

import { execFile } from 'node:child_process';
import { dirname, join, resolve } from 'node:path';
import { promisify } from 'node:util';

import { CodedError } from './errors.js';
import { executable, findProgram } from './program.js';

export interface RecoveredTake {
  /** The path that the take's file had before it was recovered. */
  staging: string;
  /** The path of the movie; empty if there is none. */
  path: string;
  /** Frames in the movie. */
  frames: number;
  /** Seconds of the movie. */
  duration: number;
  /** Why the file keeps its old name; empty if it has a new one. */
  left: string;
}

/** `RECOVERY_FAILED`: the folder can't be read, or `lumora-recover` can't be run. */
export class RecoverError extends CodedError<'RECOVERY_FAILED'> {
  override readonly name = 'RecoverError';
}

/**
 * Makes an ordinary movie of each interrupted take in a folder. Does not touch a take that has no
 * picture, or that a helper may still be recording; `left` says why. `program` is the path of the
 * helper, as in `startHelper`; `lumora-recover` must be in the same folder. Rejects with a
 * RecoverError, or with a StartError if one of the two programs is missing.
 */
export async function recoverTakes(folder: string, program?: string): Promise<RecoveredTake[]> {
  const helper = await findProgram(program);
  const recover = executable(join(dirname(helper), 'lumora-recover'), 'beside the helper');
  try {
    const { stdout } = await promisify(execFile)(recover, ['--json', resolve(folder)], {
      maxBuffer: Infinity,
    });
    const lines = stdout.split('\n').filter((line) => line !== '');
    return lines.map((line) => JSON.parse(line) as RecoveredTake);
  } catch (cause) {
    throw new RecoverError('RECOVERY_FAILED', (cause as Error).message, { cause });
  }
}
