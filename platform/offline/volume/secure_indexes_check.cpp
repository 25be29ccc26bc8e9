/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Whether the two indexes of a volume's descriptors, and the stream that both point into, are whole and
 * agree. The library changes them without looking, so that they are gone through once before. */
#include "platform/offline/volume/secure_file.h"
/* before everything else */
#include <algorithm>
#include <cerrno>
#include <set>
#include <vector>

namespace offline {
namespace {

/* A block that is in use but free by the bitmap would be given away to another part of the index. */
bool inBitmap(const SecureIndex& index, std::u16string_view name, const std::set<uint64_t>& blocks) {
    if (blocks.empty()) return true;
    const AttributePtr bitmap = openSecure(*index.volume, ntfs3g::AT_BITMAP, name);
    const auto all = bitmap ? static_cast<uint64_t>(bitmap->data_size) : 0;
    const uint64_t highest = (*blocks.rbegin() << index.blockShift) / index.blockSize;
    if (highest / 8 >= all) return false;
    std::vector<uint8_t> bits(static_cast<size_t>(highest / 8) + 1);
    if (!readAttribute(bitmap.get(), 0, bits)) return false;
    for (const uint64_t number : blocks) {
        const uint64_t bit = (number << index.blockShift) / index.blockSize;
        if ((bits[bit / 8] >> (bit % 8) & 1) == 0) return false;
    }
    return true;
}

/* Reads the headers in the stream in long reads, front to back; those that can't be had so, one by one. */
struct HeaderReader {
    Volume& volume;
    ntfs3g::ntfs_attr* stream;
    uint64_t start = 0; /* bytes, of what was read */
    std::vector<uint8_t> piece = {};

    bool read(uint64_t offset, std::span<uint8_t> header) {
        const auto all = static_cast<uint64_t>(stream->data_size);
        if (offset < start || checkedSpan(piece, offset - start, header.size()).empty()) {
            start = offset;
            piece.resize(static_cast<size_t>(std::min(streamBlock - offset % streamBlock, all - offset)));
            if (!readAttributePast(volume, stream, start, piece)) piece.clear();
        }
        const Bytes found = checkedSpan(piece, offset - start, header.size());
        std::copy(found.begin(), found.end(), header.begin());
        return !found.empty() || readAttribute(stream, offset, header);
    }
};

bool headersMatch(Volume& volume, ntfs3g::ntfs_attr* stream, std::vector<SdsEntry> entries) {
    const auto before = [](const SdsEntry& a, const SdsEntry& b) { return a.offset < b.offset; };
    if (!std::is_sorted(entries.begin(), entries.end(), before))
        std::sort(entries.begin(), entries.end(), before);
    const auto all = static_cast<uint64_t>(stream->data_size);
    HeaderReader reader{.volume = volume, .stream = stream};
    return std::all_of(entries.begin(), entries.end(), [&](const SdsEntry& sds) {
        uint8_t header[storedHeader];
        return sds.length > storedHeader && sds.offset <= all && sds.length <= all - sds.offset &&
               reader.read(sds.offset, header) && sdsEntry(header) == sds;
    });
}

/* Calls visit with each entry until it answers false. Whether all was whole. */
bool indexSound(const SecureIndex& index, std::u16string_view name, const VisitEntry& visit) {
    std::set<uint64_t> blocks;
    bool agree = true;
    const bool whole = visitEntries(
        index, 0, [&](const SdsEntry& sds) { return agree = visit(sds); },
        [&](uint64_t number) { return blocks.insert(number).second; });
    return whole && agree && inBitmap(index, name, blocks);
}

/* Every entry leads to a descriptor in the stream, whose header says the same. Whoever has an id goes by the
 * index of ids, so that an id that only the other one knows would be worth nothing to a file. */
bool allSound(Volume& volume, ntfs3g::ntfs_attr* stream, std::vector<SdsEntry>& entries) {
    SecureIndex byHash, byId;
    const VisitEntry take = [&](const SdsEntry& sds) {
        entries.push_back(sds);
        return true;
    };
    if (!openById(volume, byId) || !indexSound(byId, u"$SII", take)) return false;
    if (!headersMatch(volume, stream, entries)) return false;
    const VisitEntry compare = [&](const SdsEntry& sds) {
        const SdsEntry* const known = entryOf(entries, sds.id);
        return known != nullptr && *known == sds;
    };
    return openByHash(volume, byHash) && indexSound(byHash, u"$SDH", compare);
}

} /* namespace */

NTSTATUS checkSecureIndexes(Volume& volume) {
    if (volume.ntfs->secure_ni == nullptr) return STATUS_FILE_CORRUPT_ERROR; /* the library says no more */
    volume.device.failed = STATUS_SUCCESS;
    errno = 0;
    const AttributePtr stream = openSecure(volume, ntfs3g::AT_DATA, u"$SDS");
    std::vector<SdsEntry> entries;
    if (stream == nullptr || !allSound(volume, stream.get(), entries))
        return unreadable(volume, STATUS_FILE_CORRUPT_ERROR);
    takeTable(volume, std::move(entries));
    return STATUS_SUCCESS;
}

} /* namespace offline */
