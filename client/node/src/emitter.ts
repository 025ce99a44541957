import { EventEmitter } from 'node:events';

type Typed = 'on' | 'once' | 'off' | 'emit';

/** Node's EventEmitter, with one argument of a known type for each event. */
export interface TypedEmitter<Events> extends Omit<EventEmitter, Typed> {
  on<Name extends keyof Events>(name: Name, listener: (event: Events[Name]) => void): this;
  once<Name extends keyof Events>(name: Name, listener: (event: Events[Name]) => void): this;
  off<Name extends keyof Events>(name: Name, listener: (event: Events[Name]) => void): this;
  emit<Name extends keyof Events>(name: Name, event: Events[Name]): boolean;
}

export const typedEmitter = <Events>() =>
  EventEmitter as unknown as new () => TypedEmitter<Events>;
