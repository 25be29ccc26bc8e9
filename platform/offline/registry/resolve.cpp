/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/registry/resolve.h"

#include <cstdint>
#include <span>
#include <utility>

#include "platform/offline/base/unicode.h"

namespace offline {
namespace {

/* The platform's counted strings hold no longer path. */
constexpr size_t longestTarget = UINT16_MAX / sizeof(char16_t);

/* What a link key leads to. STATUS_OBJECT_NAME_NOT_FOUND when its value is no path in the registry. */
NTSTATUS linkTarget(const KeyRef& link, std::u16string& target) {
    const Hive& hive = *link.mount->hive;
    HiveValue value;
    if (hiveFindValue(hive, link.cell, linkValueName, value) < 0 || value.type != REG_LINK) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    const size_t length = value.dataLength / sizeof(char16_t);
    if (length > longestTarget) return STATUS_OBJECT_NAME_NOT_FOUND;
    target.resize(length);
    hiveValueData(hive, value, {reinterpret_cast<uint8_t*>(target.data()), length * sizeof(char16_t)});
    return STATUS_SUCCESS;
}

/* Replaces what has been walked, up to and including a link, by the link's target. */
NTSTATUS followLink(const KeyRef& link, std::u16string_view& rest, Resolved& result) {
    std::u16string path;
    NTSTATUS status = linkTarget(link, path);
    if (status < 0) return status;
    if (!rest.empty()) path.append(u"\\").append(rest);
    result.path = std::move(path);
    if (belowRegistry(result.path, rest) < 0) return STATUS_OBJECT_NAME_NOT_FOUND;
    return namespaceRoot(result.key);
}

} /* namespace */

NTSTATUS resolvePath(const KeyRef& from, std::u16string_view path, bool openLink, Resolved& result) {
    size_t links = 0;
    std::u16string_view rest = path;
    result.key = from;
    for (;;) {
        const KeyRef& here = result.key;
        if (hiveKeyIsLink(*here.mount->hive, here.cell) && !(openLink && rest.empty())) {
            if (++links > longestLinkChain) return STATUS_OBJECT_PATH_INVALID;
            const NTSTATUS status = followLink(here, rest, result);
            if (status < 0) return status;
            continue;
        }
        const std::u16string_view name = takeComponent(rest);
        if (name.empty()) return STATUS_SUCCESS;
        if (name.size() > longestKeyName) return STATUS_INVALID_PARAMETER;
        const NTSTATUS status = findChild(here, name, result.key);
        if (status < 0) {
            if (status == STATUS_OBJECT_NAME_NOT_FOUND && rest.empty()) result.leaf = name;
            return status;
        }
    }
}

NTSTATUS belowRegistry(std::u16string_view path, std::u16string_view& rest) {
    if (path.empty() || path[0] != u'\\') return STATUS_OBJECT_PATH_SYNTAX_BAD;
    if (path.size() == 1) return STATUS_OBJECT_TYPE_MISMATCH;
    if (!equalFolded(takeComponent(path), u"Registry")) return STATUS_OBJECT_NAME_NOT_FOUND;
    rest = path;
    return STATUS_SUCCESS;
}

std::u16string_view takeComponent(std::u16string_view& path) {
    const auto skip = [&] {
        while (!path.empty() && path[0] == u'\\') path.remove_prefix(1);
    };
    skip();
    const std::u16string_view name = path.substr(0, path.find(u'\\'));
    path.remove_prefix(name.size());
    skip();
    return name;
}

} /* namespace offline */
