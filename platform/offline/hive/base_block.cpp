/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/hive/base_block.h"

#include "platform/offline/hive/format.h"

namespace offline {
namespace {

using namespace regf;

/* The exclusive or of all words before it. Two results stand for "no checksum" and are never stored. */
uint32_t checksumOf(Bytes block) {
    uint32_t sum = 0;
    for (size_t at = 0; at < base::checksum.at; at += sizeof sum) sum ^= load<uint32_t>(block.data() + at);
    if (sum == 0) return 1;
    return sum == UINT32_MAX ? UINT32_MAX - 1 : sum;
}

const char* const notShutDown =
    "is dirty: it was not shut down, and no log file beside it holds what is missing; start the system once "
    "and shut it down cleanly, then try again";

NTSTATUS checkKind(Bytes file, Problem& problem) {
    if (file.size() < base::size || get(file, base::signature) != base::magic) {
        return refuse(problem, STATUS_NOT_REGISTRY_FILE, "is no registry hive");
    }
    if (get(file, base::type) != 0) {
        return refuse(problem, STATUS_NOT_REGISTRY_FILE, "is a registry log file and no hive");
    }
    const uint32_t major = get(file, base::major);
    const uint32_t minor = get(file, base::minor);
    if (major == 1 && minor >= 3 && minor <= 6) return STATUS_SUCCESS;
    return refuse(problem, STATUS_NOT_REGISTRY_FILE,
                  "is a registry hive of version " + std::to_string(major) + "." + std::to_string(minor) +
                      "; only versions 1.3 to 1.6 are known");
}

/* A file that the platform has written is whole pages long and holds all its bins. */
bool binsFit(Bytes file) {
    const uint32_t size = get(file, base::binsSize);
    return size != 0 && size % pageSize == 0 && size <= largestBins && size <= file.size() - base::size;
}

} /* namespace */

NTSTATUS checkBaseBlock(Bytes file, Problem& problem) {
    if (const NTSTATUS status = checkKind(file, problem); status < 0) return status;

    if (!baseBlockSealed(file)) {
        const bool plausible = binsFit(file) && file.size() % pageSize == 0 && get(file, base::format) == 1;
        if (plausible) return refuse(problem, STATUS_REGISTRY_IO_FAILED, notShutDown);
        return refuse(problem, STATUS_REGISTRY_CORRUPT, "is damaged: its base block does not match the file");
    }
    if (get(file, base::primarySequence) != get(file, base::secondarySequence)) {
        return refuse(problem, STATUS_REGISTRY_IO_FAILED, notShutDown);
    }
    if (get(file, base::format) != 1) {
        return refuse(problem, STATUS_REGISTRY_CORRUPT, "is damaged: its base block names an unknown format");
    }
    if (!binsFit(file)) {
        return refuse(problem, STATUS_REGISTRY_CORRUPT,
                      "is damaged: its base block and the file differ in size");
    }
    return STATUS_SUCCESS;
}

bool baseBlockSealed(Bytes block) {
    return checksumOf(block) == get(block, base::checksum);
}

bool baseBlockDirty(Bytes file) {
    return file.size() >= base::size &&
           (!baseBlockSealed(file) || get(file, base::primarySequence) != get(file, base::secondarySequence));
}

void createBaseBlock(std::span<uint8_t> block, uint32_t minor, std::u16string_view fileName) {
    set(block, base::signature, base::magic);
    set(block, base::major, 1);
    set(block, base::minor, minor);
    set(block, base::format, 1);
    set(block, base::clustering, 1);
    constexpr size_t longest = base::fileNameSize / sizeof(char16_t) - 1;
    if (fileName.size() > longest) fileName.remove_prefix(fileName.size() - longest);
    if (!fileName.empty())
        memcpy(block.data() + base::fileName, fileName.data(), fileName.size() * sizeof(char16_t));
}

void sealBaseBlock(std::span<uint8_t> block, uint32_t primary, uint32_t secondary) {
    set(block, base::primarySequence, primary);
    set(block, base::secondarySequence, secondary);
    set(block, base::checksum, checksumOf(block));
}

} /* namespace offline */
