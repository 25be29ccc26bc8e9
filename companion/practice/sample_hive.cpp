/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "companion/practice/sample_hive.h"

#include <algorithm>
#include <cstring>

#include "companion/ending.h"
#include "companion/formatting.h"
#include "platform/offline/base/unicode.h"
#include "platform/offline/hive/hive.h"

namespace companion {
namespace {

constexpr uint64_t madeAt = 132'514'560'000'000'000; /* 100 ns since 1601; the same in every hive */

void check(NTSTATUS status, std::u16string_view what) {
    if (status >= 0) return;
    throw Failure{"the practice registry's " + offline::toUtf8(what) + " can't be made (" +
                  statusText(status) + "); free some memory and try again"};
}

ByteVector descriptorOf(const offline::Hive& hive, offline::Cell key) {
    const offline::Bytes stored = offline::hiveKeyDescriptor(hive, key);
    return {stored.begin(), stored.end()};
}

/* The key at a path, made where it is missing. */
offline::Cell makeKey(offline::Hive& hive, const Key& row) {
    offline::Cell key = offline::hiveRoot(hive);
    const ByteVector classText = utf16Bytes(row.classText);
    for (std::u16string_view left = row.path; !left.empty();) {
        const size_t end = std::min(left.find(u'\\'), left.size());
        const bool last = end == left.size();
        const offline::Cell parent = key;
        if (offline::hiveFindSubkey(hive, parent, left.substr(0, end), key) < 0) {
            const ByteVector descriptor =
                last && !row.descriptor.empty() ? row.descriptor : descriptorOf(hive, parent);
            const uint16_t flags = last && !row.linkTarget.empty() ? offline::HIVE_KEY_LINK : uint16_t{0};
            check(offline::hiveCreateSubkey(hive, parent, left.substr(0, end),
                                            last ? classText : ByteVector(), descriptor, flags, madeAt, key),
                  row.path);
        }
        left.remove_prefix(std::min(end + 1, left.size()));
    }
    return key;
}

} /* namespace */

ByteVector utf16Bytes(std::u16string_view text) {
    ByteVector bytes(text.size() * sizeof(char16_t));
    if (!bytes.empty()) memcpy(bytes.data(), text.data(), bytes.size());
    return bytes;
}

Value text(std::u16string name, std::u16string_view text) {
    return {std::move(name), REG_SZ, utf16Bytes(std::u16string(text) + u'\0')};
}

Value expandText(std::u16string name, std::u16string_view text) {
    return {std::move(name), REG_EXPAND_SZ, utf16Bytes(std::u16string(text) + u'\0')};
}

Value number(std::u16string name, uint32_t number) {
    ByteVector data(sizeof number);
    memcpy(data.data(), &number, sizeof number);
    return {std::move(name), REG_DWORD, std::move(data)};
}

Value binary(std::u16string name, ByteVector data) {
    return {std::move(name), REG_BINARY, std::move(data)};
}

Value textList(std::u16string name, const std::vector<std::u16string>& texts) {
    std::u16string all;
    for (const std::u16string& one : texts) all += one + u'\0';
    return {std::move(name), REG_MULTI_SZ, utf16Bytes(all + u'\0')};
}

ByteVector makeHive(const HiveSketch& sketch) {
    static const std::u16string_view rootName = u"CMI-CreateHive{0E1B0B1D-4C2A-4D0B-9E27-6B5A3C1F2D00}";
    offline::HivePtr hive;
    check(offline::hiveCreate(sketch.minorVersion, rootName, sketch.fileName, sketch.rootDescriptor, hive),
          sketch.fileName);
    for (const Key& row : sketch.keys) {
        const offline::Cell key = makeKey(*hive, row);
        for (const Value& value : row.values) {
            check(offline::hiveSetValue(*hive, key, value.name, value.type, value.data, madeAt), row.path);
        }
        if (!row.linkTarget.empty()) {
            check(offline::hiveSetValue(*hive, key, u"SymbolicLinkValue", REG_LINK,
                                        utf16Bytes(row.linkTarget), madeAt),
                  row.path);
        }
    }
    ByteVector image = offline::hiveImage(*hive);
    if (image.empty()) throw std::bad_alloc();
    return image;
}

} /* namespace companion */
