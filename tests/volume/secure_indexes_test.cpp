/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Volumes whose indexes of descriptors are damaged: not to be changed, but to be looked at. */
#include "tests/volume/images.h"

using namespace offline;
using images::ByteVector;
using images::get;
using images::OpenVolume;

namespace {

constexpr FileRef secureFile = 9;
constexpr uint32_t indexRoot = 0x90, bitmap = 0xB0;

struct SecureIndexes : images::FreshVolumeTest {
    ByteVector sound;
    std::vector<size_t> blocks; /* where those of the two indexes lie */

    void SetUp() override {
        OpenVolume opened(image);
        for (uint32_t i = 0; i < 300; i++) opened.make({char16_t(0x4E00 + i)}, images::descriptor(2000 + i));
        ASSERT_EQ(opened.close(), STATUS_SUCCESS);
        sound = images::readFile(image);
        for (size_t at = 0; at < sound.size(); at += 4096) {
            if (get<uint32_t>(sound, at) != 0x58444E49) continue; /* INDX */
            const uint16_t dataAt = get<uint16_t>(sound, firstEntry(at));
            if (dataAt == 20 || dataAt == 24) blocks.push_back(at);
        }
        ASSERT_GE(blocks.size(), 6u); /* of several levels */
        EXPECT_EQ(verdict(sound), "sound");
    }
    size_t firstEntry(size_t block) const { return block + 24 + get<uint32_t>(sound, block + 24); }
    bool inner(size_t block) const { return (sound[block + 36] & 1) != 0; }

    /* What opening for changes would say of the volume. */
    std::string verdict(const ByteVector& bytes) const {
        images::writeFile(path("tried.img"), bytes);
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
            const size_t start = damage.entry ? firstEntry(block) : block;
            expectRefused(start + damage.at, damage.value, damage.size, damage.what);
        }
        expectRefused(firstEntry(block) + 12, inner(block) ? 0 : 1, 1, "subnode");
        /* An id that only the hashes lead to: what a file would get that has an equal descriptor. */
        if (get<uint16_t>(sound, firstEntry(block)) == 20 && !inner(block))
            expectRefused(firstEntry(block) + 12, 2, 1, "the node ends before its entries");
    }
}

/* What the roots say of themselves, which blocks are in use, and the stream that the entries lead to. */
TEST_F(SecureIndexes, RootsBitmapsAndStreamHaveToAgree) {
    int seen = 0;
    for (size_t at = images::attributeAt(sound, secureFile, indexRoot);
         get<uint32_t>(sound, at) != 0xFFFFFFFF; at += get<uint32_t>(sound, at + 4)) {
        const size_t value = at + get<uint16_t>(sound, at + 20);
        if (get<uint32_t>(sound, at) == bitmap) {
            ++seen;
            expectRefused(value, sound[value] & 0xFE, 1, "bitmap");
        } else if (get<uint32_t>(sound, at) == indexRoot) {
            ++seen;
            for (const auto& [field, number] :
                 {std::pair<size_t, uint32_t>{0, 0x30}, {4, 1}, {8, 100}, {24, 0x1000}}) {
                expectRefused(value + field, number, 4, "root");
            }
        }
    }
    EXPECT_EQ(seen, 4);
    const size_t data = firstEntry(blocks[0]) + get<uint16_t>(sound, firstEntry(blocks[0]));
    for (const size_t field : {size_t{0}, size_t{4}, size_t{8}, size_t{16}}) /* hash, id, offset, length */
        expectRefused(data + field, sound[data + field] ^ 1, 1, "entry");
}

} /* namespace */
