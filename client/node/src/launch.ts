// Starts the program. The token travels in the environment, which only this user can read; argument
// lists are public.

import { spawn, type ChildProcessByStdio } from 'node:child_process';
import { once } from 'node:events';
import type { Readable, Writable } from 'node:stream';

import { FrameMemory } from './frame_memory.js';
import { findProgram } from './program.js';

export interface LaunchOptions {
  /**
   * Path of the helper; else `LUMORA_VIDEO_PATH`, else the npm package `lumora-video-linux-x64`,
   * else `lumora-video` on the `PATH`.
   */
  program?: string;
  /** Where to listen for stream clients; 127.0.0.1 if missing. */
  host?: string;
  /** 0, or missing: the system chooses. */
  port?: number;
  /** At most 640x360, the default. */
  preview?: { width: number; height: number };
  /**
   * How pixels get to the helper: through its input, the default, or through memory of 25 MB that
   * both have, where there is such memory (/dev/shm).
   */
  frames?: 'pipe' | 'memory';
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

export interface Launched {
  child: HelperProcess;
  /** That the helper has, too. */
  memory: FrameMemory | undefined;
}

const firstFreeDescriptor = 3; // of the child, behind its standard streams

export async function launch(options: LaunchOptions, token: string): Promise<Launched> {
  const program = await findProgram(options.program).catch((error: Error) => {
    throw new StartError(error.message, { cause: error });
  });
  const memory = options.frames === 'memory' ? FrameMemory.make() : undefined;
  const ours = {
    TAVO_VIDEO_TOKEN: token,
    TAVO_FRAME_MEMORY: memory && String(firstFreeDescriptor), // undefined: not in the environment
  };
  const inherited = memory ? [memory.descriptor] : [];
  try {
    const child = spawn(program, argumentsOf(options), {
      env: { ...process.env, ...options.env, ...ours },
      stdio: ['pipe', 'pipe', options.stderr ?? 'inherit', ...inherited],
    }) as HelperProcess;
    await once(child, 'spawn');
    return { child, memory };
  } catch (error) {
    memory?.close();
    throw new StartError((error as Error).message, { cause: error });
  }
}
