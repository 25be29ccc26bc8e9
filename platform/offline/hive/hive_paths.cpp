/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/hive/hive_paths.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace offline {

NTSTATUS hiveFindPath(const Hive& hive, std::u16string_view path, Cell& key) {
    key = hiveRoot(hive);
    while (!path.empty()) {
        const size_t end = std::min(path.find(u'\\'), path.size());
        const NTSTATUS status = hiveFindSubkey(hive, key, path.substr(0, end), key);
        if (status < 0) return status;
        path.remove_prefix(std::min(end + 1, path.size()));
    }
    return STATUS_SUCCESS;
}

std::u16string hiveText(const Hive& hive, std::u16string_view path, std::u16string_view name) {
    Cell key;
    HiveValue value;
    if (hiveFindPath(hive, path, key) < 0 || hiveFindValue(hive, key, name, value) < 0) return {};
    return hiveValueText(hive, value);
}

std::u16string hiveValueText(const Hive& hive, const HiveValue& value) {
    constexpr uint32_t longest = 65534; /* bytes */
    if ((value.type != REG_SZ && value.type != REG_EXPAND_SZ) || value.dataLength > longest) return {};
    std::vector<uint8_t> data(value.dataLength);
    hiveValueData(hive, value, data);
    std::u16string text(data.size() / sizeof(char16_t), u'\0');
    memcpy(text.data(), data.data(), text.size() * sizeof(char16_t));
    return text.substr(0, text.find(u'\0'));
}

} /* namespace offline */
