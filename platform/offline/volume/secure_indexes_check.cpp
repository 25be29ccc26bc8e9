/* Whether the two indexes of a volume's descriptors, and the stream that both point into, are whole and
 * agree. The library changes them without looking, so that they are gone through once before. */
#include "platform/offline/volume/secure_file.h"
/* before everything else */
#include <algorithm>
#include <cerrno>
#include <set>
#include <utility>
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

/* Where each id's descriptor lies; ids ascend. */
using StoredIds = std::vector<std::pair<uint32_t, uint64_t>>;

bool isStored(const StoredIds& stored, const SdsEntry& sds) {
    return std::binary_search(stored.begin(), stored.end(), std::pair{sds.id, sds.offset});
}

/* Every entry leads to a descriptor in the stream, whose header says the same. Whoever has an id goes by the
 * index of ids, so that an id that only the other one knows would be worth nothing to a file. */
bool indexSound(const SecureIndex& index, std::u16string_view name, ntfs3g::ntfs_attr* stream,
                StoredIds& stored) {
    const auto all = static_cast<uint64_t>(stream->data_size);
    std::set<uint64_t> blocks;
    bool agree = true;
    const bool whole = visitEntries(
        index, 0,
        [&](const SdsEntry& sds) {
            uint8_t header[storedHeader];
            agree = sds.length > storedHeader && sds.offset <= all && sds.length <= all - sds.offset &&
                    readAttribute(stream, sds.offset, header) && sdsEntry(header) == sds;
            if (!index.byHash()) {
                stored.emplace_back(sds.id, sds.offset);
            } else if (!isStored(stored, sds)) {
                agree = false;
            }
            return agree;
        },
        [&](uint64_t number) { return blocks.insert(number).second; });
    return whole && agree && inBitmap(index, name, blocks);
}

} /* namespace */

NTSTATUS checkSecureIndexes(Volume& volume) {
    if (volume.ntfs->secure_ni == nullptr) return STATUS_FILE_CORRUPT_ERROR; /* the library says no more */
    volume.device.failed = STATUS_SUCCESS;
    errno = 0;
    const AttributePtr stream = openSecure(volume, ntfs3g::AT_DATA, u"$SDS");
    SecureIndex byHash, byId;
    StoredIds stored;
    const bool sound = stream != nullptr && openById(volume, byId) &&
                       indexSound(byId, u"$SII", stream.get(), stored) && openByHash(volume, byHash) &&
                       indexSound(byHash, u"$SDH", stream.get(), stored);
    return sound ? STATUS_SUCCESS : unreadable(volume, STATUS_FILE_CORRUPT_ERROR);
}

} /* namespace offline */
