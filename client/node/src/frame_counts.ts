/** How many frames of the application were written into the helper, and how many were not. */
export interface FrameCounts {
  written: number;
  /**
   * Frames that were not written: the helper was behind, was stopping or had ended, or a newer
   * frame replaced them.
   */
  dropped: number;
}

/**
 * `written`: the frame was written into the helper's input. The helper may still drop it: its
 * `stats` events count that in `droppedRaw`.
 * `dropped`: a newer frame replaced it, or the helper is stopping or has ended.
 */
export type FrameOutcome = 'written' | 'dropped';
