/* SPDX-License-Identifier: GPL-2.0-or-later */
/* One registry hive in memory: the platform's "regf" file format, versions 1.3 to 1.6.
 *
 * A hive is read whole, validated whole, changed in memory and saved page by page. Keys are named by the
 * offset of their cell, which stays the same as long as the key lives. Spans and views into a hive are good
 * until its next change; a hive is used by one thread at a time, for reading too. Names are UTF-16 without a
 * terminator, compared by the platform's folding; lengths of names are in characters, of everything else in
 * bytes. No function throws. */
#ifndef QUILLET_OFFLINE_HIVE_HIVE_H
#define QUILLET_OFFLINE_HIVE_HIVE_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/nt.h"
#include "platform/offline/base/bytes.h"
#include "platform/offline/base/problem.h"

namespace offline {

struct Hive;

/* The offset of a cell in bytes, counted from the first bin (file offset 4096). */
using Cell = uint32_t;
constexpr Cell noCell = 0xFFFFFFFF;

constexpr size_t longestKeyName = 255;     /* characters */
constexpr size_t longestValueName = 16383; /* characters */
constexpr uint32_t deepestKey = 512;       /* levels below the root */

struct HiveDeleter {
    void operator()(Hive* hive) const;
};
using HivePtr = std::unique_ptr<Hive, HiveDeleter>;

/* ---- Opening, creating, saving ---- */

/* The contents of the log files beside a hive file: NAME.LOG1 and NAME.LOG2, or NAME.LOG alone as the first.
 * Empty where there is none. */
struct HiveLogs {
    std::vector<uint8_t> first;
    std::vector<uint8_t> second;
};

/* Whether these bytes of a hive file want the logs to be whole. */
bool hiveNeedsLogs(Bytes bytes);

/* Takes the bytes of a hive file and validates everything that can be reached from the root: one choke point,
 * after which the functions below rely on the structure. Names in the problem are left to the caller: its
 * text says what is wrong with "the hive", in a form that follows "NAME: " ("is damaged: the key cell
 * at 0x1a20 …"). Fails with STATUS_NOT_REGISTRY_FILE (no hive at all), STATUS_REGISTRY_CORRUPT (a broken one)
 * or STATUS_REGISTRY_IO_FAILED (a dirty one that the logs do not make whole). What comes from the logs is
 * saved together with the first change. */
NTSTATUS hiveOpen(std::vector<uint8_t> bytes, const HiveLogs& logs, HivePtr& hive, Problem& problem);
NTSTATUS hiveOpen(std::vector<uint8_t> bytes, HivePtr& hive, Problem& problem); /* without logs */

/* Whether something of the hive came from its logs and has not been saved yet. */
bool hiveRecovered(const Hive& hive);

/* A new, empty hive of version 1.minor (3 to 6) whose root key has this name and self-relative descriptor.
 * fileName goes into the base block (its last 31 characters). */
NTSTATUS hiveCreate(uint32_t minor, std::u16string_view rootName, std::u16string_view fileName,
                    Bytes descriptor, HivePtr& hive);

/* Where a hive is saved. Offsets and sizes are in bytes of the hive file; a negative status ends the save. */
struct HiveStore {
    virtual ~HiveStore() = default;

    /* Asked before the hive is changed in memory: negative when nothing of it could be saved. */
    virtual NTSTATUS beginChange() { return STATUS_SUCCESS; }
    virtual NTSTATUS write(uint64_t offset, Bytes bytes) = 0;
    virtual NTSTATUS grow(uint64_t size) = 0; /* the file is to have at least this many bytes */
    virtual NTSTATUS flush() = 0;             /* on the medium when it returns */

