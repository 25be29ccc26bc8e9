/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The log hook: the one way in which the layers below the tool report anything. */
#ifndef QUILLET_COMMON_LOG_H
#define QUILLET_COMMON_LOG_H

#include "platform/nt.h"

enum ombraLevel {
    OMBRA_CRITICAL = 1,
    OMBRA_ALERT = 2,
    OMBRA_ERROR = 3,
    OMBRA_WARN = 4,
    OMBRA_NOTICE = 5,
    OMBRA_INFO = 6,
    OMBRA_DEBUG = 7,
    OMBRA_TRACE = 8
};

/* file: the source unit's short path, such as "common/memory". reserved: 0. format: printf-style, with the
 * directives %d %u %s %p %x %X (flags "#" and "0", a width) and %hs (narrow string), %ws (terminated wide
 * string), %wZ (UNICODE_STRING*), %Id (signed pointer-sized integer) and %#Ix (pointer-sized, hexadecimal).
 */
typedef void (*ombraLogHook)(const char* file, const char* function, int line, int level, ULONG_PTR reserved,
                             const char* format, ...);

/* Null until ombraSetLogger sets it; then nothing is reported. */
extern ombraLogHook ombraLogger;

void ombraSetLogger(ombraLogHook hook);

/* Reports one line, without a final newline. A source unit defines OMBRA_UNIT, its short path, before it
 * includes this header. OMBRA_LOG_AS is for the helpers of an operation, which report under the operation's
 * name. */
#define OMBRA_LOG_AS(function, level, ...)                                                              \
    do {                                                                                                \
        if (ombraLogger != nullptr) ombraLogger(OMBRA_UNIT, function, __LINE__, level, 0, __VA_ARGS__); \
    } while (0)
#define OMBRA_LOG(level, ...) OMBRA_LOG_AS(__func__, level, __VA_ARGS__)

#endif
