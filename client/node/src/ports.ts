// The process with Node at one end of a MessagePort, a page at the other: frames come from the
// page's `FrameSink`, the preview goes there.

import type { FrameOutcome } from './frame_counts.js';
import type { FrameFormat } from './frame_format.js';
import type { FrameAnswer, PostedFrame } from './frame_sink.js';
import type { Helper } from './helper.js';
import type { StreamClient } from './stream.js';
import { toWebCodecs, type DecoderInput } from './web_codecs.js';

/** Electron's MessagePortMain, or a MessagePort of `node:worker_threads`. */
export interface NodePort {
  on(event: 'message', listener: (message: any) => void): unknown;
  on(event: 'close', listener: () => void): unknown;
  postMessage(message: unknown): void;
  start(): void;
}

function listen<Message>(port: NodePort, handle: (message: Message) => void): void {
  port.on('message', (message: { data?: Message } & Message) => {
    handle(message?.data ?? message); // Electron's port passes an event
  });
  port.start();
}

/**
 * Writes the frames that `throughPort` posts at the other end, and answers each. `helperFor` gets
 * the format of each frame, and returns the helper that was started for it. When it rejects, or
 * when the helper would not accept the frame, the page's stream fails with that error.
 */
export function acceptFrames(
  port: NodePort,
  helperFor: (format: FrameFormat) => Promise<Helper>,
): void {
  const write = async ({ format, size, pixels }: PostedFrame): Promise<FrameOutcome> =>
    (await helperFor(format)).writeFrame(size, pixels).done;
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
 * draws. A page that draws nothing for `limit` milliseconds (below 500) gets nothing more until it
 * has caught up and the next key frame comes. Needs a client with `acknowledgement: 'manual'`, and
 * ids below 2 ** 53. Resolves when the connection or the port is closed.
 */
export async function sendPreview(
  client: StreamClient,
  port: NodePort,
  limit = 250, // the helper drops a client that acknowledges nothing for 500
): Promise<void> {
  let [sent, drawn] = [0, 0]; // the latest ids
  let isBehind = false;
  listen(port, (id: number) => {
    drawn = id;
    client.acknowledge(id);
  });
  port.on('close', () => client.close());
  let config: DecoderInput['config'];
  for await (const input of toWebCodecs(client)) {
    const { chunk } = input;
    config = input.config ?? config;
    if (isBehind && (chunk.type === 'delta' || drawn < sent)) {
      client.acknowledge(chunk.timestamp);
      continue;
    }
    isBehind = false;
    sent = chunk.timestamp;
    port.postMessage(config ? { config, chunk } : { chunk });
    config = undefined;
    setTimeout(() => {
      if (drawn >= chunk.timestamp) return;
      isBehind = true;
      client.acknowledge(chunk.timestamp);
    }, limit);
  }
}
