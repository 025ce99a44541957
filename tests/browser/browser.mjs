import { chromium } from 'playwright-core';

// With a software GPU: without one, Chromium converts colours with seven bits, and blue is off by 12.
export const launch = (executablePath) => chromium.launch({
  executablePath,
  args: ['--allow-file-access-from-files', '--disable-quic', '--disable-sync', '--use-gl=angle',
    '--use-angle=swiftshader', '--enable-unsafe-swiftshader', '--ignore-gpu-blocklist',
    '--use-fake-device-for-media-stream', '--use-fake-ui-for-media-stream'],
});
