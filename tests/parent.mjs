// What tests and benchmarks in JavaScript share: a folder, a way to start programs, the helper's
// records, and a small parent of a helper.

import { spawn } from 'node:child_process';
import { once } from 'node:events';
import fs from 'node:fs';
import os from 'node:os';
import readline from 'node:readline';
import { after } from 'node:test';

// Removed when the process exits.
export const folder = fs.mkdtempSync(`${os.tmpdir()}/lumora-test-`);
export const inFolder = (name) => `${folder}/${name}`;
process.on('exit', () => fs.rmSync(folder, { recursive: true, maxRetries: 9 }));

// The environment for programs, with the token of the helper's stream.
export const environment = { ...process.env, TAVO_VIDEO_TOKEN: 'token-of-the-parent-0123' };

// Starts a program that is killed at the end of the test.
export function start(command, args, stdio = ['ignore', 'ignore', 'inherit'], options = {}) {
  const program = spawn(command, args, { stdio, env: environment, ...options });
  after(() => program.kill('SIGKILL'));
  return program;
}

// One record of the helper's input.
export function recordOf(payload, [columns, rows], frameID) {
  const header = Buffer.alloc(16);
  header.writeUInt32BE(payload.length);
  header.writeUInt16BE(columns, 4);
  header.writeUInt16BE(rows, 6);
  header.writeBigUInt64BE(BigInt(frameID), 8);
  return Buffer.concat([header, payload]);
}

export const commandOf = (keys) => recordOf(Buffer.from(JSON.stringify(keys)), [0, 0], 0);

// Starts a helper and feeds it grey pictures, at most one in 16 ms. Each is a little lighter than
// the last, and black follows white. The result's `ids` are those of all frames so far.
export async function startParent(helper) {
  const program = start(helper, [], ['pipe', 'pipe', 'inherit']);
  const lines = readline.createInterface({ input: program.stdout });
  const parent = { program, port: 0, statistics: {}, ids: [] };
  lines.on('line', (line) => {
    const event = JSON.parse(line);
    if (event.type === 'ready') parent.port = event.port;
    else parent.statistics = event; // may come before `ready`
  });
  const ended = once(program, 'exit').then(() => {
    throw new Error(`the helper has ended: ${JSON.stringify(parent.statistics)}`);
  });
  ended.catch(() => undefined);
  while (parent.port === 0) await Promise.race([once(lines, 'line'), ended]);
  const frame = recordOf(Buffer.alloc(640 * 360 * 4), [640, 360], 0);
  const timer = setInterval(() => {
    if (program.stdin.writableLength > 0) return;
    const id = process.hrtime.bigint() / 1000n;
    const number = parent.ids.push(Number(id));
    frame.writeBigUInt64BE(id, 8);
    frame.fill(number % 256, 16);
    frame.fill((number >> 8) * 37 % 256, 16, 16 + 640 * 90 * 4); // so that all pictures differ
    program.stdin.write(frame);
  }, 16);
  program.on('exit', () => clearInterval(timer));
  program.stdin.on('error', () => {});
  return parent;
}
