/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The tool's log hook, and the counter that gates it. */
#ifndef QUILLET_TOOL_LOG_SINK_H
#define QUILLET_TOOL_LOG_SINK_H

#include <cstdint>

#include "platform/nt.h"

/* 0 at start, lowered by "-q", raised by "-v"; changes during option parsing only. */
extern int32_t verbosity;

/* Writes one line to standard error, "LEVEL [file:line] function message", unless its level is gated off. See
 * ombraLogHook. */
void logToConsole(const char* file, const char* function, int line, int level, ULONG_PTR reserved,
                  const char* format, ...);

#endif
