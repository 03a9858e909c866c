// Whether a firmware download still makes progress. Some of its retries have no limit and others last
// minutes, so the loops that wait for the chip ask hdl_progress_given_up(): while a stop or another download
// is announced, a download that has had nothing acknowledged for 2 s ends. Two have a short limit of their
// own instead: the chip's identity is awaited for half a second, a piece that is read back three times for a
// second. A download that makes progress is never cut, because a half-written flash is worse than a wait; the
// 2 s pass whatever the time of day is set to. One thread only.
#ifndef TAVOR_HDL_PROGRESS_H
#define TAVOR_HDL_PROGRESS_H

// A download begins: forgets the last one.
void hdl_progress_start();

// The chip has acknowledged something, or is asked something new that has a limit of its own.
void hdl_progress_mark();

// Whether the download is to end. Once it is, it stays so until the next one; the first time it is logged.
bool hdl_progress_given_up();

// The same without the 2 s, for rounds that fail although each of them begins well.
bool hdl_progress_give_up_now();

#endif
