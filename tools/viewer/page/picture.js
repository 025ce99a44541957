// The live picture: decodes packets and draws the newest decoded frame onto the canvas.

import { decoderConfig, isSameConfig } from './decoder_config.js';
import { element } from './dom.js';

export class Picture {
  figures = { shown: 0, superseded: 0, keyframes: 0, restarts: 0 };
  #canvas = element('picture');
  #context = this.#canvas.getContext('2d', { alpha: false });
  #handlers;
  #decoder;
  #config;
  #needsKey = true;
  #chunks = 0;
  #frameIds = new Map(); // ids of the frames in the decoder, by chunk number
  #newest;
  #drawing = new MessageChannel();

  // Handlers: `shown(frameId)`, and `failed(error)` when the decoder failed. The next configuration
  // then makes a new decoder.
  constructor(handlers) {
    this.#handlers = handlers;
    this.#drawing.port1.onmessage = () => this.#draw();
  }

  get inDecoder() {
    return this.#frameIds.size;
  }

  take(packet) {
    if (packet.type === 'configuration') this.#configure(packet);
    else if (this.#decoder && (packet.keyframe || !this.#needsKey)) this.#decode(packet);
  }

  // Drops the decoder and its frames, for example because another stream begins.
  reset() {
    if (this.#decoder && this.#decoder.state !== 'closed') this.#decoder.close();
    this.#decoder = undefined;
    this.#config = undefined;
    this.#needsKey = true;
    this.#frameIds.clear();
    this.#newest?.frame.close();
    this.#newest = undefined;
  }

  #configure(packet) {
    const config = decoderConfig(packet);
    if (isSameConfig(this.#config, config)) return;
    this.reset();
    const decoder = new VideoDecoder({
      output: (frame) => this.#keep(frame),
      error: (error) => {
        if (decoder === this.#decoder) this.#fail(error);
      },
    });
    this.#decoder = decoder;
    this.#config = config;
    this.#guard(() => decoder.configure(config));
  }

  // The timestamp of a chunk is its number, because a frame id may be too large for a timestamp.
  #decode({ frameId, keyframe, data }) {
    const timestamp = this.#chunks;
    const type = keyframe ? 'key' : 'delta';
    this.#chunks += 1;
    if (keyframe) this.figures.keyframes += 1;
    this.#needsKey = false;
    this.#frameIds.set(timestamp, frameId);
    this.#guard(() => this.#decoder.decode(new EncodedVideoChunk({ type, timestamp, data })));
  }

  // Frames are drawn in a later task. If the decoder puts out several before that, only the newest
  // is drawn.
  #keep(frame) {
    if (this.#newest) {
      this.#newest.frame.close();
      this.figures.superseded += 1;
    } else {
      this.#drawing.port2.postMessage(null);
    }
    this.#newest = { frame, frameId: this.#takeFrameId(frame.timestamp) };
  }

  #draw() {
    if (!this.#newest) return; // `reset` has dropped it
    const { frame, frameId } = this.#newest;
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
    this.#handlers.shown(frameId);
  }

  // Returns the frame id of a decoded chunk, and forgets it. The decoder puts frames out in order,
  // so the ids of earlier chunks are forgotten too.
  #takeFrameId(chunk) {
    const frameId = this.#frameIds.get(chunk);
    for (const other of this.#frameIds.keys()) {
      if (other <= chunk) this.#frameIds.delete(other);
    }
    return frameId;
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
