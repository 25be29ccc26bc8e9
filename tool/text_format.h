/* SPDX-License-Identifier: GPL-2.0-or-later */
/* printf-style text with the directives of the log hook (common/log.h), as UTF-8. */
#ifndef QUILLET_TOOL_TEXT_FORMAT_H
#define QUILLET_TOOL_TEXT_FORMAT_H

#include <cstdarg>
#include <cstddef>
#include <cstdio>

/* Text on its way to a stream: composed whole, then written with one call and kept in no buffer, so that the
 * lines of both streams stand in their order where both go to one file. Where memory is short it is written
 * in pieces, none of which ends within a character. */
struct textOutput {
    FILE* stream;
    char* bytes; /* used of them, with room for so many */
    size_t used;
    size_t room;
    char own[1024]; /* what bytes is until that is too small */
};

void beginText(textOutput* output, FILE* stream);

/* Adds the format with its arguments. Wide text comes out as UTF-8; what it can't show (an unpaired
 * surrogate) or must not (a control character other than a tab, a separator of lines, a mark that turns the
 * direction of writing) as U+FFFD. */
void addText(textOutput* output, const char* format, ...);
void addTextV(textOutput* output, const char* format, va_list arguments);

/* Writes the text and releases its memory. On Windows a line ends in "\r\n", and the stream is standard
 * output or standard error. Elsewhere ferror says of the stream whether all that was written got there. */
void endText(textOutput* output);

/* All of that for one format. */
void writeText(FILE* stream, const char* format, ...);
void writeTextV(FILE* stream, const char* format, va_list arguments);

#endif
