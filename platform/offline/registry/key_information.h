/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The records that the native query calls fill in: the platform's KEY_…_INFORMATION structures. A record that
 * doesn't fit is copied as far as the buffer goes. */
#ifndef QUILLET_OFFLINE_REGISTRY_KEY_INFORMATION_H
#define QUILLET_OFFLINE_REGISTRY_KEY_INFORMATION_H

#include "platform/nt.h"
#include "platform/offline/hive/hive.h"
#include "platform/offline/registry/namespace.h"

namespace offline {

/* The caller's side of a query. */
struct QueryBuffer {
    PVOID bytes;  /* of any alignment; may be null when size is 0 */
    ULONG size;   /* bytes */
    PULONG total; /* gets the size of the whole record */
};

/* Each gives STATUS_BUFFER_TOO_SMALL when the buffer doesn't hold the record's fixed part,
 * STATUS_BUFFER_OVERFLOW when it holds that and not all of the rest, STATUS_INVALID_PARAMETER for a class of
 * records that isn't known. */
NTSTATUS writeKeyFlags(const KeyRef& key, const QueryBuffer& out);
NTSTATUS writeKeyRecord(const KeyRef& key, KEY_INFORMATION_CLASS infoClass, const QueryBuffer& out);
NTSTATUS writeValueRecord(const Hive& hive, const HiveValue& value, KEY_VALUE_INFORMATION_CLASS infoClass,
                          const QueryBuffer& out);

} /* namespace offline */

#endif
