/* SPDX-License-Identifier: GPL-2.0-or-later */
/* ZwOpenKey and ZwCreateKey. */
#include "platform/offline/registry/open_path.h"

#include <vector>

#include "platform/offline/base/guarded.h"
#include "platform/offline/base/progress.h"
#include "platform/offline/base/system_needed.h"
#include "platform/offline/base/unicode.h"
#include "platform/offline/registry/hive_mounts.h"
#include "platform/offline/registry/open_keys.h"
#include "platform/offline/registry/resolve.h"
#include "platform/offline/security/security.h"

namespace offline {
namespace {

/* Which of the two views of the registry is meant; there is one only. */
constexpr ACCESS_MASK viewBits = 0x300;

constexpr ACCESS_MASK genericBits = GENERIC_READ | GENERIC_WRITE | GENERIC_EXECUTE | GENERIC_ALL;

/* Where the path of the attributes starts, and the path from there. */
NTSTATUS objectPath(const OBJECT_ATTRIBUTES* attributes, KeyRef& from, std::u16string_view& path) {
    if (attributes == nullptr || attributes->Length != sizeof(OBJECT_ATTRIBUTES))
        return STATUS_INVALID_PARAMETER;
    const UNICODE_STRING* name = attributes->ObjectName;
    if (name != nullptr && name->Length % sizeof(WCHAR) != 0) return STATUS_OBJECT_NAME_INVALID;
    if (name != nullptr && name->Length != 0 && name->Buffer == nullptr) return STATUS_INVALID_PARAMETER;
    path = view(name);
    if (attributes->RootDirectory == nullptr) {
        const NTSTATUS status = belowRegistry(path, path);
        return status < 0 ? status : namespaceRoot(from);
    }
    const NTSTATUS status = useKey(attributes->RootDirectory, 0, from);
    if (status < 0) return status;
    return !path.empty() && path[0] == u'\\' ? STATUS_OBJECT_PATH_SYNTAX_BAD : STATUS_SUCCESS;
}

Bytes descriptorOf(const KeyRef& ref) {
    return hiveKeyDescriptor(*ref.mount->hive, ref.cell);
}

/* Who creates a key gets the rights that he asks for, whatever the key's descriptor grants; only the right to
 * audit lists hangs on its privilege. */
NTSTATUS creatorAccess(ACCESS_MASK access, ACCESS_MASK& granted) {
    if ((access & ACCESS_SYSTEM_SECURITY) != 0 && !privilegeEnabled(securityPrivilege)) {
        return STATUS_PRIVILEGE_NOT_HELD;
    }
    granted = access & ~(genericBits | MAXIMUM_ALLOWED);
    if ((access & GENERIC_READ) != 0) granted |= keyMapping.read;
    if ((access & GENERIC_WRITE) != 0) granted |= keyMapping.write;
    if ((access & GENERIC_EXECUTE) != 0) granted |= keyMapping.execute;
    if ((access & (GENERIC_ALL | MAXIMUM_ALLOWED)) != 0) granted |= keyMapping.all;
    return STATUS_SUCCESS;
}

NTSTATUS openKeyRef(const KeyRef& ref, ACCESS_MASK access, HANDLE& handle) {
    ACCESS_MASK granted = 0;
    const NTSTATUS status = accessCheck(descriptorOf(ref), access & ~viewBits, keyMapping, granted);
    if (status < 0) return status;
    progressAdd();
    return openHandle(ref, granted, handle);
}

struct NewKey {
    std::u16string_view name;
    Bytes classText;
    bool link;
};

/* Creates a key that is missing and opens it. */
NTSTATUS createBelow(const KeyRef& parent, const NewKey& key, ACCESS_MASK access, HANDLE& handle) {
    if (isNamespaceKey(parent)) return STATUS_ACCESS_DENIED;
    const ACCESS_MASK needed = KEY_CREATE_SUB_KEY | (key.link ? KEY_CREATE_LINK : 0);
    ACCESS_MASK granted = 0;
    NTSTATUS status = accessCheck(descriptorOf(parent), needed, keyMapping, granted);
    if (status < 0) return status;
    status = creatorAccess(access & ~viewBits, granted);
    if (status < 0) return status;
    std::vector<uint8_t> descriptor;
    status = descriptorForChild(descriptorOf(parent), keyMapping, descriptor);
    if (status >= 0) status = beginChange(parent);
    if (status < 0) return status;
    Hive& hive = *parent.mount->hive;
    KeyRef created{parent.mount, noCell};
    const uint16_t flags = key.link ? HIVE_KEY_LINK : 0;
    status = hiveCreateSubkey(hive, parent.cell, key.name, key.classText, descriptor, flags, timeNow(),
                              created.cell);
    if (status < 0) return status;
    status = openHandle(created, granted, handle);
    if (status < 0) hiveDeleteKey(hive, created.cell, timeNow());
    return status;
}

NTSTATUS checkOptions(const OBJECT_ATTRIBUTES& attributes, const UNICODE_STRING* className, ULONG options) {
    if ((options & REG_OPTION_VOLATILE) != 0) return STATUS_NOT_SUPPORTED;
    if ((options & ~REG_OPTION_CREATE_LINK) != 0) return STATUS_INVALID_PARAMETER;
    if (attributes.SecurityDescriptor != nullptr) return STATUS_NOT_SUPPORTED;
    const bool noText = className != nullptr && className->Length != 0 && className->Buffer == nullptr;
    return noText ? STATUS_INVALID_PARAMETER : STATUS_SUCCESS;
}

NTSTATUS createKey(ACCESS_MASK access, const OBJECT_ATTRIBUTES* attributes, const UNICODE_STRING* className,
                   ULONG options, HANDLE& handle, ULONG& disposition) {
    KeyRef from;
    std::u16string_view path;
    NTSTATUS status = objectPath(attributes, from, path);
    if (status >= 0) status = checkOptions(*attributes, className, options);
    if (status < 0) return status;
    const bool link = (options & REG_OPTION_CREATE_LINK) != 0;
    Resolved found;
    status = resolvePath(from, path, link || (attributes->Attributes & OBJ_OPENLINK) != 0, found);
    if (status >= 0) {
        disposition = REG_OPENED_EXISTING_KEY;
        return link ? STATUS_OBJECT_NAME_COLLISION : openKeyRef(found.key, access, handle);
    }
    if (status != STATUS_OBJECT_NAME_NOT_FOUND || found.leaf.empty()) return status;
    disposition = REG_CREATED_NEW_KEY;
    NewKey key{found.leaf, {}, link};
    if (className != nullptr) {
        key.classText = {reinterpret_cast<const uint8_t*>(className->Buffer), className->Length};
    }
    return createBelow(found.key, key, access, handle);
}

} /* namespace */

NTSTATUS openPath(const KeyRef& from, std::u16string_view path, bool openLink, ACCESS_MASK access,
                  HANDLE& handle) {
    Resolved found;
    const NTSTATUS status = resolvePath(from, path, openLink, found);
    return status < 0 ? status : openKeyRef(found.key, access, handle);
}

} /* namespace offline */

NTSTATUS ZwOpenKey(PHANDLE key, ACCESS_MASK access, POBJECT_ATTRIBUTES attributes) {
    return offline::guarded([&] {
        NTSTATUS status = offline::systemNeeded();
        if (status < 0) return status;
        if (key == nullptr) return STATUS_INVALID_PARAMETER;
        offline::KeyRef from;
        std::u16string_view path;
        status = offline::objectPath(attributes, from, path);
        if (status < 0) return status;
        return offline::openPath(from, path, (attributes->Attributes & OBJ_OPENLINK) != 0, access, *key);
    });
}

NTSTATUS ZwCreateKey(PHANDLE key, ACCESS_MASK access, POBJECT_ATTRIBUTES attributes, ULONG /* titleIndex */,
                     PUNICODE_STRING className, ULONG createOptions, PULONG disposition) {
    return offline::guarded([&] {
        NTSTATUS status = offline::systemNeeded();
        if (status < 0) return status;
        if (key == nullptr) return STATUS_INVALID_PARAMETER;
        ULONG outcome = 0;
        status = offline::createKey(access, attributes, className, createOptions, *key, outcome);
        if (status >= 0 && disposition != nullptr) *disposition = outcome;
        return status;
    });
}
