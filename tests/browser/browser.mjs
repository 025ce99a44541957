import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import { chromium } from 'playwright-core';

// What a test leaves on the disk while it runs.
export const folder = fs.mkdtempSync(path.join(os.tmpdir(), 'lumora-browser-'));
export const inFolder = (name) => path.join(folder, name);
process.on('exit', () => fs.rmSync(folder, { recursive: true }));

// With a GPU in software: without any, Chromium converts colours with seven bits, blue off by 12.
export const launch = (executablePath) => chromium.launch({
  executablePath,
  args: ['--allow-file-access-from-files', '--disable-quic', '--disable-sync', '--use-gl=angle',
    '--use-angle=swiftshader', '--enable-unsafe-swiftshader', '--ignore-gpu-blocklist'],
});
