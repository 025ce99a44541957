/** Lets `using` or `await using` call `method`. Does nothing where Node lacks the symbol. */
export function disposeWith<Type extends object>(
  type: { prototype: Type },
  symbol: symbol | undefined,
  method: (this: Type) => unknown,
): void {
  if (symbol) Object.defineProperty(type.prototype, symbol, { value: method });
}
