// The live picture: packets into the decoder, its newest output onto the canvas.

import { avcRecord, codecString } from './avc.js';
import { haveSameBytes } from './packets.js';

export class Picture {
  figures = { submitted: 0, decoded: 0, shown: 0, superseded: 0, keyFrames: 0, restarts: 0 };
  #canvas;
  #context;
  #handlers;
  #decoder;
  #configuration;
  #needsKey = true;
  #frameIDs = new Map(); // by the number of the chunk, of what is in the decoder
  #newest;
  #turn = new MessageChannel();

  // Handlers: `shown(frameID)`; `failed(error)` when the decoder was given up, until the next key frame.
  constructor(canvas, handlers) {
    this.#canvas = canvas;
    this.#context = canvas.getContext('2d', { alpha: false });
    this.#handlers = handlers;
    this.#turn.port1.onmessage = () => this.#draw();
  }

  get inDecoder() {
    return this.#frameIDs.size;
  }

  take(packet) {
    if (packet.type === 'configuration') this.#configure(packet);
    else if (this.#decoder && (packet.isKey || !this.#needsKey)) this.#decode(packet);
  }

  // What comes next belongs to another stream.
  reset() {
    if (this.#decoder && this.#decoder.state !== 'closed') this.#decoder.close();
    this.#decoder = undefined;
    this.#configuration = undefined;
    this.#needsKey = true;
    this.#frameIDs.clear();
    this.#newest?.frame.close();
    this.#newest = undefined;
  }

  #configure(packet) {
    if (this.#decoder && haveSameBytes(packet.payload, this.#configuration)) return;
    this.reset();
    const { sequenceParameterSet, pictureParameterSet } = packet;
    const decoder = new VideoDecoder({
      output: (frame) => this.#keep(frame),
      error: (error) => {
        if (decoder === this.#decoder) this.#fail(error);
      },
    });
    this.#decoder = decoder;
    this.#configuration = packet.payload;
    this.#guard(() => decoder.configure({
      codec: codecString(sequenceParameterSet),
      description: avcRecord(sequenceParameterSet, pictureParameterSet),
      codedWidth: packet.width,
      codedHeight: packet.height,
      optimizeForLatency: true,
    }));
  }

  // Chunks are numbered, since an id may be larger than any time of a chunk.
  #decode({ frameID, isKey, payload }) {
    const number = this.figures.submitted;
    this.figures.submitted += 1;
    if (isKey) this.figures.keyFrames += 1;
    this.#needsKey = false;
    this.#frameIDs.set(number, frameID);
    this.#guard(() => this.#decoder.decode(
      new EncodedVideoChunk({ type: isKey ? 'key' : 'delta', timestamp: number, data: payload })));
  }

  // Outputs that were queued together are all here before the turn comes: only the last is worth drawing.
  #keep(frame) {
    this.figures.decoded += 1;
    if (this.#newest) {
      this.#newest.frame.close();
      this.figures.superseded += 1;
    } else {
      this.#turn.port2.postMessage(null);
    }
    this.#newest = { frame, frameID: this.#leave(frame.timestamp) };
  }

  #draw() {
    if (!this.#newest) return; // a reset came first
    const { frame, frameID } = this.#newest;
    this.#newest = undefined;
    try {
      const { displayWidth: width, displayHeight: height } = frame;
      if (this.#canvas.width !== width || this.#canvas.height !== height) {
        Object.assign(this.#canvas, { width, height });
      }
      this.#context.drawImage(frame, 0, 0, width, height);
    } finally {
      frame.close();
    }
    this.figures.shown += 1;
    this.#handlers.shown(frameID);
  }

  // Frames leave the decoder in the order in which they came.
  #leave(number) {
    const frameID = this.#frameIDs.get(number);
    for (const earlier of this.#frameIDs.keys()) {
      if (earlier <= number) this.#frameIDs.delete(earlier);
    }
    return frameID;
  }

  #guard(step) {
    try {
      step();
    } catch (error) {
      this.#fail(error);
    }
  }

  #fail(error) {
    this.reset();
    this.figures.restarts += 1;
    this.#handlers.failed(error);
  }
}
