import { chromium } from 'playwright-core';

export { folder, inFolder } from './folder.mjs';

// With a GPU in software: without any, Chromium converts colours with seven bits, blue off by 12.
export const launch = (executablePath) => chromium.launch({
  executablePath,
  args: ['--allow-file-access-from-files', '--disable-quic', '--disable-sync', '--use-gl=angle',
    '--use-angle=swiftshader', '--enable-unsafe-swiftshader', '--ignore-gpu-blocklist'],
});
