/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The signals that ask a program to end: SIGHUP, SIGINT, SIGQUIT and SIGTERM. They end it at once, but for
 * the times in which it must not be ended half-way. */
#ifndef QUILLET_OFFLINE_BASE_ENDING_SIGNALS_H
#define QUILLET_OFFLINE_BASE_ENDING_SIGNALS_H

namespace offline {

/* Has these signals print the line (with its newline, and good for the life of the process) on standard error
 * before they end the process as they would anyway. Those that are ignored stay so. */
void endingSignalsSay(const char* line);

/* Has them write these bytes before all else, as long as the process lives or another text is given: what
 * wipes a line that is half there. Null: nothing. */
void endingSignalsWipe(const char* bytes);

/* What is to be wiped is; may be called in a handler. */
void endingSignalsWipeNow();

/* From here on they wait; released, those that came meanwhile take effect. */
void endingSignalsHold();
void endingSignalsRelease();

} /* namespace offline */

#endif
