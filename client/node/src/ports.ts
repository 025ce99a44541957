// For a process with Node that has a MessagePort to a page. Takes frames from the page's
// `FrameSink`, and sends the preview to the page.

import { formatChanged } from './errors.js';
import type { FrameOutcome } from './frame_counts.js';
import { isSameFormat, type FrameFormat } from './frame_format.js';
import type { FrameAnswer, PostedFrame } from './frame_sink.js';
import type { Helper } from './helper.js';
import type { StreamClient } from './stream.js';
import { toWebCodecs, type DecoderInput, type EncodedChunk } from './web_codecs.js';

/** Electron's MessagePortMain, or a MessagePort of `node:worker_threads`. */
export interface NodePort {
  on(event: 'message', listener: (message: any) => void): unknown;
  on(event: 'close', listener: () => void): unknown;
  off(event: 'message', listener: (message: any) => void): unknown;
  off(event: 'close', listener: () => void): unknown;
  postMessage(message: unknown): void;
  start(): void;
}

// Passes the port's messages to `handle`. Returns a function that stops this.
function listen<Message>(port: NodePort, handle: (message: Message) => void): () => void {
  const listener = (message: { data?: Message } & Message) =>
    handle(message?.data ?? message); // Electron's port wraps the message in an event
  port.on('message', listener);
  port.start();
  return () => port.off('message', listener);
}

/**
 * Writes the frames of the page at the other end of `port` into a helper, and answers each frame.
 * The page posts them with `throughPort`. `helperFor` gets the format of each frame, and resolves
 * with the helper for the frame. The page's FrameSink fails with the error of `helperFor`, with
 * `FORMAT_CHANGED` if that helper was started for another format, or with `INVALID_ARGUMENT` if
 * the helper would not accept the frame.
 */
export function acceptFrames(
  port: NodePort,
  helperFor: (format: FrameFormat) => Promise<Helper>,
): void {
  const write = async ({ format, size, pixels }: PostedFrame): Promise<FrameOutcome> => {
    const helper = await helperFor(format);
    if (!isSameFormat(helper.format, format)) throw formatChanged(helper.format, format);
    return helper.writeFrame(size, pixels).done;
  };
  // `throughPort` expects the answers in the order of the frames.
  let answered = Promise.resolve();
  listen(port, (frame: PostedFrame) => {
    const answer: Promise<FrameAnswer> = write(frame).then(
      (outcome) => ({ outcome }),
      (error) => ({ error: { code: error?.code, message: error?.message ?? String(error) } }),
    );
    answered = answered.then(async () => port.postMessage(await answer));
  });
}

/** In milliseconds. */
export interface PreviewLimits {
  /** The time to draw each picture; below 500, by default 250. */
  drawnWithin?: number;
  /** The time from the first picture posted to the first one drawn; by default 10,000. */
  firstDrawnWithin?: number;
}

/**
 * Posts the input of a VideoDecoder to a page, which posts back the `timestamp` of each picture
 * that it has drawn. This timestamp acknowledges the frame, so the helper sends no faster than the
 * page draws. If a picture is not drawn within `drawnWithin`, the page gets nothing more until it
 * has drawn the last picture that it got. It then goes on with the next key frame. Needs a client
 * with `acknowledgement: 'manual'`, and ids below 2 ** 53. Resolves when the connection is closed;
 * the port can then get the preview of another client. When the port closes, so does the
 * connection, even if `client` connects only later. A port that was closed before the call sends no
 * `close` event. So `sendPreview` also closes the connection if the page has drawn nothing within
 * `firstDrawnWithin` of the first picture. Rejects if `client` rejects or the client's loop throws,
 * with the same error.
 */
export async function sendPreview(
  client: StreamClient | Promise<StreamClient>,
  port: NodePort,
  limits: PreviewLimits = {},
): Promise<void> {
  let connected: StreamClient | undefined;
  let isClosed = false;
  const close = () => {
    isClosed = true;
    connected?.close();
  };
  port.on('close', close);
  try {
    connected = await client;
    if (isClosed) connected.close();
    else await postPreview(connected, port, limits);
  } finally {
    port.off('close', close);
  }
}

// The pictures that a page got from one client, by their ids.
class PagePictures {
  hasDrawn = false;
  #isBehind = false;
  readonly #undrawn = new Set<number>();

  /** Whether the page is to get the next picture. */
  wants({ type }: EncodedChunk): boolean {
    if (type === 'key' && this.#undrawn.size === 0) this.#isBehind = false;
    return !this.#isBehind;
  }

  add(id: number): void {
    this.#undrawn.add(id);
  }

  /** Returns false for a picture that was drawn already, or came from an earlier client. */
  draw(id: number): boolean {
    if (!this.#undrawn.has(id)) return false;
    for (const each of this.#undrawn) if (each <= id) this.#undrawn.delete(each);
    this.hasDrawn = true;
    return true;
  }

  /** Call it when the time to draw this picture is over. Returns true if it was not drawn. */
  expire(id: number): boolean {
    const isLate = this.#undrawn.has(id);
    if (isLate) this.#isBehind = true;
    return isLate;
  }
}

const longestTimer = 2 ** 31 - 1; // a longer one fires at once

// The helper disconnects a client that leaves a frame unacknowledged for 500 ms. So pictures that
// are late or skipped are acknowledged, too. The helper also disconnects a client that acknowledges
// a frame that it did not get. So the ids of an earlier client's pictures are ignored.
async function postPreview(
  client: StreamClient,
  port: NodePort,
  { drawnWithin = 250, firstDrawnWithin = 10_000 }: PreviewLimits,
): Promise<void> {
  const pictures = new PagePictures();
  const endListening = listen(port, (id: number) => {
    if (pictures.draw(id)) client.acknowledge(id);
  });
  const post = (input: DecoderInput) => {
    const id = input.chunk.timestamp;
    pictures.add(id);
    port.postMessage(input);
    const expire = () => {
      if (pictures.expire(id)) client.acknowledge(id);
    };
    // The page's answer may be waiting. Node reads it before it runs the immediate.
    setTimeout(() => setImmediate(expire), drawnWithin);
  };
  const giveUpUnseen = () => {
    if (!pictures.hasDrawn) client.close();
  };
  let sinceFirst: NodeJS.Timeout | undefined;
  let config: DecoderInput['config']; // not yet posted
  try {
    for await (const input of toWebCodecs(client)) {
      const { chunk } = input;
      config = input.config ?? config;
      if (!pictures.wants(chunk)) {
        client.acknowledge(chunk.timestamp);
        continue;
      }
      post(config ? { config, chunk } : { chunk });
      config = undefined;
      sinceFirst ??= setTimeout(giveUpUnseen, Math.min(firstDrawnWithin, longestTimer));
    }
  } finally {
    clearTimeout(sinceFirst);
    endListening();
  }
}
