/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Which disks a journal is of. Private to this room. May throw std::bad_alloc. */
#ifndef QUILLET_OFFLINE_DEVICE_JOURNAL_DISKS_H
#define QUILLET_OFFLINE_DEVICE_JOURNAL_DISKS_H

#include "platform/offline/device/journal_reader.h"
#include "platform/offline/device/transaction.h"

namespace offline {

/* The journal's disks, in its order. */
using JournalDisks = std::vector<const TransactionDisk*>;

/* The digest that a disk is known by. */
DeviceError identityOf(BlockDevice& device, Digest& identity);

/* Finds the journal's disks among those given: by their journals' places, else by their identities, for
 * images may have been moved. Refused: one that is missing, or that is not what it was. */
NTSTATUS matchDisks(const JournalReader& journal, std::span<const TransactionDisk> given, JournalDisks& disks,
                    Problem& problem);

/* For what has to be written. */
NTSTATUS refuseReadOnly(const JournalDisks& disks, Problem& problem);

/* The head with the paths of the journals where the disks lie now. */
JournalHead located(const JournalReader& journal, const JournalDisks& disks);

/* What the disk's device refused. */
NTSTATUS refuseDevice(const TransactionDisk& disk, const std::string& what, DeviceError error,
                      Problem& problem);

} /* namespace offline */

#endif
