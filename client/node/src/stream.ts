// One client of the helper's preview stream.

import { once } from 'node:events';
import { connect, type Socket } from 'node:net';

import { PacketParser, type Packet } from './packets.js';
import type { FrameId } from './records.js';
import { checkToken } from './token.js';

export interface StreamOptions {
  /** 127.0.0.1 if missing. */
  host?: string;
  port: number;
  token: string;
  /** Closes the connection; the loop that reads it then throws an AbortError. */
  signal?: AbortSignal;
  /**
   * `automatic` (the default): a frame is acknowledged as the loop takes it. `manual`: the caller
   * acknowledges; the helper drops a client that takes longer than 0.5 s.
   */
  acknowledgement?: 'automatic' | 'manual';
}

// An acknowledgement that crosses the helper's end resets the connection; the last is our own end.
const endings = ['ECONNRESET', 'EPIPE', 'ERR_STREAM_PREMATURE_CLOSE'];

const isEnd = (error: unknown) => endings.includes((error as NodeJS.ErrnoException).code ?? '');

/** Packets come out of `for await`, once; leaving the loop closes the connection. */
export class StreamClient implements AsyncIterable<Packet> {
  readonly #socket: Socket;
  readonly #isAutomatic: boolean;
  readonly #parser = new PacketParser();
  #isAdmitted = false;
  #isClosed = false;

  /** @internal */
  constructor(socket: Socket, isAutomatic: boolean) {
    this.#socket = socket;
    this.#isAutomatic = isAutomatic;
    socket.on('error', () => undefined); // the loop throws it
  }

  /** Confirms this frame and all before it. */
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
        this.#parser.feed(bytes as Buffer);
        for (let packet = this.#parser.next(); packet; packet = this.#parser.next()) {
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

/** Connects and presents the token. What the helper thinks of it shows in the loop. */
export async function connectStream(options: StreamOptions): Promise<StreamClient> {
  const { host = '127.0.0.1', port, token, signal, acknowledgement = 'automatic' } = options;
  checkToken(token);
  const socket = connect({ host, port, noDelay: true, signal });
  await once(socket, 'connect');
  socket.write(`${JSON.stringify({ type: 'hello', token })}\n`);
  return new StreamClient(socket, acknowledgement === 'automatic');
}
