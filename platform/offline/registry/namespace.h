/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The tree of keys: mounted hives, and what hangs in it without being stored. Every key is a cell of some
 * hive: the keys in memory (\Registry, Machine, User) and the links in memory live in hives of their own that
 * are never saved, so that names, values, classes and descriptors are read and set in one way everywhere. */
#ifndef QUILLET_OFFLINE_REGISTRY_NAMESPACE_H
#define QUILLET_OFFLINE_REGISTRY_NAMESPACE_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/nt.h"
#include "platform/offline/hive/hive.h"

namespace offline {

struct Mount;

/* A key: the hive that holds it, and its cell there. */
struct KeyRef {
    Mount* mount = nullptr;
    Cell cell = noCell;
};

inline bool operator==(const KeyRef& left, const KeyRef& right) {
    return left.mount == right.mount && left.cell == right.cell;
}

/* A child that is not stored with its parent: the root of a mounted hive, or a link in memory. */
struct Attached {
    Cell parent; /* in the mount that holds this record */
    std::u16string name;
    KeyRef child;
};

struct Mount {
    std::u16string name; /* what its root key is called in the tree, whatever the file says */
    HivePtr hive;
    Cell root = noCell;
    std::unique_ptr<HiveStore> store; /* null: never saved */
    bool loaded = false;              /* by RegLoadKeyW */
    size_t openKeys = 0;
    std::vector<Attached> attached; /* by parent, then in folded order */
};

struct Namespace {
    std::unique_ptr<Mount> keys; /* \Registry, Machine and User; null until the first call that needs them */
    Cell machine = noCell;
    Cell user = noCell;
    std::unique_ptr<Mount> links; /* each link in memory is the only child of a numbered child of this root */
    uint32_t linksCreated = 0;
    std::vector<std::unique_ptr<Mount>> mounts;
};

/* The session's tree. */
Namespace& tree();

/* \Registry. */
NTSTATUS namespaceRoot(KeyRef& root);

/* The key that HKEY_LOCAL_MACHINE or HKEY_USERS stands for. STATUS_INVALID_HANDLE for any other handle. */
NTSTATUS predefinedKey(HKEY key, KeyRef& ref);

/* Whether the key is one of those in memory that hold the mount points. */
bool isNamespaceKey(const KeyRef& ref);

/* The child of this name. STATUS_OBJECT_NAME_NOT_FOUND when there is none. */
NTSTATUS findChild(const KeyRef& parent, std::u16string_view name, KeyRef& child);

/* The child at an index, in folded order. STATUS_NO_MORE_ENTRIES after the last. */
NTSTATUS childAt(const KeyRef& parent, uint32_t index, KeyRef& child);

/* Copies the key's name, at most longestKeyName characters, and gives its length in characters. */
size_t keyName(const KeyRef& ref, char16_t* name);

/* The time for a change: 100 ns since 1601. */
uint64_t timeNow();

} /* namespace offline */

#endif
