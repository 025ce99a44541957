import { chromium } from 'playwright-core';

export { folder, inFolder } from './folder.mjs';

// Chromium gets a software GPU: without one it converts colours with seven bits, and blue is off by 12.
export const launch = (executablePath) => chromium.launch({
  executablePath,
  args: ['--allow-file-access-from-files', '--disable-quic', '--disable-sync', '--use-gl=angle',
    '--use-angle=swiftshader', '--enable-unsafe-swiftshader', '--ignore-gpu-blocklist'],
});
