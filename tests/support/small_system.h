/* SPDX-License-Identifier: GPL-2.0-or-later */
/* A small registry in memory, with short forms of the calls: one hive at \Registry\Machine\TEST, and more
 * where a test mounts them. */
#ifndef QUILLET_TESTS_SUPPORT_SMALL_SYSTEM_H
#define QUILLET_TESTS_SUPPORT_SMALL_SYSTEM_H

#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <tuple>

#include "platform/offline/base/unicode.h"
#include "platform/offline/registry/registry.h"
#include "regtk/regtk.h"
#include "sidchng/sid.h"
#include "sidchng/sidchng.h"
#include "tests/support/descriptors.h"
#include "tests/support/watched.h"

namespace offline {

/* A pair of machine SIDs; as texts they have different lengths. */
inline const std::string oldText = "S-1-5-21-100-200-300",
                         newText = "S-1-5-21-4000000001-4000000002-4000000003";
inline const ByteVector oldSid = sidFromText(oldText), newSid = sidFromText(newText);

inline Image allowed(const std::string& who, uint32_t mask = KEY_ALL_ACCESS, uint8_t flags = 2) {
    return ace(ACCESS_ALLOWED_ACE_TYPE, flags, mask, who);
}
inline ByteVector openToAll() {
    return makeDescriptor(localSystem, {allowed(everyone)});
}
inline ByteVector systemOnly() {
    return makeDescriptor(localSystem, {allowed(localSystem)});
}
/* Owner, group, an entry for rights and one for audits are of this SID. */
inline ByteVector allOf(const std::string& who) {
    return descriptor(who, who, acl({ace(SYSTEM_AUDIT_ACE_TYPE, 0, 1, who)}), acl({allowed(who)}));
}

/* What a store has received; it outlives the store, which belongs to the registry. */
struct Recording {
    ByteVector file;
    size_t writes = 0;
    size_t closed = 0;
    NTSTATUS failure = STATUS_SUCCESS; /* of every write */
    NTSTATUS unflushed = STATUS_SUCCESS;
    NTSTATUS refused = STATUS_SUCCESS; /* of the beginning of a change */
};

struct RecordingStore : HiveStore {
    explicit RecordingStore(Recording& into) : recording(into) {}
    ~RecordingStore() override { recording.closed++; }
    NTSTATUS beginChange() override { return recording.refused; }
    NTSTATUS write(uint64_t offset, std::span<const uint8_t> bytes) override {
        if (grow(offset + bytes.size()) < 0) return recording.failure;
        recording.writes++;
        memcpy(recording.file.data() + offset, bytes.data(), bytes.size());
        return STATUS_SUCCESS;
    }
    NTSTATUS grow(uint64_t size) override {
        if (recording.failure >= 0 && recording.file.size() < size) recording.file.resize(size);
        return recording.failure;
    }
    NTSTATUS flush() override { return recording.failure < 0 ? recording.failure : recording.unflushed; }
    Recording& recording;
};

/* ---- Text ---- */

std::u16string wide(std::string_view text);   /* ASCII, "OLD" and "NEW" for the two SIDs */
ByteVector bytesOf(std::u16string_view text); /* without a terminator */
UNICODE_STRING counted(std::u16string_view text);
inline UNICODE_STRING counted(const char16_t* text) {
    return counted(std::u16string_view(text));
}
UNICODE_STRING counted(std::u16string&&) = delete; /* would not outlive the call */
inline std::u16string full(std::u16string_view path) {
    return u"\\Registry\\Machine\\TEST\\" + std::u16string(path);
}

/* ---- The calls ---- */

inline HKEY asHkey(HANDLE key) {
    return static_cast<HKEY>(key);
}

struct KeyCall {
    ACCESS_MASK access = KEY_ALL_ACCESS;
    ULONG attributes = OBJ_CASE_INSENSITIVE;
    HANDLE root = nullptr;
    ULONG options = 0;
    std::u16string_view className = {};
};
NTSTATUS openKey(HANDLE& key, std::u16string_view path, const KeyCall& call = {});
NTSTATUS createKey(HANDLE& key, std::u16string_view path, const KeyCall& call, ULONG* made = nullptr);
NTSTATUS tryOpen(std::u16string_view path, const KeyCall& call = {}); /* and close */
NTSTATUS setText(HANDLE key, std::u16string_view name, ULONG type, std::u16string_view text);
std::string children(HANDLE key); /* their names, each with a blank after it */
std::string nameOf(HANDLE key);   /* "?" when it can't be asked */

/* ---- The system ---- */

/* What is opened stays open until the test's end, when its session goes. */
struct SmallSystem : testing::Test {
    Hive* hive = nullptr; /* at TEST */
    Recording store;      /* its file */

    void SetUp() override;
    void TearDown() override;

    /* Full paths, or below TEST. */
    static HANDLE open(std::u16string_view path, const KeyCall& call = {});
    static HANDLE create(std::u16string_view path, const KeyCall& call = {});
    static void makeLink(std::u16string_view path, std::u16string_view target);
    static Hive* mount(const std::u16string& name); /* a new hive below Machine */

    /* The rest takes paths with "OLD" and "NEW". A link is opened as itself. */
    static HANDLE at(std::string_view path, ACCESS_MASK access = KEY_ALL_ACCESS);
    static bool there(std::string_view path);
    static void grow(const std::string& paths);    /* with blanks between; each after its parent */
    static void growWith(const std::string& path); /* one, and what is missing above it in its hive */
    static void clear(const std::string& names);   /* keys below the root, with all that they hold */
    static void set(std::string_view path, std::string_view name, ULONG type, const ByteVector& data);
    static ByteVector get(std::string_view path, std::string_view name, ULONG* type = nullptr);

    /* A key as TEST stores it, past every check of the platform. */
    void describe(std::string_view path, const ByteVector& descriptor) const;
    ByteVector descriptorOf(std::string_view path) const;
    int holds(std::string_view path, const ByteVector& sid) const; /* how often the descriptor does */
    std::string classOf(std::string_view path) const;

    /* Everything below a key in the order of the enumeration: "a(x y) b"; "@" after a link. */
    std::string tree(std::string_view path) const;

    /* What an operation logs, but for single SIDs and descriptors, and its code: "line, line, code". It must
     * close what it opens. */
    static std::string outcome(const Legend& legend, const std::function<DWORD()>& operation);

    /* sidReplaceInKey on the key of this path. */
    static DWORD replace(std::string_view path, uint32_t flags, const WCHAR* const* valueNames = nullptr);
};

/* The same for a user who holds all privileges that a run enables. */
struct PrivilegedSystem : SmallSystem {
    void SetUp() override;
    static void enableAll(); /* again, after a change of the access mode */
};

} /* namespace offline */

#endif
