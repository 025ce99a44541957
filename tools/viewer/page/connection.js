// The WebSocket to the viewer. It reconnects when it is closed, after growing delays.

const shortestDelay = 250; // milliseconds
const longestDelay = 4000;

export class Connection {
  #handlers;
  #socket;
  #attempts = 0;
  #isFinal = false;

  // Handlers: `packet(buffer)`, `message(object)`, `fault(text)`, and `state(name)` with
  // "connecting", "open", "waiting" (before the next attempt) or "closed" (no more attempts).
  constructor(handlers) {
    this.#handlers = handlers;
  }

  open() {
    this.#isFinal = false;
    const url = new URL('socket', document.baseURI);
    url.protocol = 'ws:';
    this.#handlers.state('connecting');
    const socket = new WebSocket(url);
    socket.binaryType = 'arraybuffer';
    socket.onopen = () => this.#handlers.state('open');
    socket.onmessage = ({ data }) => this.#receive(data);
    socket.onclose = () => this.#closed();
    this.#socket = socket;
  }

  // Sends JSON text. Without an open socket the message is dropped: it would be outdated later.
  send(text) {
    if (this.#socket?.readyState === WebSocket.OPEN) this.#socket.send(text);
  }

  // The viewer has accepted this page: the next reconnect starts with the shortest delay.
  accepted() {
    this.#attempts = 0;
  }

  // After this call, no reconnect follows when the current socket closes.
  giveUp() {
    this.#isFinal = true;
  }

  #receive(data) {
    try {
      if (data instanceof ArrayBuffer) this.#handlers.packet(data);
      else this.#handlers.message(JSON.parse(data));
    } catch (error) {
      this.#handlers.fault(`The viewer sent an invalid message: ${error.message}`);
    }
  }

  #closed() {
    this.#handlers.state(this.#isFinal ? 'closed' : 'waiting');
    if (this.#isFinal) return;
    const delay = Math.min(shortestDelay * 2 ** this.#attempts, longestDelay);
    this.#attempts += 1;
    setTimeout(() => this.open(), delay);
  }
}
