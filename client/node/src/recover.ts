// Finishes takes that a crash or a power cut has interrupted.

import { execFile } from 'node:child_process';
import { dirname, join, resolve } from 'node:path';
import { promisify } from 'node:util';

import { findProgram } from './program.js';

export interface RecoveredTake {
  /** The file's old path. */
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

/**
 * Makes an ordinary movie of each interrupted take in a folder. Does not touch takes that are being
 * recorded. Needs the program `lumora-recover` in the helper's folder. `program` is the helper, as
 * in `startHelper`. Rejects if the folder can't be read.
 */
export async function recoverTakes(folder: string, program?: string): Promise<RecoveredTake[]> {
  const recover = join(dirname(await findProgram(program)), 'lumora-recover');
  const { stdout } = await promisify(execFile)(recover, ['--json', resolve(folder)], {
    maxBuffer: Infinity,
  });
  const lines = stdout.split('\n').filter((line) => line !== '');
  return lines.map((line) => JSON.parse(line) as RecoveredTake);
}
