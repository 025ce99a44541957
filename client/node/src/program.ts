// Finds the helper program.

import { accessSync, constants, statSync } from 'node:fs';
import { delimiter, resolve } from 'node:path';

import { StartError } from './start_error.js';

const programName = 'lumora-video';
const variable = 'LUMORA_VIDEO_PATH';
const platform = `${process.platform}-${process.arch}`;
const platformPackage = `${programName}-${platform}`;

function isExecutable(path: string): boolean {
  try {
    accessSync(path, constants.X_OK);
    return statSync(path).isFile();
  } catch {
    return false;
  }
}

const notFound = (message: string) => new StartError('PROGRAM_NOT_FOUND', message);

/**
 * Returns `path`, made absolute. Throws a StartError if it names no program. The message says where
 * the path is from: `source`.
 */
export function executable(path: string, source: string): string {
  if (!isExecutable(path)) throw notFound(`there is no program at ${path} (${source})`);
  return resolve(path); // or `spawn` would look up a bare name in the PATH
}

// The program in the npm package for this platform, if that is installed.
async function packagedProgram(): Promise<string | undefined> {
  try {
    const { path } = (await import(platformPackage)) as { path: string };
    return isExecutable(path) ? path : undefined;
  } catch {
    return undefined;
  }
}

/**
 * Returns the path of the helper: `program`, else `LUMORA_VIDEO_PATH`, else the program in the npm
 * package for this platform, else the one on the `PATH`. Rejects with a StartError that says which
 * path has no program, what to install, or that there is no helper for this platform.
 */
export async function findProgram(
  program?: string,
  environment: Record<string, string | undefined> = process.env,
): Promise<string> {
  if (program) return executable(program, 'the option "program"');
  const named = environment[variable];
  if (named) return executable(named, variable);
  const packaged = await packagedProgram();
  if (packaged) return packaged;
  const found = (environment['PATH'] ?? '')
    .split(delimiter)
    .filter((folder) => folder !== '')
    .map((folder) => resolve(folder, programName))
    .find(isExecutable);
  if (found) return found;
  if (process.platform !== 'linux') throw notFound(`there is no lumora-video for ${platform}`);
  const npm = platform === 'linux-x64' ? `npm package "${platformPackage}" or the ` : '';
  throw notFound(
    `${programName} was not found: install the ${npm}Debian package "${programName}", or name ` +
      `the program in ${variable} or the option "program"`,
  );
}
