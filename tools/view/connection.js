// The socket to the viewer, opened again whenever it closes, ever more slowly.

const shortestWait = 250;
const longestWait = 4000;

export class Connection {
  #socket;
  #attempts = 0;
  #isFinal = false;

  // Handlers: `packet(buffer)`, `message(object)`, `state(name)` with one of
  // "connecting", "open", "waiting" (until the next attempt), "closed" (for good), `fault(text)`.
  constructor(handlers) {
    this.handlers = handlers;
  }

  open() {
    this.#isFinal = false;
    const url = new URL('socket', document.baseURI);
    url.protocol = url.protocol === 'https:' ? 'wss:' : 'ws:';
    this.handlers.state('connecting');
    const socket = new WebSocket(url);
    socket.binaryType = 'arraybuffer';
    socket.onopen = () => this.handlers.state('open');
    socket.onmessage = ({ data }) => this.#receive(data);
    socket.onclose = () => this.#closed();
    this.#socket = socket;
  }

  // Text as it is, an object as JSON. What can't be sent is of no use later.
  send(message) {
    if (this.#socket?.readyState !== WebSocket.OPEN) return;
    this.#socket.send(typeof message === 'string' ? message : JSON.stringify(message));
  }

  // The viewer takes us for its page.
  accepted() {
    this.#attempts = 0;
    this.#isFinal = false;
  }

  // Once this socket closes, another attempt would not help.
  giveUp() {
    this.#isFinal = true;
  }

  #receive(data) {
    try {
      if (data instanceof ArrayBuffer) this.handlers.packet(data);
      else this.handlers.message(parseMessage(data));
    } catch (error) {
      this.handlers.fault(`The viewer sent something unusable: ${error.message}.`);
    }
  }

  #closed() {
    if (this.#isFinal) {
      this.handlers.state('closed');
      return;
    }
    const wait = Math.min(shortestWait * 2 ** this.#attempts, longestWait);
    this.#attempts += 1;
    this.handlers.state('waiting');
    setTimeout(() => this.open(), wait);
  }
}

function parseMessage(text) {
  let message;
  try {
    message = JSON.parse(text);
  } catch {
    throw new Error('a text that is not JSON');
  }
  if (typeof message?.type !== 'string') throw new Error('a message without a type');
  return message;
}
