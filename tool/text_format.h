/* printf-style text with the directives of the log hook (common/log.h), as UTF-8. */
#ifndef QUILLET_TOOL_TEXT_FORMAT_H
#define QUILLET_TOOL_TEXT_FORMAT_H

#include <cstdarg>
#include <cstdio>

/* Writes the format with its arguments to a stream. Wide text comes out as UTF-8; what it can't show (an
 * unpaired surrogate, a control character) as U+FFFD. */
void writeText(FILE* stream, const char* format, ...);
void writeTextV(FILE* stream, const char* format, va_list arguments);

#endif
