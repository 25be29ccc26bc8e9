/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Volumes whose indexes of descriptors are damaged: not to be changed, but to be looked at. */
#include "tests/volume/images.h"

namespace offline::images {
namespace {

constexpr uint32_t indexRoot = 0x90, bitmap = 0xB0;

struct SecureIndexes : FreshVolumeTest {
    ByteVector sound;
    std::vector<size_t> blocks; /* where those of the two indexes lie */

    void SetUp() override {
        sound = changed([](OpenVolume& opened) {
            for (uint32_t i = 0; i < 300; i++) opened.make({char16_t(0x4E00 + i)}, descriptor(2000 + i));
        });
        blocks = secureBlocks(sound);
        ASSERT_GE(blocks.size(), 6u); /* of several levels */
        EXPECT_EQ(verdict(sound), "sound");
    }
    size_t entryOf(size_t block) const { return firstEntry(sound, block); }
    bool inner(size_t block) const { return (sound[block + 36] & 1) != 0; }

    /* What opening for changes would say of the volume. */
    std::string verdict(const ByteVector& bytes) const {
        writeFile(path("tried.img"), bytes);
        const OpenVolume opened(path("tried.img"), DiskAccess::trial);
        return opened.volume != nullptr ? "sound" : opened.problem.text;
    }
    void expectRefused(size_t at, uint64_t value, size_t size, const std::string& what) const {
        ByteVector bytes = sound;
        for (size_t i = 0; i < size; i++) bytes[at + i] = static_cast<uint8_t>(value >> (8 * i));
        const std::string said = verdict(bytes);
        /* The library itself does not take every root. */
        EXPECT_NE(said.find(what == "root" ? "damaged" : "index of security descriptors"), said.npos) << what;
        const OpenVolume looked(path("tried.img"), DiskAccess::readOnly);
        EXPECT_TRUE(looked.volume != nullptr || what == "root") << what << looked.problem.text;
    }
};

/* A number written into each block, or into its first entry. */
TEST_F(SecureIndexes, EveryDamageIsRefusedBeforeAChange) {
    const struct {
        const char* what;
        bool entry = true;
        size_t at, size = 2; /* bytes */
        uint64_t value;
    } damages[] = {
        {.what = "update sequence", .entry = false, .at = 4, .size = 4, .value = 0x0009FFF8},
        {.what = "number", .entry = false, .at = 16, .size = 4, .value = 0x7FFFFFF8},
        {.what = "first entry", .entry = false, .at = 24, .size = 4, .value = 0x7FFFFFF8},
        {.what = "length", .entry = false, .at = 28, .size = 4, .value = 0x7FFFFFF8},
        {.what = "room beyond the block", .entry = false, .at = 32, .size = 4, .value = 0x7FFFFFF8},
        {.what = "room below the block", .entry = false, .at = 32, .size = 4, .value = 0xFC8},
        {.what = "data before the key", .at = 0, .value = 4},
        {.what = "data after the entry", .at = 0, .value = 4000},
        {.what = "data too long", .at = 2, .value = 2048},
        {.what = "entry without a size", .at = 8, .value = 0},
        {.what = "entry of an odd size", .at = 8, .value = 41},
        {.what = "entry beyond the node", .at = 8, .value = 0xFFF8},
        {.what = "key of another size", .at = 10, .value = 12},
        {.what = "the key above the next", .at = 16, .size = 4, .value = 0xFFFFFFFF},
    };
    for (const size_t block : blocks) {
        for (const auto& damage : damages) {
            const size_t start = damage.entry ? entryOf(block) : block;
            expectRefused(start + damage.at, damage.value, damage.size, damage.what);
        }
        expectRefused(entryOf(block) + 12, inner(block) ? 0 : 1, 1, "subnode");
        /* An id that only the hashes lead to: what a file would get that has an equal descriptor. */
        if (numberAt<uint16_t>(sound, entryOf(block)) == 20 && !inner(block))
            expectRefused(entryOf(block) + 12, 2, 1, "the node ends before its entries");
    }
}

/* What the roots say of themselves, which blocks are in use, and the stream that the entries lead to. */
TEST_F(SecureIndexes, RootsBitmapsAndStreamHaveToAgree) {
    int seen = 0;
    for (size_t at = attributeAt(sound, secureFile, indexRoot); numberAt<uint32_t>(sound, at) != 0xFFFFFFFF;
         at += numberAt<uint32_t>(sound, at + 4)) {
        const size_t value = at + numberAt<uint16_t>(sound, at + 20);
        if (numberAt<uint32_t>(sound, at) == bitmap) {
            ++seen;
            expectRefused(value, sound[value] & 0xFE, 1, "bitmap");
        } else if (numberAt<uint32_t>(sound, at) == indexRoot) {
            ++seen;
            for (const auto& [field, number] :
                 {std::pair<size_t, uint32_t>{0, 0x30}, {4, 1}, {8, 100}, {24, 0x1000}}) {
                expectRefused(value + field, number, 4, "root");
            }
        }
    }
    EXPECT_EQ(seen, 4);
    const size_t data = entryOf(blocks[0]) + numberAt<uint16_t>(sound, entryOf(blocks[0]));
    for (const size_t field : {size_t{0}, size_t{4}, size_t{8}, size_t{16}}) /* hash, id, offset, length */
        expectRefused(data + field, sound[data + field] ^ 1, 1, "entry");
}

} /* namespace */
} /* namespace offline::images */
