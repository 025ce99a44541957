import { encodingOf } from './frame_format.js';
import { Helper } from './helper.js';
import { launch, type LaunchOptions } from './launch.js';
import { checkSoundFormat } from './sound.js';
import { StartError } from './start_error.js';
import { settlesWithin } from './timing.js';
import { checkToken, makeToken } from './token.js';

const readyLimit = 10_000; // milliseconds; usually the helper takes less than one second

export interface HelperOptions extends LaunchOptions {
  /** The token that stream clients must send; a random one by default. */
  token?: string;
  /** Aborting it stops the helper, as `stop()` does. */
  signal?: AbortSignal;
}

function stopOnAbort(helper: Helper, signal: AbortSignal): void {
  const stop = () => void helper.stop();
  signal.addEventListener('abort', stop, { once: true });
  void helper.exited.then(() => signal.removeEventListener('abort', stop));
  if (signal.aborted) stop();
}

async function waitUntilReady(helper: Helper): Promise<void> {
  const ready = helper.whenReady();
  const settled = ready.catch(() => undefined);
  if (!(await settlesWithin(settled, readyLimit))) {
    throw new StartError('NOT_READY', 'the helper did not become ready');
  }
  await ready;
}

/**
 * Starts the helper. Resolves when it accepts frames and stream clients. Rejects with a StartError
 * if it does not start, with the reason of `signal` if that aborts, or with an ArgumentError for a
 * token or a format that the helper would not accept.
 */
export async function startHelper(options: HelperOptions = {}): Promise<Helper> {
  const { signal, token = makeToken(), format = 'rgba', sound } = options;
  signal?.throwIfAborted();
  checkToken(token);
  encodingOf(format); // throws for a malformed format
  if (sound) checkSoundFormat(sound);
  let helper: Helper | undefined;
  try {
    helper = new Helper(await launch(options, token), token, format, sound);
    if (signal) stopOnAbort(helper, signal);
    await waitUntilReady(helper);
    signal?.throwIfAborted();
    return helper;
  } catch (error) {
    await helper?.stop();
    throw signal?.aborted ? signal.reason : error;
  }
}
