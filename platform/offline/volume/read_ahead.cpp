/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Directories that a walk will enter soon, read before it does: where a device answers several reads at once,
 * their records come in the time of one, and the blocks of their indexes in that of another. */
#include "platform/offline/volume/open_volume.h"
/* before everything else */
#include <cstdlib>

namespace offline {
namespace {

constexpr size_t mostDirectories = 32;
constexpr uint64_t mostOfIndex = 16 * 1024; /* bytes of each that are read ahead */

struct FreeRuns {
    void operator()(ntfs3g::runlist_element* runs) const { std::free(runs); }
};

/* The beginning of the blocks of an index, in its first piece. */
bool indexStart(const Volume& volume, Bytes record, const FileRecord& file, ByteRange& range) {
    const Bytes used =
        checkedSpan(record, 0, numberAt<uint32_t>(record, offsetof(ntfs3g::MFT_RECORD, bytes_in_use)));
    Attribute attribute;
    size_t offset = file.firstName;
    do {
        if (offset == 0 || offset > used.size() || !attributeAt(used, offset, attribute)) return false;
        offset += attribute.header.size();
    } while (attribute.type < ntfs3g::AT_INDEX_ALLOCATION);
    if (attribute.type != ntfs3g::AT_INDEX_ALLOCATION || attribute.resident) return false;
    const std::unique_ptr<ntfs3g::runlist_element, FreeRuns> runs(ntfs3g::ntfs_mapping_pairs_decompress(
        volume.ntfs, reinterpret_cast<const ntfs3g::ATTR_RECORD*>(attribute.header.data()), nullptr));
    if (!runs || runs->length <= 0 || runs->lcn < 0 || runs->lcn >= volume.ntfs->nr_clusters) return false;
    const unsigned bits = volume.ntfs->cluster_size_bits;
    range.offset = volume.device.start + (static_cast<uint64_t>(runs->lcn) << bits);
    range.count = std::min(static_cast<uint64_t>(runs->length) << bits, mostOfIndex);
    return true;
}

} /* namespace */

void readAhead(Volume& volume, const DirectoryListing& listing, const DirectoryEntry& first) {
    Disk& disk = *volume.device.disk;
    const size_t atOnce = diskReadsAtOnce(disk);
    if (atOnce <= 1 || !first.directory) return;
    std::vector<FileRef>& ahead = volume.readAhead;
    if (std::find(ahead.begin(), ahead.end(), first.file) != ahead.end()) return;
    ahead.clear();
    std::vector<ByteRange> records, indexes;
    const size_t size = volume.ntfs->mft_record_size;
    for (const DirectoryEntry* entry = &first; entry != listing.entries.data() + listing.entries.size();
         ++entry) {
        uint64_t place = 0, length = 0;
        if (!entry->directory || recordNumberOf(entry->file) >= recordCount(volume)) continue;
        if (!recordPlace(volume, recordNumberOf(entry->file), place, length)) continue;
        ahead.push_back(entry->file);
        records.push_back({volume.device.start + place, size});
        if (ahead.size() == std::min(mostDirectories, atOnce)) break;
    }
    diskReadAhead(disk, records);
    std::vector<uint8_t> record(size);
    for (size_t i = 0; i < records.size(); ++i) {
        FileRecord file;
        ByteRange range;
        if (diskReadPast(disk, records[i].offset, record) >= 0 && parseRecord(record, ahead[i], file) &&
            indexStart(volume, record, file, range))
            indexes.push_back(range);
    }
    diskReadAhead(disk, indexes);
}

} /* namespace offline */
