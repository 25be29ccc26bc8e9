/* SPDX-License-Identifier: GPL-2.0-or-later */
/* What a hive holds at a path below its root: components between backslashes, no links. */
#ifndef QUILLET_OFFLINE_HIVE_HIVE_PATHS_H
#define QUILLET_OFFLINE_HIVE_HIVE_PATHS_H

#include <string>
#include <string_view>

#include "platform/offline/hive/hive.h"

namespace offline {

/* The key at a path; the root for an empty one. Statuses of hiveFindSubkey. */
NTSTATUS hiveFindPath(const Hive& hive, std::u16string_view path, Cell& key);

/* A value's text without its terminators; empty when there is no such key or value, and when it is no text.
 * May throw std::bad_alloc. */
std::u16string hiveText(const Hive& hive, std::u16string_view path, std::u16string_view name);
std::u16string hiveValueText(const Hive& hive, const HiveValue& value);

} /* namespace offline */

#endif
