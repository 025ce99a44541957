// Passes the ports of the main process on to the page, which gets nothing else.

import { ipcRenderer } from 'electron';

ipcRenderer.on('ports', ({ ports }) => window.postMessage('ports', '*', ports));
