import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';

// A folder for a test's files, removed at its end.
export const folder = fs.mkdtempSync(path.join(os.tmpdir(), 'lumora-test-'));
export const inFolder = (name) => path.join(folder, name);
process.on('exit', () => fs.rmSync(folder, { recursive: true }));
