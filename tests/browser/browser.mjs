// Starts the browser of a test. The test's last argument is the browser's path.

import { after } from 'node:test';
import { chromium } from 'playwright-core';

// SwiftShader is a software GPU. Without it, Chromium converts colours with seven bits, and blue is
// off by 12 of 255.
export const browser = await chromium.launch({
  executablePath: process.argv.at(-1),
  args: ['--allow-file-access-from-files', '--disable-quic', '--disable-sync', '--use-gl=angle',
    '--use-angle=swiftshader', '--enable-unsafe-swiftshader', '--ignore-gpu-blocklist',
    '--use-fake-device-for-media-stream', '--use-fake-ui-for-media-stream'],
});
after(() => browser.close());
