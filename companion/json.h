/* JSON as text, for other programs. */
#ifndef QUILLET_COMPANION_JSON_H
#define QUILLET_COMPANION_JSON_H

#include <cstdint>
#include <string>
#include <string_view>

namespace companion {

/* Collects one value. Objects and lists are opened and closed by their brackets; texts are UTF-8. */
struct JsonWriter {
    std::string text;

    void open(char bracket);
    void open(std::string_view name, char bracket);
    void close(char bracket);

    void item(std::string_view value);
    void put(std::string_view name, std::string_view value);
    void put(std::string_view name, const char* value) { put(name, std::string_view(value)); }
    void put(std::string_view name, uint64_t value);
    void put(std::string_view name, bool value);

private:
    void separate();
    void quote(std::string_view value);
    void member(std::string_view name);
};

} /* namespace companion */

#endif
