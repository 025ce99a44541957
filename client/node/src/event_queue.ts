// Queues events for one `for await` loop. When the queue is full, the oldest event is dropped.

const maximumWaiting = 256;

export class EventQueue<Item> implements AsyncIterableIterator<Item> {
  readonly #items: Item[] = [];
  readonly #readers: ((result: IteratorResult<Item, undefined>) => void)[] = [];
  readonly #abandoned: () => void;
  #ended = false;
  #lost = 0;

  /** @internal `abandoned` is called when the loop exits early. */
  constructor(abandoned: () => void) {
    this.#abandoned = abandoned;
  }

  /** How many events were dropped. */
  get lost(): number {
    return this.#lost;
  }

  push(item: Item): void {
    if (this.#ended) return;
    const reader = this.#readers.shift();
    if (reader) return reader({ done: false, value: item });
    this.#items.push(item);
    if (this.#items.length > maximumWaiting) {
      this.#items.shift();
      this.#lost += 1;
    }
  }

  /** Ends the loop after the events that are queued. */
  end(): void {
    this.#ended = true;
    for (const reader of this.#readers.splice(0)) reader({ done: true, value: undefined });
  }

  next(): Promise<IteratorResult<Item, undefined>> {
    return new Promise((resolve) => {
      const [item] = this.#items;
      if (this.#items.length > 0) {
        this.#items.shift();
        resolve({ done: false, value: item as Item });
      } else if (this.#ended) {
        resolve({ done: true, value: undefined });
      } else {
        this.#readers.push(resolve);
      }
    });
  }

  return(): Promise<IteratorResult<Item, undefined>> {
    this.#items.length = 0;
    this.end();
    this.#abandoned();
    return Promise.resolve({ done: true, value: undefined });
  }

  [Symbol.asyncIterator](): this {
    return this;
  }
}
