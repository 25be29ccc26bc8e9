/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Bringing a hive up to date from its log files, as the platform does when it loads a hive that was not shut
 * down: what was changed last is in the logs and not in the hive's own file. */
#ifndef QUILLET_OFFLINE_HIVE_RECOVERY_H
#define QUILLET_OFFLINE_HIVE_RECOVERY_H

#include <cstdint>
#include <span>
#include <vector>

#include "platform/offline/hive/hive.h"

namespace offline {

/* A part of the bins that was taken from a log, in bytes from the first bin. */
struct RecoveredPart {
    uint32_t offset;
    uint32_t size;
};

/* Applies the logs to the bytes of a dirty hive's file, in memory: the parts, the size of the bins, and a
 * base block with equal sequence numbers above every one in the logs. False, with the bytes as they were,
 * when no log holds anything that applies; throws std::bad_alloc. The result is as untrusted as what it is
 * made of. */
bool applyLogs(std::vector<uint8_t>& bytes, const HiveLogs& logs, std::vector<RecoveredPart>& parts);

/* What a new log's entries and their heads are sealed with: Marvin32 with the platform's seed. */
uint64_t marvin(Bytes bytes);

} /* namespace offline */

#endif
