// Splits the helper's standard output into lines.

const lineFeed = 0x0a;
const maximumLineBytes = 4096; // with the line feed

export class LineSplitter {
  #pending: Buffer = Buffer.alloc(0);
  #skipping = false;

  /** Returns the lines that these bytes complete. Skips lines that are longer than any event. */
  feed(bytes: Buffer): string[] {
    const lines: string[] = [];
    let left = Buffer.concat([this.#pending, bytes]);
    for (let end = left.indexOf(lineFeed); end >= 0; end = left.indexOf(lineFeed)) {
      if (!this.#skipping && end < maximumLineBytes) lines.push(left.toString('utf8', 0, end));
      this.#skipping = false;
      left = left.subarray(end + 1);
    }
    if (left.length >= maximumLineBytes) this.#skipping = true;
    this.#pending = this.#skipping ? Buffer.alloc(0) : left;
    return lines;
  }
}
