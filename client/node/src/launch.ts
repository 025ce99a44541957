// Starts the program. The token travels in the environment, which only this user can read; argument
// lists are public.

import { spawn, type ChildProcessByStdio } from 'node:child_process';
import { once } from 'node:events';
import type { Readable, Writable } from 'node:stream';

import { findProgram } from './program.js';

export interface LaunchOptions {
  /** Path of the helper; else `LUMORA_VIDEO_PATH`, else `lumora-video` on the `PATH`. */
  program?: string;
  /** Where to listen for stream clients; 127.0.0.1 if missing. */
  host?: string;
  /** 0, or missing: the system chooses. */
  port?: number;
  /** At most 640x360, the default. */
  preview?: { width: number; height: number };
  /** On top of our own environment. */
  env?: Record<string, string>;
  /** Where the helper's standard error goes: ours (the default), nowhere, or a file descriptor. */
  stderr?: 'inherit' | 'ignore' | number;
}

export type HelperProcess = ChildProcessByStdio<Writable, Readable, null>;

/** The helper did not start, or ended before it was ready. */
export class StartError extends Error {
  override readonly name = 'StartError';
}

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

export async function launch(options: LaunchOptions, token: string): Promise<HelperProcess> {
  try {
    const child = spawn(findProgram(options.program), argumentsOf(options), {
      env: { ...process.env, ...options.env, TAVO_VIDEO_TOKEN: token },
      stdio: ['pipe', 'pipe', options.stderr ?? 'inherit'],
    }) as HelperProcess;
    await once(child, 'spawn');
    return child;
  } catch (error) {
    throw new StartError((error as Error).message, { cause: error });
  }
}
