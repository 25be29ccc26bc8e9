/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/files/drive_path.h"

#include <cstddef>

#include "platform/offline/files/drives.h"

namespace offline {
namespace {

constexpr size_t longestPath = 32767; /* characters */
constexpr size_t longestName = 255;   /* characters */
constexpr size_t literalPrefix = 4;   /* characters */

bool isSeparator(char16_t unit) {
    return unit == u'\\' || unit == u'/';
}

size_t componentLength(std::u16string_view text) {
    size_t length = 0;
    while (length < text.size() && !isSeparator(text[length])) length++;
    return length;
}

void dropLastComponent(std::u16string& path) {
    const size_t separator = path.rfind(u'\\');
    path.resize(separator == std::u16string::npos ? 0 : separator);
}

void appendComponent(std::u16string& path, std::u16string_view component, bool last) {
    if (last) {
        while (!component.empty() && (component.back() == u'.' || component.back() == u' ')) {
            component.remove_suffix(1);
        }
    } else if (component.ends_with(u'.') && !component.ends_with(u"..")) {
        component.remove_suffix(1);
    }
    if (component.empty()) return;
    if (!path.empty()) path += u'\\';
    path += component;
}

/* The platform's rules for what follows "C:". */
void normalise(std::u16string_view rest, std::u16string& path) {
    path.clear();
    while (!rest.empty()) {
        const std::u16string_view component = rest.substr(0, componentLength(rest));
        rest.remove_prefix(component.size());
        const bool last = rest.empty();
        if (!last) rest.remove_prefix(1);
        if (component == u"..") {
            dropLastComponent(path);
        } else if (component != u".") {
            appendComponent(path, component, last);
        }
    }
}

} /* namespace */

NTSTATUS pathText(LPCWSTR path, std::u16string_view& text) {
    if (path == nullptr) return STATUS_INVALID_PARAMETER;
    size_t length = 0;
    while (path[length] != 0) length++;
    if (length > longestPath) return STATUS_NAME_TOO_LONG;
    text = {path, length};
    return STATUS_SUCCESS;
}

bool pathLiteral(std::u16string_view path) {
    return path.size() >= literalPrefix && path[0] == u'\\' && (path[1] == u'\\' || path[1] == u'?') &&
           path[2] == u'?' && path[3] == u'\\';
}

NTSTATUS parseDrivePath(std::u16string_view path, DrivePath& parsed) {
    if (path.size() > longestPath) return STATUS_NAME_TOO_LONG;
    const bool literal = pathLiteral(path);
    if (literal) path.remove_prefix(literalPrefix);
    if (path.size() < 2 || !isDriveLetter(path[0]) || path[1] != u':') return STATUS_OBJECT_PATH_SYNTAX_BAD;
    parsed.volume = driveVolume(path[0]);
    if (parsed.volume == nullptr) return STATUS_OBJECT_PATH_NOT_FOUND;

    std::u16string_view rest = path.substr(2);
    parsed.relative = {};
    parsed.directoryOnly = false;
    if (rest.empty()) return STATUS_SUCCESS;
    if (literal ? rest[0] != u'\\' : !isSeparator(rest[0])) return STATUS_OBJECT_PATH_SYNTAX_BAD;
    rest.remove_prefix(1);
    if (rest.empty()) return STATUS_SUCCESS;
    parsed.directoryOnly = literal ? rest.back() == u'\\' : isSeparator(rest.back());
    if (literal) {
        parsed.relative = rest.substr(0, rest.size() - (parsed.directoryOnly ? 1 : 0));
        return parsed.relative.empty() ? STATUS_OBJECT_NAME_INVALID : STATUS_SUCCESS;
    }
    normalise(rest, parsed.normalised);
    parsed.relative = parsed.normalised;
    return STATUS_SUCCESS;
}

NTSTATUS checkComponents(std::u16string_view relative) {
    while (true) {
        const std::u16string_view name = relative.substr(0, relative.find(u'\\'));
        if (name.empty() || name.size() > longestName || name == u"." || name == u".." ||
            name.find(u'\0') != name.npos) {
            return STATUS_OBJECT_NAME_INVALID;
        }
        if (name.size() == relative.size()) return STATUS_SUCCESS;
        relative.remove_prefix(name.size() + 1);
    }
}

} /* namespace offline */
