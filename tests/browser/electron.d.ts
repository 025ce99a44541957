// What the Electron example uses of Electron's declarations, by its documentation. The real ones
// come with a hundred megabytes of Electron.

/// <reference types="node" />

interface Message {
  data: any;
  ports: MessagePortMain[];
}

export interface MessagePortMain {
  on(event: 'message', listener: (message: Message) => void): this;
  on(event: 'close', listener: () => void): this;
  off(event: 'message', listener: (message: Message) => void): this;
  off(event: 'close', listener: () => void): this;
  postMessage(message: any, transfer?: MessagePortMain[]): void;
  start(): void;
}

export class MessageChannelMain {
  port1: MessagePortMain;
  port2: MessagePortMain;
}

interface UtilityProcess {
  once(event: 'exit', listener: (code: number) => void): this;
  postMessage(message: any, transfer?: MessagePortMain[]): void;
}

export const utilityProcess: { fork(path: string, args?: string[]): UtilityProcess };

export class BrowserWindow {
  constructor(options: { webPreferences: { preload: string } });
  loadFile(path: string): Promise<void>;
  readonly webContents: {
    on(event: 'did-finish-load', listener: () => void): void;
    postMessage(channel: string, message: any, transfer?: MessagePortMain[]): void;
  };
}

export const app: {
  whenReady(): Promise<void>;
  getPath(name: 'videos'): string;
  quit(): void;
  on(event: 'before-quit', listener: (event: { preventDefault(): void }) => void): void;
};

export const ipcRenderer: {
  on(channel: string, listener: (event: { ports: MessagePort[] }) => void): void;
};

declare global {
  namespace NodeJS {
    interface Process {
      parentPort: { on(event: 'message', listener: (message: Message) => void): void };
    }
  }
}
