// The main process: opens the window, starts the recorder, which owns the helper, and connects the
// page with the recorder.

import { app, BrowserWindow, MessageChannelMain, utilityProcess } from 'electron';
import { join } from 'node:path';

function open(): void {
  const recorder = utilityProcess.fork(join(__dirname, 'recorder.js'), [app.getPath('videos')]);
  const window = new BrowserWindow({ webPreferences: { preload: join(__dirname, 'preload.js') } });

  // This also runs after a reload, when the page needs new ports.
  window.webContents.on('did-finish-load', () => {
    const channels = [1, 2, 3, 4].map(() => new MessageChannelMain());
    const [inner, outer] = [channels.map(({ port1 }) => port1), channels.map(({ port2 }) => port2)];
    recorder.postMessage('ports', inner);
    window.webContents.postMessage('ports', null, outer);
  });

  // Quitting waits for the recorder, which saves a running take before it exits.
  let isOver = false;
  recorder.once('exit', () => {
    isOver = true;
    app.quit();
  });
  app.on('before-quit', (event) => {
    if (isOver) return;
    event.preventDefault();
    recorder.postMessage('quit');
  });

  void window.loadFile('page.html');
}

void app.whenReady().then(open);
