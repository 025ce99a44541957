// Preloaded into the Electron example's recorder, in place of Electron. Provides
// `process.parentPort` and the four ports. Their messages use the IPC channel of Node's `fork`.

const { EventEmitter } = require('node:events');

const ports = {};
for (const name of ['frames', 'sound', 'preview', 'commands']) {
  ports[name] = Object.assign(new EventEmitter(), {
    start() {},
    postMessage: (data) => process.send({ name, data }),
  });
}
process.parentPort = new EventEmitter();
process.on('disconnect', () => process.exit());
process.on('message', ({ name, data }) => {
  if (name) ports[name].emit('message', { data });
  else process.parentPort.emit('message', { data, ports: Object.values(ports) });
});
