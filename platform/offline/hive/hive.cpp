/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Opening, creating and saving. */
#include "platform/offline/hive/hive.h"

#include <algorithm>

#include "platform/offline/base/guarded.h"
#include "platform/offline/hive/base_block.h"
#include "platform/offline/hive/cells.h"
#include "platform/offline/hive/image.h"
#include "platform/offline/hive/key_nodes.h"
#include "platform/offline/hive/recovery.h"
#include "platform/offline/hive/validate.h"

namespace offline {
namespace {

using namespace regf;

std::span<uint8_t> baseBlock(Hive& hive) {
    return {hive.bytes.data(), base::size};
}

/* How far bins follow each other in the file, whatever the base block says. */
uint32_t binsInFile(Bytes file) {
    const Bytes bins = file.subspan(base::size);
    size_t offset = 0;
    while (bins.size() - offset >= bin::headerSize) {
        const Bytes header = bins.subspan(offset, bin::headerSize);
        const uint32_t size = get(header, bin::size);
        const bool follows = get(header, bin::signature) == bin::magic &&
                             get(header, bin::offset) == offset && size != 0 && size % pageSize == 0 &&
                             size <= bins.size() - offset;
        if (!follows || offset + size > largestBins) break;
        offset += size;
    }
    return static_cast<uint32_t>(offset);
}

/* A base block may count fewer bins than there are. Bins after its end are mostly remnants; they count
 * only when the hive is not whole without them, and is with them. */
NTSTATUS validateBins(Hive& hive, Problem& problem) {
    const NTSTATUS status = validate(hive, problem);
    const uint32_t stated = hive.binsSize;
    if (status >= 0) return status;
    hive.binsSize = binsInFile(hive.bytes);
    Problem second;
    if (hive.binsSize <= stated || validate(hive, second) < 0) return status;
    problem = {};
    return STATUS_SUCCESS;
}

/* What was taken from the logs is in no page of the file yet. */
void noteRecovered(Hive& hive, bool recovered, const std::vector<RecoveredPart>& parts) {
    for (const RecoveredPart& part : parts) {
        const size_t end = std::min<size_t>(size_t{part.offset} + part.size, hive.binsSize);
        for (size_t page = part.offset / pageSize; page * pageSize < end; page++) hive.dirtyPages[page] = 1;
    }
    hive.recovered = recovered;
}

NTSTATUS open(std::vector<uint8_t>&& bytes, const HiveLogs& logs, HivePtr& hive, Problem& problem) {
    HivePtr opened(new Hive);
    opened->fileSize = bytes.size();
    std::vector<RecoveredPart> parts;
    const bool recovered = baseBlockDirty(bytes) && applyLogs(bytes, logs, parts);
    if (const NTSTATUS status = checkBaseBlock(bytes, problem); status < 0) return status;
    opened->bytes = std::move(bytes);
    const Bytes block = baseBlock(*opened);
    opened->binsSize = get(block, base::binsSize);
    opened->minor = get(block, base::minor);
    opened->root = get(block, base::root);
    if (const NTSTATUS status = validateBins(*opened, problem); status < 0) return status;
    noteRecovered(*opened, recovered, parts);
    hive = std::move(opened);
    return STATUS_SUCCESS;
}

NTSTATUS create(uint32_t minor, std::u16string_view rootName, std::u16string_view fileName, Bytes descriptor,
                HivePtr& hive) {
    HivePtr made(new Hive);
    const NewKey root{rootName, {}, findDescriptor(*made, descriptor), HIVE_KEY_ROOT | HIVE_KEY_NO_DELETE};
    made->minor = minor;
    made->bytes.resize(base::size);
    createBaseBlock(baseBlock(*made), minor, fileName);
    if (const NTSTATUS status = makeRoom(*made, newKeyGrowth(root)); status < 0) return status;
    made->root = storeKey(*made, noCell, root, 0);
    set(baseBlock(*made), base::root, made->root);
    hive = std::move(made);
    return STATUS_SUCCESS;
}

uint32_t primarySequence(const Hive& hive) {
    return get(Bytes(hive.bytes), base::primarySequence);
}

/* Writes the base block with these sequence numbers and waits until it is on the medium. */
NTSTATUS writeBase(Hive& hive, HiveStore& store, uint32_t primary, uint32_t secondary) {
    const std::span<uint8_t> block = baseBlock(hive);
    set(block, base::binsSize, hive.binsSize);
    sealBaseBlock(block, primary, secondary);
    const NTSTATUS status = store.write(0, block);
    return status < 0 ? status : store.flush();
}

/* Writes the changed pages, neighbours in one go. */
NTSTATUS writePages(const Hive& hive, HiveStore& store) {
    const auto end = hive.dirtyPages.end();
    auto first = std::find(hive.dirtyPages.begin(), end, uint8_t{1});
    while (first != end) {
        const auto last = std::find(first, end, uint8_t{0});
        const size_t offset = pageSize * (1 + static_cast<size_t>(first - hive.dirtyPages.begin()));
        const Bytes run(hive.bytes.data() + offset, pageSize * static_cast<size_t>(last - first));
        if (const NTSTATUS status = store.write(offset, run); status < 0) return status;
        first = std::find(last, end, uint8_t{1});
    }
    return STATUS_SUCCESS;
}

} /* namespace */

void HiveDeleter::operator()(Hive* hive) const {
    delete hive;
}

bool hiveNeedsLogs(Bytes bytes) {
    return baseBlockDirty(bytes);
}

NTSTATUS hiveOpen(std::vector<uint8_t> bytes, const HiveLogs& logs, HivePtr& hive, Problem& problem) {
    problem = {};
    const NTSTATUS status = guarded([&] { return open(std::move(bytes), logs, hive, problem); });
    problem.status = status;
    if (status != STATUS_NO_MEMORY) return status;
    return guarded([&] { return refuse(problem, status, "needs more memory than there is"); });
}

NTSTATUS hiveOpen(std::vector<uint8_t> bytes, HivePtr& hive, Problem& problem) {
    return hiveOpen(std::move(bytes), {}, hive, problem);
}

bool hiveRecovered(const Hive& hive) {
    return hive.recovered;
}

NTSTATUS hiveCreate(uint32_t minor, std::u16string_view rootName, std::u16string_view fileName,
                    Bytes descriptor, HivePtr& hive) {
    if (minor < 3 || minor > 6 || rootName.empty() || rootName.size() > longestKeyName ||
        !validDescriptor(descriptor)) {
        return STATUS_INVALID_PARAMETER;
    }
    return guarded([&] { return create(minor, rootName, fileName, descriptor, hive); });
}

NTSTATUS hiveSave(Hive& hive, HiveStore& store) {
    if (!hive.changed) return STATUS_SUCCESS;
    const uint64_t size = base::size + hive.binsSize;
    if (size > hive.fileSize) {
        if (const NTSTATUS status = store.grow(size); status < 0) return status;
        hive.fileSize = size;
    }

    /* Until the last write the sequence numbers differ, and a reader knows that the pages may be a mixture.
     * The next number is above every one that a log file of this hive can hold. */
    const uint32_t before = primarySequence(hive);
    const uint32_t sequence = before + 1;
    if (const NTSTATUS status = writeBase(hive, store, sequence, before); status < 0) return status;
    if (const NTSTATUS status = writePages(hive, store); status < 0) return status;
    if (const NTSTATUS status = store.flush(); status < 0) return status;
    if (const NTSTATUS status = writeBase(hive, store, sequence, sequence); status < 0) return status;

    std::fill(hive.dirtyPages.begin(), hive.dirtyPages.end(), uint8_t{0});
    hive.changed = false;
    hive.recovered = false;
    return STATUS_SUCCESS;
}

bool hiveChanged(const Hive& hive) {
    return hive.changed;
}

std::vector<uint8_t> hiveImage(const Hive& hive) {
    std::vector<uint8_t> image;
    guarded([&] {
        image = hive.bytes;
        const std::span<uint8_t> block(image.data(), base::size);
        const uint32_t sequence = primarySequence(hive) + (hive.changed ? 1 : 0);
        set(block, base::binsSize, hive.binsSize);
        sealBaseBlock(block, sequence, sequence);
        return STATUS_SUCCESS;
    });
    return image;
}

uint32_t hiveMinorVersion(const Hive& hive) {
    return hive.minor;
}

uint32_t hiveKeysFound(const Hive& hive) {
    return hive.keysFound;
}

} /* namespace offline */
