/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "tool/text_format.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "platform/nt.h"

#ifdef _WIN32
/* Past the C library, which writes a text in pieces of its own choice. A console takes no more than this at
 * a time. */
static void _send(FILE* stream, const char* bytes, size_t length) {
    constexpr size_t most = 32768;  // bytes
    const HANDLE file = GetStdHandle(stream == stdout ? STD_OUTPUT_HANDLE : STD_ERROR_HANDLE);
    while (length > 0) {
        size_t piece = length < most ? length : most;
        while (piece < length && (bytes[piece] & 0xC0) == 0x80) piece--;  // within a character
        DWORD written = 0;  // not to be relied on: some consoles count characters in it
        WriteFile(file, bytes, static_cast<DWORD>(piece), &written, nullptr);
        bytes += piece;
        length -= piece;
    }
}

static constexpr bool _returnsAtLineEnds = true;
#else
static void _send(FILE* stream, const char* bytes, size_t length) {
    fwrite(bytes, 1, length, stream);
    fflush(stream);
}

static constexpr bool _returnsAtLineEnds = false;
#endif

static void _release(textOutput* output) {
    if (output->bytes != output->own) free(output->bytes);
}

/* Makes room for so many bytes more; at most sizeof output->own. */
static void _reserve(textOutput* output, size_t more) {
    if (output->room - output->used >= more) return;
    /* Not by ombraMalloc, which would report its failure by the log and so by this very text. */
    char* const larger = static_cast<char*>(malloc(2 * output->room));
    if (larger == nullptr) {
        _send(output->stream, output->bytes, output->used);
        output->used = 0;
        return;
    }
    memcpy(larger, output->bytes, output->used);
    _release(output);
    output->bytes = larger;
    output->room *= 2;
}

static void _put(textOutput* output, char next) {
    const bool returns = next == '\n' && _returnsAtLineEnds;
    _reserve(output, returns ? 2 : 1);
    if (returns) output->bytes[output->used++] = '\r';
    output->bytes[output->used++] = next;
}

static void _putNarrow(textOutput* output, const char* text) {
    for (; *text != 0; text++) _put(output, *text);
}

static void _putCodePoint(textOutput* output, uint32_t point) {
    static const uint8_t leads[] = {0x00, 0xC0, 0xE0, 0xF0};
    _reserve(output, 4);  // so that it stays in one piece
    const int further = point < 0x80 ? 0 : point < 0x800 ? 1 : point < 0x10000 ? 2 : 3;
    _put(output, static_cast<char>(leads[further] | point >> (6 * further)));
    for (int i = further - 1; i >= 0; i--) _put(output, static_cast<char>(0x80 | (point >> (6 * i) & 0x3F)));
}

/* What a terminal would obey: control characters, separators of lines, marks that turn the
 * direction of writing. */
static bool _commands(uint32_t point) {
    if (point < 0x20) return point != '\t';
    if (point < 0x7F) return false;
    return point <= 0x9F || point == 0x61C || point == 0x200E || point == 0x200F ||
           (point >= 0x2028 && point <= 0x202E) || (point >= 0x2066 && point <= 0x2069);
}

static void _putWide(textOutput* output, const WCHAR* text, size_t length) {
    constexpr uint32_t replacement = 0xFFFD;
    for (size_t i = 0; i < length; i++) {
        uint32_t point = static_cast<uint16_t>(text[i]);
        const bool surrogate = point >= 0xD800 && point <= 0xDFFF;
        const uint32_t next = i + 1 < length ? static_cast<uint16_t>(text[i + 1]) : 0u;
        if (surrogate && point < 0xDC00 && next >= 0xDC00 && next <= 0xDFFF) {
            point = 0x10000 + ((point - 0xD800) << 10) + (next - 0xDC00);
            i++;
        } else if (surrogate || _commands(point)) {
            point = replacement;
        }
        _putCodePoint(output, point);
    }
}

/* One directive, taken apart. */
struct _directive {
    bool alternate; /* "#" */
    bool zeros;     /* "0" */
    int width;
    char size; /* 'h', 'w', 'I' or 0 */
    char conversion;
};

/* Reads the directive after a "%"; gives what follows it. */
static const char* _readDirective(const char* format, _directive* directive) {
    *directive = {};
    for (; *format == '#' || *format == '0'; format++) {
        (*format == '#' ? directive->alternate : directive->zeros) = true;
    }
    for (; *format >= '0' && *format <= '9'; format++)
        directive->width = directive->width * 10 + (*format - '0');
    if (*format != 0 && strchr("hwI", *format) != nullptr) directive->size = *format++;
    directive->conversion = *format;
    return *format == 0 ? format : format + 1;
}

