/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The three standard descriptors of a process: input, output and error. */
#ifndef QUILLET_OFFLINE_BASE_STREAMS_H
#define QUILLET_OFFLINE_BASE_STREAMS_H

namespace offline {

/* Opens each standard descriptor that is closed on /dev/null. Otherwise the next file to be opened, a disk,
 * would get its number and with it whatever is printed; so every program calls this first. False, with errno,
 * when one of them can't be opened: then nothing else may be. */
bool standardStreamsOpen();

/* Gives an open descriptor another number when it has one of the standard ones: a library that is used
 * without standardStreamsOpen must not mix up a disk and its output either. -1, with errno and the descriptor
 * closed, when there is none; -1 stays -1. */
int aboveStandard(int file);

/* Writes what the C library still holds of standard output and error. False when any of their text could not
 * be written; what a reader did not want who has closed its end of a pipe does not count. */
bool standardStreamsWritten();

} /* namespace offline */

#endif
