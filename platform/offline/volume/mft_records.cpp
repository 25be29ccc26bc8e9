/* SPDX-License-Identifier: GPL-2.0-or-later */
/* MFT records as they lie on the disk. A walk over a whole volume asks every file for a few fields of its
 * record; read here, that costs a fraction of opening the file. Structure: the record header and the
 * attribute headers of NTFS 3. */
#include "platform/offline/volume/open_volume.h"
/* before everything else */
#include <cerrno>

namespace offline {
namespace {

using ntfs3g::ATTR_RECORD;
using ntfs3g::MFT_RECORD;
using ntfs3g::STANDARD_INFORMATION;

constexpr uint32_t endOfAttributes = 0xFFFFFFFF;
constexpr size_t standardInformationV1 = 48, standardInformationV3 = 72; /* bytes */
constexpr size_t residentHeader = 24, nonResidentHeader = 64;

/* On-disk bits that are not attributes of the file: what kinds of indexes it has. */
constexpr uint32_t attributeBits = 0x0FFFFFFF;

bool takeStandardInformation(const Attribute& attribute, Bytes record, FileRecord& file) {
    if (!attribute.resident || attribute.named || attribute.value.size() < standardInformationV1)
        return false;
    Bytes value = attribute.value;
    file.info.created = numberAt<uint64_t>(value, offsetof(STANDARD_INFORMATION, creation_time));
    file.info.lastWritten = numberAt<uint64_t>(value, offsetof(STANDARD_INFORMATION, last_data_change_time));
    file.info.lastAccessed = numberAt<uint64_t>(value, offsetof(STANDARD_INFORMATION, last_access_time));
    file.info.attributes =
        numberAt<uint32_t>(value, offsetof(STANDARD_INFORMATION, file_attributes)) & attributeBits;
    if (value.size() >= standardInformationV3) {
        size_t offset = offsetof(STANDARD_INFORMATION, security_id);
        file.securityId = numberAt<uint32_t>(value, offset);
        file.securityIdOffset = static_cast<size_t>(value.data() - record.data()) + offset;
    }
    return true;
}

void takeDataSize(const Attribute& attribute, FileRecord& file) {
    if (attribute.named) return;
    if (attribute.resident) {
        file.info.size = attribute.value.size();
    } else if (numberAt<uint64_t>(attribute.header, offsetof(ATTR_RECORD, lowest_vcn)) == 0) {
        file.info.size = numberAt<uint64_t>(attribute.header, offsetof(ATTR_RECORD, data_size));
    }
}

void takeReparseTag(const Attribute& attribute, FileRecord& file) {
    file.reparseData = true;
    if (attribute.resident && attribute.value.size() >= 4) {
        file.info.reparseTag = numberAt<uint32_t>(attribute.value, 0);
    } else {
        file.tagMissing = true;
    }
}

/* Goes through the attributes. False when the record is damaged. */
bool takeAttributes(Bytes record, Bytes used, size_t offset, FileRecord& file) {
    bool standard = false;
    while (used.size() - offset >= 4 && numberAt<uint32_t>(used, offset) != endOfAttributes) {
        Attribute attribute;
        if (!attributeAt(used, offset, attribute)) return false;
        switch (attribute.type) {
            case ntfs3g::AT_STANDARD_INFORMATION:
                if (standard || !takeStandardInformation(attribute, record, file)) return false;
                standard = true;
                break;
            case ntfs3g::AT_ATTRIBUTE_LIST:
                file.complete = false;
                break;
            case ntfs3g::AT_FILE_NAME:
                if (file.firstName == 0) file.firstName = offset;
                break;
            case ntfs3g::AT_SECURITY_DESCRIPTOR:
                file.ownDescriptor = true;
                break;
            case ntfs3g::AT_DATA:
                takeDataSize(attribute, file);
                break;
            case ntfs3g::AT_REPARSE_POINT:
                takeReparseTag(attribute, file);
                break;
            default:
                break;
        }
        offset += attribute.header.size();
    }
    return standard;
}

/* Puts back what the update sequence has taken the place of at the end of each sector; where one of them does
 * not hold the number that all were written with, they are of different times. */
bool undoUpdateSequence(std::span<uint8_t> record) {
    constexpr size_t sector = 512;
    uint8_t* sequence = record.data() + numberAt<uint16_t>(record, offsetof(MFT_RECORD, usa_ofs));
    const uint16_t number = loadNumber<uint16_t>(sequence);
    for (size_t end = sector; end <= record.size(); end += sector) {
        uint8_t* const last = record.data() + end - sizeof number;
        if (loadNumber<uint16_t>(last) != number) return false;
        sequence += sizeof number;
        std::memcpy(last, sequence, sizeof number);
    }
    return true;
}

/* The reparse tag of a file whose reparse data is not in its first record, if it has any. */
NTSTATUS readTag(Inode& inode, uint32_t& tag, bool& there) {
    errno = 0;
    ntfs3g::ntfs_attr* data = ntfs3g::ntfs_attr_open(inode.inode, ntfs3g::AT_REPARSE_POINT, nullptr, 0);
    there = data != nullptr;
    if (!there && errno == ENOENT && !inode.volume.device.failed) return STATUS_SUCCESS;
    if (!there) return libraryStatus(inode.volume, errno);
    int64_t done = ntfs3g::ntfs_attr_pread(data, 0, sizeof tag, &tag);
    const NTSTATUS status = done == sizeof tag ? STATUS_SUCCESS : libraryStatus(inode.volume, errno);
    ntfs3g::ntfs_attr_close(data);
    return status;
}

bool isReparsePoint(const FileRecord& record) {
    return (record.info.attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
}

/* Without the data that says what it leads to, nothing is a reparse point, whatever the bit says: what lies
 * below a directory would be out of everyone's reach. */
void dropReparseBit(FileRecord& record) {
    record.info.attributes &= ~uint32_t{FILE_ATTRIBUTE_REPARSE_POINT};
    if (record.info.attributes == 0) record.info.attributes = FILE_ATTRIBUTE_NORMAL;
}

/* What is kept in further records comes through the library. */
NTSTATUS complete(Volume& volume, FileRef file, FileRecord& record) {
    if (tellsAll(record)) return STATUS_SUCCESS;
    const bool reparse = isReparsePoint(record);
    Inode inode(volume);
    NTSTATUS status = inode.open(file);
    if (status < 0) return status;
    if (!record.directory) record.info.size = static_cast<uint64_t>(inode.inode->data_size);
    if (!reparse) return status;
    bool there = false;
    status = readTag(inode, record.info.reparseTag, there);
    if (status >= 0 && !there) dropReparseBit(record);
    return status;
}

/* Reads the bytes of a record as they lie on the disk; the library is asked for those that are in pieces. */
bool readRecord(Volume& volume, uint64_t number) {
    const auto size = static_cast<int64_t>(volume.recordBytes.size());
    ntfs3g::ntfs_device* const device = volume.ntfs->dev;
    uint64_t place = 0, length = 0;
    if (recordPlace(volume, number, place, length))
        return device->d_ops->pread(device, volume.recordBytes.data(), size, static_cast<int64_t>(place)) ==
               size;
    const auto offset = static_cast<int64_t>(number << volume.ntfs->mft_record_size_bits);
    return ntfs3g::ntfs_attr_pread(volume.ntfs->mft_na, offset, size, volume.recordBytes.data()) == size;
}

bool isName(Bytes value, FileRef directory, std::u16string_view wanted) {
    FileName name;
    return takeFileName(value, name) && name.text.size() == wanted.size() * sizeof(char16_t) &&
           recordNumberOf(name.directory) == recordNumberOf(directory) &&
           std::memcmp(name.text.data(), wanted.data(), name.text.size()) == 0;
}

} /* namespace */

bool attributeAt(Bytes used, size_t offset, Attribute& attribute) {
    Bytes rest = checkedSpan(used, offset, used.size() - offset);
    if (rest.size() < residentHeader) return false;
    attribute.type = numberAt<uint32_t>(rest, offsetof(ATTR_RECORD, type));
    uint32_t length = numberAt<uint32_t>(rest, offsetof(ATTR_RECORD, length));
    attribute.resident = rest[offsetof(ATTR_RECORD, non_resident)] == 0;
    attribute.named = rest[offsetof(ATTR_RECORD, name_length)] != 0;
    attribute.header = checkedSpan(rest, 0, length);
    attribute.value = {};
    if (length % 8 != 0 || attribute.header.size() < residentHeader) return false;
    if (!attribute.resident) return length >= nonResidentHeader;
    uint32_t valueLength = numberAt<uint32_t>(rest, offsetof(ATTR_RECORD, value_length));
    uint16_t valueOffset = numberAt<uint16_t>(rest, offsetof(ATTR_RECORD, value_offset));
    attribute.value = checkedSpan(attribute.header, valueOffset, valueLength);
    return attribute.value.size() == valueLength;
}

bool takeFileName(Bytes value, FileName& name) {
    constexpr size_t head = 66, lengthPlace = 64, typePlace = 65; /* bytes */
    if (value.size() < head) return false;
    name.directory = numberAt<uint64_t>(value, 0);
    name.type = value[typePlace];
    name.text = checkedSpan(value, head, value[lengthPlace] * sizeof(char16_t));
    return !name.text.empty();
}

bool parseRecord(std::span<uint8_t> record, FileRef reference, FileRecord& file) {
    file = {};
    file.complete = true;
    if (record.size() < sizeof(MFT_RECORD) || std::memcmp(record.data(), "FILE", 4) != 0) return false;
    uint16_t sequence = numberAt<uint16_t>(record, offsetof(MFT_RECORD, sequence_number));
    uint16_t flags = numberAt<uint16_t>(record, offsetof(MFT_RECORD, flags));
    uint16_t attributes = numberAt<uint16_t>(record, offsetof(MFT_RECORD, attrs_offset));
    uint32_t inUse = numberAt<uint32_t>(record, offsetof(MFT_RECORD, bytes_in_use));
    if ((flags & ntfs3g::MFT_RECORD_IN_USE) == 0) return false;
    if (numberAt<uint64_t>(record, offsetof(MFT_RECORD, base_mft_record)) != 0) return false;
    if (MSEQNO(reference) != 0 && MSEQNO(reference) != sequence) return false;
    constexpr size_t oldestHeader = 42; /* bytes; before Windows XP */
    if (!updateSequenceFits(record, oldestHeader, attributes) || !undoUpdateSequence(record)) return false;
    Bytes used = checkedSpan(record, 0, inUse);
    if (used.size() != inUse || attributes > used.size() || attributes % 8 != 0) return false;
    if (!takeAttributes(record, used, attributes, file)) return false;
    file.directory = (flags & ntfs3g::MFT_RECORD_IS_DIRECTORY) != 0;
    uint32_t& bits = file.info.attributes;
    bits &= ~(FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_NORMAL);
    if (file.directory) bits |= FILE_ATTRIBUTE_DIRECTORY;
    if (file.directory) file.info.size = 0;
    if (bits == 0) bits = FILE_ATTRIBUTE_NORMAL;
    return true;
}

bool tellsAll(FileRecord& record) {
    if (!record.complete) return false;
    if (isReparsePoint(record) && !record.reparseData) dropReparseBit(record);
    return !(isReparsePoint(record) && record.tagMissing);
}

bool recordPlace(const Volume& volume, uint64_t number, uint64_t& place, uint64_t& length) {
    const ntfs3g::ntfs_volume* const ntfs = volume.ntfs;
    const auto offset = static_cast<int64_t>(number << ntfs->mft_record_size_bits);
    const int64_t vcn = offset >> ntfs->cluster_size_bits;
    const ntfs3g::runlist_element* const run = ntfs3g::ntfs_attr_find_vcn(ntfs->mft_na, vcn);
    if (run == nullptr || run->lcn < 0 || run->lcn >= ntfs->nr_clusters) return false;
    const int64_t within = offset - (run->vcn << ntfs->cluster_size_bits);
    const int64_t inRun = (run->length << ntfs->cluster_size_bits) - within;
    const int64_t all = std::min(inRun, ntfs->mft_na->initialized_size - offset);
    if (all < ntfs->mft_record_size) return false;
    place = static_cast<uint64_t>((run->lcn << ntfs->cluster_size_bits) + within);
    length = static_cast<uint64_t>(all);
    return true;
}

uint64_t recordCount(const Volume& volume) {
    const int64_t records = volume.ntfs->mft_na->data_size >> volume.ntfs->mft_record_size_bits;
    return records < 0 ? 0 : static_cast<uint64_t>(records);
}

NTSTATUS loadRecord(Volume& volume, FileRef file) {
    uint64_t number = recordNumberOf(file);
    if (volume.recordNumber == number) {
        uint16_t sequence = numberAt<uint16_t>(volume.recordBytes, offsetof(MFT_RECORD, sequence_number));
        if (MSEQNO(file) == 0 || MSEQNO(file) == sequence) return STATUS_SUCCESS;
        beginCall(volume, file);
        return libraryStatus(volume, 0);
    }
    volume.recordNumber = UINT64_MAX;
    beginCall(volume, file);
    if (number >= recordCount(volume)) return libraryStatus(volume, 0);
    if (!readRecord(volume, number)) return libraryStatus(volume, errno);
    if (!parseRecord(volume.recordBytes, file, volume.record)) return libraryStatus(volume, 0);
    ++volume.table.asked;
    NTSTATUS status = complete(volume, file, volume.record);
    changedId(volume, number, volume.record.securityId);
    if (status >= 0) volume.recordNumber = number;
    return status;
}

bool recordNamed(const Volume& volume, FileRef directory, std::u16string_view name) {
    const Bytes record = volume.recordBytes;
    const Bytes used = checkedSpan(record, 0, numberAt<uint32_t>(record, offsetof(MFT_RECORD, bytes_in_use)));
    size_t offset = volume.record.firstName;
    Attribute attribute;
    while (offset != 0 && offset <= used.size() && attributeAt(used, offset, attribute) &&
           attribute.type != endOfAttributes) {
        offset += attribute.header.size();
        if (attribute.type == ntfs3g::AT_FILE_NAME && isName(attribute.value, directory, name)) return true;
    }
    return !volume.record.complete;
}

NTSTATUS writeSecurityId(Volume& volume, uint32_t id) {
    uint64_t number = volume.recordNumber;
    std::memcpy(volume.recordBytes.data() + volume.record.securityIdOffset, &id, sizeof id);
    volume.record.securityId = id;
    /* The library may keep a copy of the record from an earlier use, which must not come back. */
    ntfs3g::ntfs_inode_invalidate(volume.ntfs, number);
    forgetChangedId(volume, number);
    auto* record = reinterpret_cast<MFT_RECORD*>(volume.recordBytes.data());
    if (ntfs3g::ntfs_mft_records_write(volume.ntfs, number, 1, record) == 0) return STATUS_SUCCESS;
    volume.recordNumber = UINT64_MAX;
    return changeFailed(volume, libraryStatus(volume, errno));
}

} /* namespace offline */
