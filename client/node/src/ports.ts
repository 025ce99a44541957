// For a process with Node that has a MessagePort to a page. Takes frames from the page's
// `FrameSink`, and sends the preview to the page.

import { formatChanged } from './errors.js';
import type { FrameOutcome } from './frame_counts.js';
import { isSameFormat, type FrameFormat } from './frame_format.js';
import type { FrameAnswer, PostedFrame } from './frame_sink.js';
import type { Helper } from './helper.js';
import type { StreamClient } from './stream.js';
import { toWebCodecs, type DecoderInput } from './web_codecs.js';

/** Electron's MessagePortMain, or a MessagePort of `node:worker_threads`. */
export interface NodePort {
  on(event: 'message', listener: (message: any) => void): unknown;
  on(event: 'close', listener: () => void): unknown;
  off(event: 'message', listener: (message: any) => void): unknown;
  off(event: 'close', listener: () => void): unknown;
  postMessage(message: unknown): void;
  start(): void;
}

// Passes on the messages of the port. Returns a function that ends this.
function listen<Message>(port: NodePort, handle: (message: Message) => void): () => void {
  const listener = (message: { data?: Message } & Message) =>
    handle(message?.data ?? message); // Electron's port passes an event
  port.on('message', listener);
  port.start();
  return () => port.off('message', listener);
}

/**
 * Writes the frames that a page posts at the other end with `throughPort`, and answers each.
 * `helperFor` gets the format of each frame, and returns the helper that was started for it. The
 * page's FrameSink fails with the error of `helperFor`, with `FORMAT_CHANGED` if the helper was
 * started for another format, or with `INVALID_ARGUMENT` if it would not accept the frame.
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
  const answer = (message: FrameAnswer) => port.postMessage(message);
  listen(port, (frame: PostedFrame) => {
    write(frame).then(
      (outcome) => answer({ outcome }),
      ({ code, message }) => answer({ error: { code, message } }),
    );
  });
}

/**
 * Posts the input of a VideoDecoder to a page, which posts back the `timestamp` of each picture
 * that it has drawn. That acknowledges the frame, so the helper sends no faster than the page
 * draws. If a picture is not drawn within `limit` milliseconds (below 500), the page gets nothing
 * more until it has drawn the newest picture that it got and a key frame comes. Needs a client with
 * `acknowledgement: 'manual'`, and ids below 2 ** 53. Resolves when the connection or the port is
 * closed, also while `client` still connects; the port can then get the preview of another client.
 * Nothing tells that the port was closed before the call. So it also resolves if the page has drawn
 * nothing within `firstLimit` milliseconds of the first picture. Rejects if `client` does.
 */
export async function sendPreview(
  client: StreamClient | Promise<StreamClient>,
  port: NodePort,
  limit = 250, // the helper drops a client that acknowledges nothing for 500
  firstLimit = 10_000,
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
    else await postPreview(connected, port, limit, firstLimit);
  } finally {
    port.off('close', close);
  }
}

async function postPreview(
  client: StreamClient,
  port: NodePort,
  limit: number,
  firstLimit: number,
): Promise<void> {
  const undrawn = new Set<number>(); // the ids that were posted
  let isBehind = false;
  let untilDrawn: NodeJS.Timeout | undefined;
  const endListening = listen(port, (id: number) => {
    // The page may still draw pictures of an earlier client. If this client acknowledged those, the
    // helper would drop it.
    if (!undrawn.has(id)) return;
    clearTimeout(untilDrawn);
    for (const each of undrawn) if (each <= id) undrawn.delete(each);
    client.acknowledge(id);
  });
  let config: DecoderInput['config'];
  try {
    for await (const input of toWebCodecs(client)) {
      const { chunk } = input;
      const id = chunk.timestamp;
      config = input.config ?? config;
      if (isBehind && (chunk.type === 'delta' || undrawn.size > 0)) {
        client.acknowledge(id);
        continue;
      }
      isBehind = false;
      undrawn.add(id);
      port.postMessage(config ? { config, chunk } : { chunk });
      config = undefined;
      untilDrawn ??= setTimeout(() => client.close(), firstLimit);
      setTimeout(() => {
        if (!undrawn.has(id)) return;
        isBehind = true;
        client.acknowledge(id);
      }, limit);
    }
  } finally {
    clearTimeout(untilDrawn);
    endListening();
  }
}
