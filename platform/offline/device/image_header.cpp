/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/device/image_header.h"

#include <algorithm>
#include <string_view>

#include "platform/offline/device/image_signature.h"

namespace offline {
namespace {

/* ---- Beginnings and ends ---- */

constexpr uint64_t beginningSize = 512; /* bytes; of a VHD's footer, too */

/* So many bytes from the offset on, or those up to the end. */
DeviceError readSome(BlockDevice& file, uint64_t offset, uint64_t count, ByteVector& bytes) {
    const uint64_t size = file.size(), start = std::min(offset, size);
    bytes.resize(static_cast<size_t>(std::min(count, size - start)));
    return file.read(start, bytes);
}

/* Numbers that lie with their highest byte first; the offset is known to lie inside. */
template <class Number>
Number bigAt(Bytes bytes, size_t offset) {
    Number number = 0;
    for (size_t i = 0; i < sizeof number; ++i) number = static_cast<Number>(number << 8 | bytes[offset + i]);
    return number;
}

/* ---- qcow2 ---- */

namespace qcow2 {
constexpr size_t version = 4, backingOffset = 8, backingSize = 16, clusterBits = 20, version2Size = 72,
                 incompatible = 72, headerLength = 100, version3Size = 104;
constexpr uint32_t leastClusterBits = 9, mostClusterBits = 21, longestBacking = 1023;
constexpr uint64_t dataFileBit = 4; /* of the incompatible features */
constexpr uint32_t endExtension = 0, formatExtension = 0xE2792ACA;
} /* namespace qcow2 */

/* The header extensions: type and length, 4 bytes each, and what they hold, in multiples of 8 bytes. */
bool readExtensions(Bytes cluster, uint64_t at, uint64_t end, ImageHeader& header) {
    while (at + 8 <= end) {
        const auto type = bigAt<uint32_t>(cluster, at), length = bigAt<uint32_t>(cluster, at + 4);
        if (type == qcow2::endExtension) return true;
        at += 8;
        if (length > end - at) return false;
        if (type == qcow2::formatExtension) {
            const Bytes text = cluster.subspan(at, length);
            header.backingFormat.assign(text.begin(), text.end());
        }
        at += (uint64_t{length} + 7) / 8 * 8;
    }
    return true;
}

/* All of it lies in the first cluster. */
bool parseQcow2(Bytes cluster, ImageHeader& header) {
    if (cluster.size() < qcow2::version3Size) return false;
    const auto version = bigAt<uint32_t>(cluster, qcow2::version);
    const auto backingOffset = bigAt<uint64_t>(cluster, qcow2::backingOffset);
    const auto backingSize = bigAt<uint32_t>(cluster, qcow2::backingSize);
    const auto bits = bigAt<uint32_t>(cluster, qcow2::clusterBits);
    if (version != 2 && version != 3) return false;
    if (bits < qcow2::leastClusterBits || bits > qcow2::mostClusterBits) return false;
    cluster = cluster.first(std::min<uint64_t>(cluster.size(), uint64_t{1} << bits));
    uint64_t extensions = qcow2::version2Size;
    if (version == 3) {
        extensions = bigAt<uint32_t>(cluster, qcow2::headerLength);
        if ((bigAt<uint64_t>(cluster, qcow2::incompatible) & qcow2::dataFileBit) != 0) {
            header.unusable = "it keeps its contents in another file (data_file), which is not supported";
        }
    }
    uint64_t end = cluster.size();
    if (backingOffset != 0) {
        const Bytes text = checkedSpan(cluster, backingOffset, backingSize);
        if (text.empty() || backingSize > qcow2::longestBacking) return false;
        header.backing.assign(text.begin(), text.end());
        end = backingOffset;
    }
    return extensions <= end && extensions >= qcow2::version2Size &&
           readExtensions(cluster, extensions, end, header);
}

DeviceError readQcow2(BlockDevice& file, ImageHeader& header) {
    ByteVector cluster;
    const DeviceError error = readSome(file, 0, uint64_t{1} << qcow2::mostClusterBits, cluster);
    if (error == 0 && !parseQcow2(cluster, header)) header.unusable = "its qcow2 header is damaged";
    return error;
}

/* ---- VMDK ---- */

namespace vmdk {
constexpr size_t capacity = 12, compression = 77, sparseSize = 79;
constexpr uint64_t embeddedDescriptor = 512, embeddedSize = 20 * 512, largestDescriptor = 1 << 20; /* bytes */
} /* namespace vmdk */

/* What stands behind a name: nothing, or an extent's offset in its file. */
bool endsExtent(std::string_view text) {
    const bool apart = text.empty() || text.front() == ' ' || text.front() == '\t';
    return apart && text.find_first_not_of(" \t0123456789") == std::string_view::npos;
}

/* What stands behind each quotation mark, up to the next one or the line's end, unless something is set to it
 * (createType="..."): among them are the extents, in whatever way the lines are taken apart. */
std::vector<std::string> quotedNames(std::string_view text) {
    std::vector<std::string> names;
    for (size_t at = text.find('"'); at != std::string_view::npos; at = text.find('"', at + 1)) {
        const size_t before = text.find_last_not_of(" \t\r\n", at == 0 ? std::string_view::npos : at - 1);
        if (at != 0 && before != std::string_view::npos && text[before] == '=') continue;
        const std::string_view rest = text.substr(at + 1);
        const std::string_view name = rest.substr(0, std::min(rest.find_first_of("\"\r\n"), rest.size()));
        if (!endsExtent(name)) names.emplace_back(name);
    }
    return names;
}

const char otherParent[] = "it is a snapshot or linked clone of another VMDK, which is not supported";

void parseDescriptor(std::string_view text, ImageHeader& header) {
    if (text.find("parentFileNameHint") != std::string_view::npos) header.unusable = otherParent;
    header.extents = quotedNames(text);
    for (const std::string& name : header.extents) {
        if (name.find_first_of("/:") == std::string::npos && name.find('\0') == std::string::npos) continue;
        header.unusable = "it names a file elsewhere (" + name + "); only files beside it are used";
    }
}

std::string_view asText(const ByteVector& bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

/* A sparse file, alone or as an extent. */
DeviceError readSparse(BlockDevice& file, Bytes beginning, ImageHeader& header) {
    if (numberAt<uint64_t>(beginning, vmdk::capacity) == 0) {
        header.unusable = "it has its descriptor in another place than its beginning";
    }
    header.onlyReadable = numberAt<uint16_t>(beginning, vmdk::compression) != 0;
    ByteVector embedded;
    const DeviceError error = readSome(file, vmdk::embeddedDescriptor, vmdk::embeddedSize, embedded);
    if (error == 0 && asText(embedded).find("parentFileNameHint") != std::string_view::npos) {
        header.unusable = otherParent;
    }
    return error;
}

DeviceError readVmdk(BlockDevice& file, ImageHeader& header) {
    ByteVector text;
    DeviceError error = readSome(file, 0, beginningSize, text);
    if (error != 0) return error;
    if (holdsText(text, vmdkSparse) && text.size() >= vmdk::sparseSize) return readSparse(file, text, header);
    if (!holdsText(text, vmdkDescriptor) || file.size() > vmdk::largestDescriptor) {
        header.unusable = "it is no VMDK that is known";
        return 0;
    }
    error = readSome(file, 0, vmdk::largestDescriptor, text);
    if (error == 0) parseDescriptor(asText(text), header);
    return error;
}

/* ---- VHD ---- */

constexpr size_t vhdType = 60;
constexpr uint32_t vhdFixed = 2, vhdDynamic = 3;

DeviceError readVhdFooter(BlockDevice& file, ByteVector& footer) {
    return readSome(file, file.size() - std::min(file.size(), beginningSize), beginningSize, footer);
}

DeviceError readVhd(BlockDevice& file, ImageHeader& header) {
    ByteVector footer;
    DeviceError error = readSome(file, 0, beginningSize, footer);
    const bool dynamic = holdsText(footer, vhdCookie);
    if (error == 0 && !dynamic) error = readVhdFooter(file, footer);
    if (error != 0) return error;
    const bool whole = footer.size() == beginningSize && holdsText(footer, vhdCookie);
    if (!whole || bigAt<uint32_t>(footer, vhdType) != (dynamic ? vhdDynamic : vhdFixed)) {
        header.unusable = "it is neither a fixed nor a dynamic VHD; merge a differencing one with its parent";
    }
    return 0;
}

} /* namespace */

DeviceError beginningOf(BlockDevice& file, DiskFormat& format) {
    ByteVector bytes;
    const DeviceError error = readSome(file, 0, beginningSize, bytes);
    format = error == 0 ? formatOfBeginning(bytes) : DiskFormat::raw;
    return error;
}

DeviceError fitsFormat(BlockDevice& file, DiskFormat format, bool& fits) {
    DiskFormat beginning = DiskFormat::raw;
    DeviceError error = beginningOf(file, beginning);
    fits = beginning == format;
    if (error != 0 || format != DiskFormat::vhd || beginning != DiskFormat::raw) return error;
    ByteVector footer;
    error = readVhdFooter(file, footer);
    fits = holdsText(footer, vhdCookie);
    return error;
}

DeviceError readHeader(BlockDevice& file, DiskFormat format, ImageHeader& header) {
    header = {};
    switch (format) {
        case DiskFormat::qcow2:
            return readQcow2(file, header);
        case DiskFormat::vmdk:
            return readVmdk(file, header);
        case DiskFormat::vhd:
            return readVhd(file, header);
        default:
            return 0;
    }
}

} /* namespace offline */