static void _putNumber(textOutput* output, const _directive* directive, uint64_t number, bool negative) {
    const bool hexadecimal = directive->conversion == 'x' || directive->conversion == 'X';
    const char* const digits = directive->conversion == 'X' ? "0123456789ABCDEF" : "0123456789abcdef";
    const uint64_t base = hexadecimal ? 16 : 10;
    const bool prefix = hexadecimal && directive->alternate && number != 0;
    char reversed[24];
    int count = 0;
    do {
        reversed[count++] = digits[number % base];
        number /= base;
    } while (number != 0);
    const int padding = directive->width - count - (negative ? 1 : 0) - (prefix ? 2 : 0);
    if (!directive->zeros) {
        for (int i = 0; i < padding; i++) _put(output, ' ');
    }
    if (negative) _put(output, '-');
    if (prefix) _putNarrow(output, directive->conversion == 'X' ? "0X" : "0x");
    if (directive->zeros) {
        for (int i = 0; i < padding; i++) _put(output, '0');
    }
    while (count > 0) _put(output, reversed[--count]);
}

static void _putSigned(textOutput* output, const _directive* directive, int64_t number) {
    const uint64_t magnitude = number < 0 ? 0 - static_cast<uint64_t>(number) : static_cast<uint64_t>(number);
    _putNumber(output, directive, magnitude, number < 0);
}

static void _putPointer(textOutput* output, const void* pointer) {
    const _directive hexadecimal = {false, false, 0, 0, 'x'};
    _putNarrow(output, "0x");
    _putNumber(output, &hexadecimal, reinterpret_cast<uintptr_t>(pointer), false);
}

static void _putWideText(textOutput* output, const WCHAR* text) {
    size_t length = 0;
    while (text[length] != 0) length++;
    _putWide(output, text, length);
}

/* The arguments are taken from a va_list inside a structure, so that it can be handed on by address. */
struct _arguments {
    va_list list;
};

static void _putString(textOutput* output, char size, _arguments* arguments) {
    const void* text = va_arg(arguments->list, const void*);
    if (text == nullptr) {
        _putNarrow(output, "(null)");
    } else if (size == 'w') {
        _putWideText(output, static_cast<const WCHAR*>(text));
    } else {
        _putNarrow(output, static_cast<const char*>(text));
    }
}

static void _putCounted(textOutput* output, _arguments* arguments) {
    const UNICODE_STRING* text = va_arg(arguments->list, const UNICODE_STRING*);
    if (text == nullptr) {
        _putNarrow(output, "(null)");
    } else if (text->Buffer != nullptr) {
        _putWide(output, text->Buffer, text->Length / sizeof(WCHAR));
    }
}

static void _putDirective(textOutput* output, const _directive* directive, _arguments* arguments) {
    const bool pointerSized = directive->size == 'I';
    switch (directive->conversion) {
        case 'd':
            _putSigned(output, directive,
                       pointerSized ? va_arg(arguments->list, int64_t) : va_arg(arguments->list, int));
            break;
        case 'u':
        case 'x':
        case 'X':
            _putNumber(output, directive,
                       pointerSized ? va_arg(arguments->list, uint64_t) : va_arg(arguments->list, unsigned),
                       false);
            break;
        case 's':
            _putString(output, directive->size, arguments);
            break;
        case 'Z':
            _putCounted(output, arguments);
            break;
        case 'p':
            _putPointer(output, va_arg(arguments->list, const void*));
            break;
        default:  // "%%", and what is no directive
            _put(output, directive->conversion == 0 ? '%' : directive->conversion);
            break;
    }
}

void beginText(textOutput* output, FILE* stream) {
    output->stream = stream;
    output->bytes = output->own;
    output->used = 0;
    output->room = sizeof output->own;
}

void addTextV(textOutput* output, const char* format, va_list arguments) {
    _arguments own;
    va_copy(own.list, arguments);
    while (*format != 0) {
        if (*format != '%') {
            _put(output, *format++);
            continue;
        }
        _directive directive;
        format = _readDirective(format + 1, &directive);
        _putDirective(output, &directive, &own);
    }
    va_end(own.list);
}

void addText(textOutput* output, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    addTextV(output, format, arguments);
    va_end(arguments);
}

void endText(textOutput* output) {
    _send(output->stream, output->bytes, output->used);
    _release(output);
}

void writeTextV(FILE* stream, const char* format, va_list arguments) {
    textOutput output;
    beginText(&output, stream);
    addTextV(&output, format, arguments);
    endText(&output);
}

void writeText(FILE* stream, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    writeTextV(stream, format, arguments);
    va_end(arguments);
}
