/* SPDX-License-Identifier: GPL-2.0-or-later */
/* JSON as text, for other programs. */
#ifndef QUILLET_COMPANION_JSON_H
#define QUILLET_COMPANION_JSON_H

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

namespace companion {

/* Writes one value to a stream, piece by piece, so that it is never in memory as a whole. Objects and lists
 * are opened and closed by their brackets; texts are UTF-8. What went wrong is the stream's to say (ferror).
 */
class JsonWriter {
public:
    explicit JsonWriter(FILE* stream) : out(stream) {}

    void open(char bracket);
    void open(std::string_view name, char bracket);
    void close(char bracket);
    void finish(); /* a newline, and the rest of the text */

    void item(std::string_view value);
    void put(std::string_view name, std::string_view value);
    void put(std::string_view name, const char* value) { put(name, std::string_view(value)); }
    void put(std::string_view name, uint64_t value);
    void put(std::string_view name, int value);
    void put(std::string_view name, bool value);
    void putNull(std::string_view name);

    /* Null where the text is empty. */
    void putKnown(std::string_view name, std::string_view value);

private:
    void separate();
    void quote(std::string_view value);
    void member(std::string_view name);

    FILE* const out;
    std::string text = {}; /* that is not written yet; begins with the last character that is */
};

} /* namespace companion */

#endif