    /* For a person: the file, and why its disk refused a write, " (No space left on device)" or "". */
    virtual std::string name() const { return "a hive"; }
    virtual std::string refusal() const { return {}; }
};

/* Writes back what has changed, in the platform's own order: primary sequence number, flush, pages, flush,
 * secondary sequence number, flush. A hive without changes is not touched. After a failure the hive still
 * counts as changed. */
NTSTATUS hiveSave(Hive& hive, HiveStore& store);

bool hiveChanged(const Hive& hive);

/* The whole file as hiveSave would leave it, for a hive that has no file yet. The hive itself still counts as
 * changed. Empty when there is no memory for it. */
std::vector<uint8_t> hiveImage(const Hive& hive);

uint32_t hiveMinorVersion(const Hive& hive);

/* How many keys it had when it was opened, the root among them. */
uint32_t hiveKeysFound(const Hive& hive);

/* ---- Keys ---- */

struct HiveKey {
    uint16_t flags;     /* as stored: the HIVE_KEY_ bits */
    uint64_t lastWrite; /* 100 ns since 1601 */
    Cell parent;        /* noCell for the root */
    uint32_t subkeyCount;
    uint32_t valueCount;  /* 0 for a predefined-handle key */
    uint16_t nameLength;  /* characters */
    uint16_t classLength; /* bytes */
};
constexpr uint16_t HIVE_KEY_ROOT = 0x04;
constexpr uint16_t HIVE_KEY_NO_DELETE = 0x08;
constexpr uint16_t HIVE_KEY_LINK = 0x10;

Cell hiveRoot(const Hive& hive);

/* The key at a cell. STATUS_REGISTRY_CORRUPT when there is none. */
NTSTATUS hiveKey(const Hive& hive, Cell key, HiveKey& info);

bool hiveKeyIsLink(const Hive& hive, Cell key);

/* Copies the key's name, at most longestKeyName characters, and gives its length in characters. */
size_t hiveKeyName(const Hive& hive, Cell key, char16_t* name);

/* The class text's bytes; empty when the key has none. */
Bytes hiveKeyClass(const Hive& hive, Cell key);

/* The key's self-relative descriptor, exactly as stored. */
Bytes hiveKeyDescriptor(const Hive& hive, Cell key);

/* The child at an index, in the order of the folded names. STATUS_NO_MORE_ENTRIES after the last. */
NTSTATUS hiveSubkey(const Hive& hive, Cell key, uint32_t index, Cell& child);

/* The child of this name. STATUS_OBJECT_NAME_NOT_FOUND when there is none. */
NTSTATUS hiveFindSubkey(const Hive& hive, Cell key, std::u16string_view name, Cell& child);

/* A new child, stamped with the time (100 ns since 1601), as its parent is. flags may hold HIVE_KEY_LINK and
 * HIVE_KEY_NO_DELETE. An equal descriptor that the hive already has is shared and counted; what
 * hiveKeyDescriptor gives for any key of the hive may be handed in.
 * STATUS_OBJECT_NAME_COLLISION when the name is taken, STATUS_INVALID_PARAMETER for a name that is empty, too
 * long or holds a backslash and for a child below deepestKey, STATUS_NO_MEMORY or
 * STATUS_INSUFFICIENT_RESOURCES when there is no room. A failure changes nothing. */
NTSTATUS hiveCreateSubkey(Hive& hive, Cell parent, std::u16string_view name, Bytes classText,
                          Bytes descriptor, uint16_t flags, uint64_t time, Cell& child);

/* Deletes a key without children, its values with it, and gives back every cell. STATUS_CANNOT_DELETE for a
 * key with children, the root and a key marked so. */
NTSTATUS hiveDeleteKey(Hive& hive, Cell key, uint64_t time);

/* Gives the key this self-relative descriptor (at most 65,535 bytes), stored byte for byte and
 * shared as by hiveCreateSubkey. STATUS_INVALID_PARAMETER for an empty or longer one. A failure changes
 * nothing. */
NTSTATUS hiveSetKeyDescriptor(Hive& hive, Cell key, Bytes descriptor, uint64_t time);

/* ---- Values ---- */

struct HiveValue {
    Cell cell;
    uint32_t type;
    uint32_t dataLength; /* bytes */
    uint16_t nameLength; /* characters */
};

/* The value at an index, in the order in which the values were created. STATUS_NO_MORE_ENTRIES after the
 * last.
 */
NTSTATUS hiveValue(const Hive& hive, Cell key, uint32_t index, HiveValue& value);

/* The value of this name ("" is the unnamed one). STATUS_OBJECT_NAME_NOT_FOUND when there is none. */
NTSTATUS hiveFindValue(const Hive& hive, Cell key, std::u16string_view name, HiveValue& value);

/* Copies the value's name, value.nameLength characters. */
void hiveValueName(const Hive& hive, const HiveValue& value, char16_t* name);

/* Copies the value's data from its start: as many bytes as out holds, at most value.dataLength. */
void hiveValueData(const Hive& hive, const HiveValue& value, std::span<uint8_t> out);

/* Sets or creates a value; STATUS_INVALID_PARAMETER for a name that is too long, data of more than
 * 1,071,104,040 bytes and a predefined-handle key. A value that exists keeps its name's letters and its place
 * in the order. Data of more than 16344 bytes becomes big data where the hive's version has it. The data must
 * not lie in the hive. A failure changes nothing. */
NTSTATUS hiveSetValue(Hive& hive, Cell key, std::u16string_view name, uint32_t type, Bytes data,
                      uint64_t time);

/* STATUS_OBJECT_NAME_NOT_FOUND when there is none. */
NTSTATUS hiveDeleteValue(Hive& hive, Cell key, std::u16string_view name, uint64_t time);

} /* namespace offline */

#endif
