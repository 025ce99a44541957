// Starts the program. The token is passed in the environment, which only this user can read;
// command lines are public.

import { spawn, type ChildProcessByStdio } from 'node:child_process';
import { once } from 'node:events';
import type { Readable, Writable } from 'node:stream';

import type { FrameFormat } from './frame_format.js';
import { findProgram } from './program.js';
import type { SoundFormat } from './sound.js';
import { StartError } from './start_error.js';

export interface LaunchOptions {
  /**
   * Path of the helper. The default is `LUMORA_VIDEO_PATH`, else the npm package
   * `lumora-video-linux-x64`, else `lumora-video` on the `PATH`.
   */
  program?: string;
  /** The address to listen on for stream clients; 127.0.0.1 by default. */
  host?: string;
  /** 0, the default, lets the system choose. */
  port?: number;
  /** At most 640x360. Default: `TAVO_PREVIEW_WIDTH` and `TAVO_PREVIEW_HEIGHT`, else 640x360. */
  preview?: { width: number; height: number };
  /** The format of all frames, for example `nv12,bt709`. By default RGBA, the bottom row first. */
  format?: FrameFormat;
  /** The format of the sound for `writeSound`. Without it, takes have no sound. */
  sound?: SoundFormat;
  /** Variables that the helper gets in addition to those of this process. */
  env?: Record<string, string>;
  /**
   * Where the helper's standard error goes: inherited by default, ignored, a descriptor, or a
   * function that gets the text in pieces of any length.
   */
  stderr?: 'inherit' | 'ignore' | number | ((text: string) => void);
}

export type HelperProcess = ChildProcessByStdio<Writable, Readable, Readable | null>;

function argumentsOf({ host, port, preview }: LaunchOptions): string[] {
  const values = {
    '--host': host,
    '--port': port,
    '--preview-width': preview?.width,
    '--preview-height': preview?.height,
  };
  return Object.entries(values).flatMap(([name, value]) =>
    value === undefined ? [] : [name, String(value)],
  );
}

function environmentOf({ env, format, sound }: LaunchOptions, token: string): NodeJS.ProcessEnv {
  return {
    ...process.env,
    ...env,
    TAVO_VIDEO_TOKEN: token,
    TAVO_FRAME_FORMAT: format, // `undefined` removes what is inherited
    TAVO_SOUND: sound && `${sound.rate}x${sound.channels}`,
    TAVO_FRAME_MEMORY: undefined, // it names a descriptor, and the helper inherits none
  };
}

export async function launch(options: LaunchOptions, token: string): Promise<HelperProcess> {
  const { stderr = 'inherit' } = options;
  const program = await findProgram(options.program);
  try {
    const child = spawn(program, argumentsOf(options), {
      env: environmentOf(options, token),
      stdio: ['pipe', 'pipe', typeof stderr === 'function' ? 'pipe' : stderr],
    }) as HelperProcess;
    if (typeof stderr === 'function') child.stderr?.setEncoding('utf8').on('data', stderr);
    await once(child, 'spawn');
    return child;
  } catch (cause) {
    throw new StartError('NOT_STARTED', (cause as Error).message, { cause });
  }
}
