/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The layout of a hive file, shared by everything that reads and everything that writes it.
 *
 * The file is a base block of 4096 bytes and after it the bins, each a multiple of 4096 bytes; cells tile a
 * bin after its header. Offsets in the bins are counted from the first bin. All numbers are little-endian.
 * Offsets of fields are in bytes of the structure's data, which for a cell begins after the cell's size. */
#ifndef QUILLET_OFFLINE_HIVE_FORMAT_H
#define QUILLET_OFFLINE_HIVE_FORMAT_H

#include "platform/offline/base/bytes.h"

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <type_traits>

namespace offline::regf {

static_assert(std::endian::native == std::endian::little);

/* A field of one structure. The span that it is read from or written to must hold it. */
template <class T>
struct Field {
    size_t at;
};

template <class T>
T load(const uint8_t* bytes) {
    T value;
    memcpy(&value, bytes, sizeof value);
    return value;
}

template <class T>
T get(Bytes data, Field<T> field) {
    return load<T>(data.data() + field.at);
}

template <class T>
void set(std::span<uint8_t> data, Field<T> field, std::type_identity_t<T> value) {
    memcpy(data.data() + field.at, &value, sizeof value);
}

constexpr size_t pageSize = 4096;
constexpr uint32_t cellGrain = 8;                /* cells lie on and are multiples of this */
constexpr uint32_t cellHeader = sizeof(int32_t); /* its size, itself included; negative when allocated */
constexpr uint32_t largestBins = 0x7FFFF000;     /* bit 31 of a cell's offset means volatile storage */

namespace base {
constexpr uint32_t magic = 0x66676572; /* "regf" */
constexpr Field<uint32_t> signature{0};
constexpr Field<uint32_t> primarySequence{4};
constexpr Field<uint32_t> secondarySequence{8};
constexpr Field<uint64_t> lastWrite{12};
constexpr Field<uint32_t> major{20};
constexpr Field<uint32_t> minor{24};
constexpr Field<uint32_t> type{28};   /* 0 for the hive itself; log files have others */
constexpr Field<uint32_t> format{32}; /* 1 */
constexpr Field<uint32_t> root{36};
constexpr Field<uint32_t> binsSize{40};
constexpr Field<uint32_t> clustering{44}; /* 1 */
constexpr size_t fileName = 48;
constexpr size_t fileNameSize = 64; /* UTF-16 with a terminator */
constexpr Field<uint32_t> flags{144};
constexpr Field<uint32_t> checksum{508};
constexpr size_t size = pageSize;
} /* namespace base */

/* Log files begin with the first sector of a base block. The form since Windows 8.1 goes on with entries,
 * each a multiple of a sector, with the offsets and sizes of parts of the bins and then the parts; both its
 * hashes are Marvin32. The form before it holds one bit for each sector of the bins, and then the sectors
 * whose bit is set. */
namespace log {
constexpr size_t sectorSize = 512;
constexpr uint32_t oldType = 1; /* of the base block */
constexpr uint32_t newType = 6;

constexpr uint32_t entryMagic = 0x454C7648; /* "HvLE" */
constexpr Field<uint32_t> signature{0};
constexpr Field<uint32_t> size{4}; /* of the entry */
constexpr Field<uint32_t> flags{8};
constexpr Field<uint32_t> sequence{12};
constexpr Field<uint32_t> binsSize{16};
constexpr Field<uint32_t> count{20};
constexpr Field<uint64_t> bodyHash{24}; /* of everything after the header */
constexpr Field<uint64_t> headHash{32}; /* of what is before it */
constexpr size_t header = 40;
constexpr Field<uint32_t> partOffset{0}; /* a part, as the list after the header names it */
constexpr Field<uint32_t> partSize{4};
constexpr size_t partEntry = 8;

constexpr uint32_t dirtyMagic = 0x54524944; /* "DIRT", after the base block of an old one */
constexpr size_t bits = sectorSize + 4;
} /* namespace log */

namespace bin {
constexpr uint32_t magic = 0x6E696268; /* "hbin" */
constexpr Field<uint32_t> signature{0};
constexpr Field<uint32_t> offset{4};
constexpr Field<uint32_t> size{8};
constexpr Field<uint64_t> lastWrite{20}; /* of the hive, in the first bin alone */
constexpr uint32_t headerSize = 32;
} /* namespace bin */

namespace nk { /* a key */
constexpr uint16_t magic = 0x6B6E;
constexpr uint16_t compressedName = 0x20;
constexpr uint16_t predefinedHandle = 0x40; /* the value count is a handle, and there are no values */
constexpr Field<uint16_t> signature{0};
constexpr Field<uint16_t> flags{2};
constexpr Field<uint64_t> lastWrite{4};
constexpr Field<uint32_t> parent{16};
constexpr Field<uint32_t> subkeyCount{20};
constexpr Field<uint32_t> subkeyList{28};
constexpr Field<uint32_t> volatileList{32}; /* this and its count mean nothing in a file */
constexpr Field<uint32_t> valueCount{36};
constexpr Field<uint32_t> valueList{40};
constexpr Field<uint32_t> descriptor{44};
constexpr Field<uint32_t> classCell{48};
constexpr Field<uint16_t> longestSubkeyName{52}; /* these four are upper bounds in bytes, names as UTF-16 */
constexpr Field<uint32_t> longestSubkeyClass{56};
constexpr Field<uint32_t> longestValueName{60};
constexpr Field<uint32_t> longestValueData{64};
constexpr Field<uint16_t> nameLength{72};  /* bytes as stored */
constexpr Field<uint16_t> classLength{74}; /* bytes */
constexpr size_t name = 76;
} /* namespace nk */

namespace vk { /* a value */
constexpr uint16_t magic = 0x6B76;
constexpr uint16_t compressedName = 1;
constexpr uint32_t inlineData = 0x80000000; /* of dataSize: at most 4 bytes, held in the field data itself */
constexpr size_t longestInline = 4;
constexpr Field<uint16_t> signature{0};
constexpr Field<uint16_t> nameLength{2}; /* bytes as stored */
constexpr Field<uint32_t> dataSize{4};
constexpr Field<uint32_t> data{8};
constexpr Field<uint32_t> type{12};
constexpr Field<uint16_t> flags{16};
constexpr size_t name = 20;
} /* namespace vk */

namespace db { /* the data of a value in segments, all full but the last */
constexpr uint16_t magic = 0x6264;
constexpr uint32_t segmentSize = 16344; /* bytes of data; longer data is big data from version 1.4 on */
constexpr uint32_t segmentCell = 16352; /* the cell fills a bin of its own, whatever the segment holds */
constexpr uint32_t firstMinor = 4;
constexpr Field<uint16_t> signature{0};
constexpr Field<uint16_t> count{2};
constexpr Field<uint32_t> list{4}; /* the cell of the segments' offsets */
constexpr size_t size = 12;
} /* namespace db */

namespace sk { /* a security descriptor; all of a hive form one ring */
constexpr uint16_t magic = 0x6B73;
constexpr Field<uint16_t> signature{0};
constexpr Field<uint32_t> next{4};
constexpr Field<uint32_t> previous{8};
constexpr Field<uint32_t> refcount{12}; /* of the keys that have it */
constexpr Field<uint32_t> length{16};
constexpr size_t descriptor = 20;
} /* namespace sk */

namespace list { /* of subkeys; an "ri" holds the offsets of leaves, never of another "ri" */
constexpr uint16_t li = 0x696C;
constexpr uint16_t lf = 0x666C; /* each entry with the name's first four characters */
constexpr uint16_t lh = 0x686C; /* each entry with the name's hash */
constexpr uint16_t ri = 0x6972;
constexpr Field<uint16_t> signature{0};
constexpr Field<uint16_t> count{2};
constexpr size_t entries = 4;
constexpr size_t plainEntry = 4;  /* li, ri */
constexpr size_t hintedEntry = 8; /* lf, lh */
constexpr uint32_t firstHashedMinor = 5;
constexpr uint32_t largestLf =
    507; /* a longer one becomes an li, which ri leaves of old versions have to be */
constexpr uint32_t largestLeaf = 1012;
} /* namespace list */

} /* namespace offline::regf */

#endif
