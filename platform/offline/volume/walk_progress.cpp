/* SPDX-License-Identifier: GPL-2.0-or-later */
/* How far a walk over a volume has come: the records that are in use and that it has not met yet. */
#include "platform/offline/volume/open_volume.h"
/* before everything else */
#include <bit>

#include "platform/offline/base/progress.h"

namespace offline {
namespace {

/* The bitmap of the MFT's records; false where it can't be had in a few reads. They are not the library's,
 * for what a disk refuses here does not matter to a run. */
bool readBitmap(const Volume& volume, std::vector<uint8_t>& bits) {
    const ntfs3g::ntfs_volume& ntfs = *volume.ntfs;
    const uint64_t most = volume.device.size / ntfs.mft_record_size; /* records */
    if (recordCount(volume) > most) return false;
    const auto held = static_cast<uint64_t>(std::max<int64_t>(ntfs.mftbmp_na->initialized_size, 0));
    bits.resize(static_cast<size_t>(std::min((recordCount(volume) + 7) / 8, held)));
    for (uint64_t at = 0; at < bits.size();) {
        const auto vcn = static_cast<int64_t>(at >> ntfs.cluster_size_bits);
        const ntfs3g::runlist_element* const run = ntfs3g::ntfs_attr_find_vcn(ntfs.mftbmp_na, vcn);
        if (run == nullptr || run->lcn < 0 || run->lcn >= ntfs.nr_clusters) return false;
        const auto begin = static_cast<uint64_t>(run->vcn << ntfs.cluster_size_bits);
        const auto length = static_cast<uint64_t>(run->length << ntfs.cluster_size_bits);
        const uint64_t place = static_cast<uint64_t>(run->lcn << ntfs.cluster_size_bits) + (at - begin);
        const uint64_t count = std::min(length - (at - begin), bits.size() - at);
        if (count == 0 || place > volume.device.size || count > volume.device.size - place) return false;
        const std::span<uint8_t> part =
            std::span(bits).subspan(static_cast<size_t>(at), static_cast<size_t>(count));
        if (diskReadPast(*volume.device.disk, volume.device.start + place, part) < 0) return false;
        at += count;
    }
    return true;
}

} /* namespace */

void volumeWalkBegins(Volume& volume, ProgressPhase phase) {
    volume.walk = {};
    volume.walk.progress = progressSeen();
    if (volume.walk.progress == nullptr) return;
    std::vector<uint8_t>& unmet = volume.walk.unmet;
    const bool read =
        guarded([&] { return readBitmap(volume, unmet) ? STATUS_SUCCESS : STATUS_NOT_FOUND; }) >= 0;
    if (!read) unmet.clear();
    for (size_t i = 0; i < std::min<size_t>(unmet.size(), firstOrdinaryRecord / 8); ++i) unmet[i] = 0;
    for (const uint8_t bits : unmet) phase.total += static_cast<uint64_t>(std::popcount(bits));
    if (phase.total == 0) unmet.clear();
    progressBegin(phase);
}

void noteMet(Volume& volume, FileRef file) {
    std::vector<uint8_t>& unmet = volume.walk.unmet;
    const uint64_t number = recordNumberOf(file);
    if (number / 8 < unmet.size()) [[likely]] {
        uint8_t& eight = unmet[number / 8];
        const auto bit = static_cast<uint8_t>(1U << number % 8);
        if ((eight & bit) == 0) return;
        eight = static_cast<uint8_t>(eight ^ bit);
    } else if (!unmet.empty()) {
        return;
    }
    progressCount(*volume.walk.progress);
}

} /* namespace offline */
