import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';

// What a test leaves on the disk while it runs.
export const folder = fs.mkdtempSync(path.join(os.tmpdir(), 'lumora-test-'));
export const inFolder = (name) => path.join(folder, name);
process.on('exit', () => fs.rmSync(folder, { recursive: true }));
