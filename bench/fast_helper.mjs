// A helper whose clock runs faster than the real one.

import { spawn } from 'node:child_process';
import { once } from 'node:events';
import readline from 'node:readline';
import { environment } from '../tests/parent.mjs';

// Starts a helper for NV12, and waits until it is ready. `library` is built from tests/faults. It
// makes the helper's clock run `speed` times as fast as the real one. `lines` emits each event
// under its state, or under its type if it has no state. An event that reports a failure ends this
// script with an uncaught error.
export async function startFastHelper(helper, library, speed, variables = {}) {
  const program = spawn(helper, [], { stdio: ['pipe', 'pipe', 'inherit'], env: { ...environment,
    TAVO_FRAME_FORMAT: 'nv12', TAVO_H264_ENCODER: 'software', LD_PRELOAD: library,
    LUMORA_SPEED: speed, ...variables } });
  const lines = readline.createInterface({ input: program.stdout });
  lines.on('line', (line) => {
    const event = JSON.parse(line);
    if (event.state === 'failed' || event.type === 'error') throw new Error(line);
    lines.emit(event.state ?? event.type, event);
  });
  await once(lines, 'ready');
  return { program, lines };
}
