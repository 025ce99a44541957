export interface Deferred<Value> {
  promise: Promise<Value>;
  resolve(value: Value): void;
  reject(error: Error): void;
}

/** A promise that is settled from outside. Node ignores its rejection when nobody handles it. */
export function deferred<Value>(): Deferred<Value> {
  let resolve!: (value: Value) => void;
  let reject!: (error: Error) => void;
  const promise = new Promise<Value>((fulfil, refuse) => {
    resolve = fulfil;
    reject = refuse;
  });
  promise.catch(() => undefined);
  return { promise, resolve, reject };
}
