// Where the helper is.

import { accessSync, constants, statSync } from 'node:fs';
import { delimiter, join, resolve } from 'node:path';

const programName = 'lumora-video';
const variable = 'LUMORA_VIDEO_PATH';

function isExecutable(path: string): boolean {
  try {
    accessSync(path, constants.X_OK);
    return statSync(path).isFile();
  } catch {
    return false;
  }
}

function executable(path: string, source: string): string {
  if (!isExecutable(path)) throw new Error(`${source} names no program: ${path}`);
  return resolve(path); // a bare name would be looked up in PATH
}

/**
 * The helper's path: `program`, else `LUMORA_VIDEO_PATH`, else what `PATH` has. Throws an Error
 * that says what to install.
 */
export function findProgram(
  program?: string,
  environment: Record<string, string | undefined> = process.env,
): string {
  if (program) return executable(program, 'the option "program"');
  const named = environment[variable];
  if (named) return executable(named, variable);
  const found = (environment['PATH'] ?? '')
    .split(delimiter)
    .filter((folder) => folder !== '')
    .map((folder) => join(folder, programName))
    .find(isExecutable);
  if (found) return found;
  throw new Error(
    `${programName} was not found: install the Debian package "${programName}", ` +
      `or name the program in ${variable} or the option "program"`,
  );
}
