/** How many frames of the application were written into the helper, and how many were not. */
export interface FrameCounts {
  written: number;
  /** The helper was behind, was stopping or had ended, or a newer frame replaced this one. */
  dropped: number;
}

/**
 * `written`: the frame was written into the helper's input. If the helper then drops it,
 * `droppedRaw` of its `stats` events counts it.
 * `dropped`: a newer frame replaced it, or the helper is stopping or has ended.
 */
export type FrameOutcome = 'written' | 'dropped';
