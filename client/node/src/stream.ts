// One client of the helper's preview stream.

import { once } from 'node:events';
import { connect, type Socket } from 'node:net';

import { PacketSplitter } from './packet_splitter.js';
import type { Packet } from './packets.js';
import type { FrameId } from './records.js';
import { checkToken } from './token.js';

export interface StreamOptions {
  /** 127.0.0.1 by default. */
  host?: string;
  port: number;
  token: string;
  /** Closes the connection; the reading loop then throws an AbortError. */
  signal?: AbortSignal;
  /**
   * `automatic`, the default: a frame is acknowledged when the loop takes it. `manual`: the caller
   * acknowledges it. The helper drops a client that takes longer than 0.5 s.
   */
  acknowledgement?: 'automatic' | 'manual';
}

// The first two come from an acknowledgement that arrives after the helper has ended, the last from
// `close`.
const endings = ['ECONNRESET', 'EPIPE', 'ERR_STREAM_PREMATURE_CLOSE'];

const isEnd = (error: unknown) => endings.includes((error as NodeJS.ErrnoException).code ?? '');

/** Iterate once with `for await` to get the packets. Leaving the loop closes the connection. */
export class StreamClient implements AsyncIterable<Packet> {
  readonly #socket: Socket;
  readonly #isAutomatic: boolean;
  readonly #splitter = new PacketSplitter();
  #isAdmitted = false;
  #isClosed = false;

  /** @internal */
  constructor(socket: Socket, isAutomatic: boolean) {
    this.#socket = socket;
    this.#isAutomatic = isAutomatic;
    socket.on('error', () => undefined); // the loop throws the error
  }

  /** Acknowledges this frame and all before it. */
  acknowledge(frameId: FrameId): void {
    this.#socket.write(`{"type":"ack","frame_id":${frameId}}\n`);
  }

  close(): void {
    this.#isClosed = true;
    this.#socket.destroy();
  }

  /** Reads from the socket only as fast as packets are taken. */
  async *[Symbol.asyncIterator](): AsyncGenerator<Packet, void, undefined> {
    try {
      for await (const bytes of this.#socket) {
        this.#splitter.feed(bytes as Buffer);
        for (let packet = this.#splitter.next(); packet; packet = this.#splitter.next()) {
          this.#isAdmitted = true;
          if (packet.type === 'frame' && this.#isAutomatic) this.acknowledge(packet.frameId);
          yield packet;
        }
      }
    } catch (error) {
      if (!isEnd(error)) throw error;
    }
    if (!this.#isAdmitted && !this.#isClosed) {
      throw new Error(
        'the helper sent nothing: the token is wrong, two clients are connected, or it has ended',
      );
    }
  }
}

/** Connects and sends the token. If the helper refuses it, the reading loop throws. */
export async function connectStream(options: StreamOptions): Promise<StreamClient> {
  const { host = '127.0.0.1', port, token, signal, acknowledgement = 'automatic' } = options;
  checkToken(token);
  const socket = connect({ host, port, noDelay: true, signal });
  await once(socket, 'connect');
  socket.write(`${JSON.stringify({ type: 'hello', token })}\n`);
  return new StreamClient(socket, acknowledgement === 'automatic');
}
