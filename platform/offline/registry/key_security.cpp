/* SPDX-License-Identifier: GPL-2.0-or-later */
/* RegGetKeySecurity and RegSetKeySecurity. */
#include <cstdint>
#include <cstring>
#include <vector>

#include "platform/offline/base/guarded.h"
#include "platform/offline/registry/hive_mounts.h"
#include "platform/offline/registry/open_keys.h"
#include "platform/offline/registry/registry_state.h"
#include "platform/offline/security/security.h"

namespace offline {
namespace {

Bytes storedDescriptor(const KeyRef& key) {
    return hiveKeyDescriptor(*key.mount->hive, key.cell);
}

NTSTATUS getSecurity(HKEY key, SECURITY_INFORMATION information, PSECURITY_DESCRIPTOR descriptor,
                     DWORD& size) {
    KeyRef ref;
    std::vector<uint8_t>& image = registryState().descriptor;
    NTSTATUS status = useRegKey(key, accessToQuery(information), ref);
    if (status >= 0) status = descriptorQuery(storedDescriptor(ref), information, image);
    if (status < 0) return status;
    const DWORD room = size;
    size = static_cast<DWORD>(image.size());
    if (room < image.size() || descriptor == nullptr) return STATUS_BUFFER_TOO_SMALL;
    memcpy(descriptor, image.data(), image.size());
    return STATUS_SUCCESS;
}

/* A stored descriptor that is not valid is refused by the security room, unless the given one takes its place
 * whole: nothing is built upon it. */
NTSTATUS setSecurity(HKEY key, SECURITY_INFORMATION information, PSECURITY_DESCRIPTOR descriptor) {
    KeyRef ref;
    std::vector<uint8_t> image;
    NTSTATUS status = useRegKey(key, accessToSet(information), ref);
    if (status >= 0) status = descriptorSet(storedDescriptor(ref), information, descriptor, image);
    if (status >= 0) status = beginChange(ref);
    return status < 0 ? status : hiveSetKeyDescriptor(*ref.mount->hive, ref.cell, image, timeNow());
}

} /* namespace */
} /* namespace offline */

LSTATUS RegGetKeySecurity(HKEY key, SECURITY_INFORMATION information, PSECURITY_DESCRIPTOR descriptor,
                          LPDWORD size) {
    if (size == nullptr) return ERROR_INVALID_PARAMETER;
    const NTSTATUS status =
        offline::guarded([&] { return offline::getSecurity(key, information, descriptor, *size); });
    return static_cast<LSTATUS>(RtlNtStatusToDosError(status));
}

LSTATUS RegSetKeySecurity(HKEY key, SECURITY_INFORMATION information, PSECURITY_DESCRIPTOR descriptor) {
    if (descriptor == nullptr) return ERROR_INVALID_PARAMETER;
    const NTSTATUS status =
        offline::guarded([&] { return offline::setSecurity(key, information, descriptor); });
    return static_cast<LSTATUS>(RtlNtStatusToDosError(status));
}
