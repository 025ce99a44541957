// One client of the helper's preview stream.

import { once } from 'node:events';
import { connect, type Socket } from 'node:net';

import { deferred } from './deferred.js';
import { disposeWith } from './dispose.js';
import { CodedError } from './errors.js';
import { PacketSplitter } from './packet_splitter.js';
import type { Packet } from './packets.js';
import type { FrameId } from './records.js';
import { settlesWithin } from './timing.js';
import { checkToken } from './token.js';

export interface StreamOptions {
  /** 127.0.0.1 by default. */
  host?: string;
  port: number;
  token: string;
  /** Aborting it closes the connection. `connectStream` or the loop then throws its reason. */
  signal?: AbortSignal;
  /** Milliseconds in which a connection must be made; 5,000 by default. */
  connectTimeout?: number;
  /**
   * `automatic`, the default: a frame is acknowledged when the loop takes it. `manual`: the caller
   * acknowledges it. The helper disconnects a client that leaves a frame unacknowledged for 0.5 s.
   */
  acknowledgement?: 'automatic' | 'manual';
}

/**
 * `UNREACHABLE`: the connection could not be made, or not in time; `cause` says why.
 * `NO_ROOM`: two clients are connected, or four connections wait to say hello.
 * `REFUSED`: the token is wrong, or the hello came more than a second after the connection. May
 * also come instead of `NO_ROOM`: this client connects again to find the reason, and another client
 * may have left by then.
 * `CLOSED`: the helper has ended.
 * `MALFORMED`: bytes came that no helper sends.
 */
export type StreamErrorCode = 'UNREACHABLE' | 'MALFORMED' | Refusal;
type Refusal = 'NO_ROOM' | 'REFUSED' | 'CLOSED';

export class StreamError extends CodedError<StreamErrorCode> {
  override readonly name = 'StreamError';
}

const words: Record<Refusal, string> = {
  NO_ROOM: 'the helper has no room for another client',
  REFUSED: 'the helper refused the hello: is the token wrong?',
  CLOSED: 'the helper has ended',
};

// The client gets the first two errors if the helper closes the connection without having read all
// that the client sent. `close` causes the last one.
const endings = ['ECONNRESET', 'EPIPE', 'ERR_STREAM_PREMATURE_CLOSE'];

const isEnd = (error: unknown) => endings.includes((error as NodeJS.ErrnoException).code ?? '');

/**
 * Iterate once with `for await` to get the packets. Leaving the loop closes the connection. The
 * loop ends when the connection is closed. The loop throws a StreamError if the helper closes the
 * connection before the first packet, or if the bytes are malformed. It throws the system's error
 * if the network fails.
 */
export class StreamClient implements AsyncIterable<Packet> {
  /** Lets `using` close the connection. Missing where Node does not have the symbol. */
  declare [Symbol.dispose]: () => void;
  readonly #socket: Socket;
  readonly #options: StreamOptions;
  readonly #splitter = new PacketSplitter();
  readonly #whenClosed = deferred<undefined>();
  #isAdmitted = false;
  #isClosed = false;

  /** @internal */
  constructor(socket: Socket, options: StreamOptions) {
    this.#socket = socket;
    this.#options = options;
  }

  /** Acknowledges this frame and all before it. */
  acknowledge(frameId: FrameId): void {
    this.#socket.write(`{"type":"ack","frame_id":${frameId}}\n`);
  }

  close(): void {
    this.#isClosed = true;
    this.#whenClosed.resolve(undefined);
    this.#socket.destroy();
  }

  /** Reads from the socket only as fast as packets are taken. */
  async *[Symbol.asyncIterator](): AsyncGenerator<Packet, void, undefined> {
    const { signal, acknowledgement = 'automatic' } = this.#options;
    const isAutomatic = acknowledgement === 'automatic';
    try {
      for await (const bytes of this.#socket) {
        this.#splitter.feed(bytes as Buffer);
        for (let packet = this.#nextPacket(); packet; packet = this.#nextPacket()) {
          this.#isAdmitted = true;
          if (packet.type === 'frame' && isAutomatic) this.acknowledge(packet.frameId);
          yield packet;
        }
      }
    } catch (error) {
      if (!isEnd(error)) throw signal?.aborted ? signal.reason : error;
    }
    if (this.#isAdmitted || this.#isClosed) return;
    const refusal = await Promise.race([whyRefused(this.#options), this.#whenClosed.promise]);
    if (!refusal) return; // closed meanwhile
    signal?.throwIfAborted();
    throw new StreamError(refusal, words[refusal]);
  }

  #nextPacket(): Packet | undefined {
    try {
      return this.#splitter.next();
    } catch (error) {
      throw new StreamError('MALFORMED', (error as Error).message);
    }
  }
}

disposeWith(StreamClient, Symbol.dispose, function () {
  this.close();
});

// Throws if an option is invalid. Rejects if connecting fails or exceeds `connectTimeout`.
function open(options: StreamOptions): Promise<Socket> {
  const { host = '127.0.0.1', port, signal, connectTimeout = 5000 } = options;
  const limit = AbortSignal.timeout(connectTimeout);
  // Keep-alive notices after some minutes that the network is gone. But while TCP gets no answer to
  // a line that we sent, it only sends that again, for about 15 minutes. Node cannot shorten that.
  const alive = { keepAlive: true, keepAliveInitialDelay: 5000 };
  const socket = connect({ host, port, noDelay: true, signal, ...alive });
  socket.on('error', () => undefined); // `once` and the loop throw the error
  const fail = (error: unknown) => {
    socket.destroy();
    throw error;
  };
  return once(socket, 'connect', { signal: limit }).then(() => socket, fail);
}

// Milliseconds after which a connection that is still open shows that the helper has room. With
// room, the helper waits a second for the hello. Without room, it closes a connection at once.
const roomLimit = 500;

// The helper never says why it closes a connection. A second one, without a hello, shows why.
async function whyRefused(options: StreamOptions): Promise<Refusal> {
  const socket = await open(options).catch(() => undefined);
  if (!socket) return 'CLOSED';
  const closed = new Promise((resolve) => socket.resume().once('close', resolve));
  const hasRoom = !(await settlesWithin(closed, roomLimit));
  socket.destroy();
  return hasRoom ? 'REFUSED' : 'NO_ROOM';
}

/**
 * Connects and sends the token. Rejects with a StreamError if it cannot connect within
 * `connectTimeout`, with an ArgumentError for a malformed token, or with a RangeError for a `port`
 * or a `connectTimeout` out of range. If the helper refuses the token, the loop throws.
 */
export async function connectStream(options: StreamOptions): Promise<StreamClient> {
  const { token, signal } = options;
  checkToken(token);
  const socket = await open(options).catch((cause) => {
    signal?.throwIfAborted();
    throw new StreamError('UNREACHABLE', 'no helper listens there', { cause });
  });
  socket.write(`${JSON.stringify({ type: 'hello', token })}\n`);
  return new StreamClient(socket, options);
}
