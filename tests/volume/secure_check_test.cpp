/* Volumes whose indexes of descriptors are damaged: not to be changed, but to be looked at. */
#include "tests/volume/images.h"

using namespace offline;
using images::ByteVector;
using images::descriptor;
using images::OpenVolume;

namespace {

struct SecureIndexes : images::ImageTest {
    ByteVector sound;
    std::vector<size_t> blocks; /* where those of the two indexes lie */

    void SetUp() override {
        images::ImageTest::SetUp();
        const std::string image = ntfsImage();
        OpenVolume opened(image);
        for (uint32_t i = 0; i < 300; i++) {
            FileRef file = 0;
            const std::u16string name = u"file " + std::u16string(1, static_cast<char16_t>(0x4E00 + i));
            ASSERT_EQ(
                volumeCreate(opened.get(), rootDirectory, name, NewFile::file, descriptor(2000 + i), file),
                STATUS_SUCCESS);
        }
        ASSERT_EQ(opened.close(), STATUS_SUCCESS);
        sound = images::readFile(image);
        for (size_t at = 0; at < sound.size(); at += 4096) {
            const bool index = sound[at] == 'I' && sound[at + 1] == 'N' && sound[at + 2] == 'D';
            const size_t entry = at + 24 + (index ? images::get<uint32_t>(sound, at + 24) : 0);
            const uint16_t dataAt = index ? images::get<uint16_t>(sound, entry) : 0;
            if (dataAt == 20 || dataAt == 24) blocks.push_back(at);
        }
    }

    /* What opening says of the volume as it is here. */
    std::string verdict(const ByteVector& image) const {
        images::writeFile(path("tried.img"), image);
        const OpenVolume opened(path("tried.img"));
        return opened.volume != nullptr ? "sound" : opened.problem.text;
    }
};

TEST_F(SecureIndexes, EveryDamageIsRefusedBeforeAChange) {
    ASSERT_GE(blocks.size(), 6u); /* of several levels */
    EXPECT_EQ(verdict(sound), "sound");
    struct Damage {
        const char* what;
        size_t at; /* bytes from the block's first entry */
        uint64_t value;
        size_t size; /* bytes */
    };
    // clang-format off
    const Damage damages[] = {
        {"data before the key", 0, 4, 2}, {"data after the entry", 0, 4000, 2}, {"data too long", 2, 2048, 2},
        {"entry without a size", 8, 0, 2}, {"entry of an odd size", 8, 41, 2}, {"entry beyond the node", 8, 0xFFF8, 2},
        {"key of another size", 10, 12, 2}, {"a subnode where there is none, or none", 12, 1, 1},
        {"the key above the next", 16, 0xFFFFFFFF, 4},
    };
    // clang-format on
    for (const size_t block : blocks) {
        const size_t entry = block + 24 + images::get<uint32_t>(sound, block + 24);
        const bool inner = (sound[block + 36] & 1) != 0;
        for (const Damage& damage : damages) {
            ByteVector image = sound;
            const uint64_t value = damage.at == 12 && inner ? 0 : damage.value;
            for (size_t i = 0; i < damage.size; i++) {
                image[entry + damage.at + i] = static_cast<uint8_t>(value >> (8 * i));
            }
            EXPECT_NE(verdict(image).find("index of security descriptors"), std::string::npos) << damage.what;
        }
        /* the update sequence, number, first entry, length, room */
        for (const auto& [field, value] : {std::pair<size_t, uint32_t>{4, 0x0009FFF8},
                                           {16, 0x7FFFFFF8},
                                           {24, 0x7FFFFFF8},
                                           {28, 0x7FFFFFF8},
                                           {32, 0x7FFFFFF8},
                                           {32, images::get<uint32_t>(sound, block + 28)}}) {
            ByteVector image = sound;
            images::put<uint32_t>(image, block + field, value);
            EXPECT_NE(verdict(image), "sound") << field;
        }
    }
}

/* What the roots say of themselves: kind, order, size of a block, room; and which blocks are in use. */
TEST_F(SecureIndexes, TheRootsAndTheBitmaps) {
    const size_t record = images::get<uint64_t>(sound, 0x30) * sound[0x0D] * 512 + size_t{9} * 1024;
    int roots = 0, bitmaps = 0;
    for (size_t at = record + images::get<uint16_t>(sound, record + 20);
         images::get<uint32_t>(sound, at) != 0xFFFFFFFF; at += images::get<uint32_t>(sound, at + 4)) {
        const uint32_t type = images::get<uint32_t>(sound, at);
        const size_t value = at + images::get<uint16_t>(sound, at + 20);
        if (type == 0xB0) {
            ++bitmaps;
            ByteVector image = sound;
            image[value] &= 0xFE;
            EXPECT_NE(verdict(image), "sound");
        }
        if (type != 0x90) continue;
        ++roots;
        for (const auto& [field, number] :
             {std::pair<size_t, uint32_t>{0, 0x30}, {4, 1}, {8, 100}, {24, 0x1000}}) {
            ByteVector image = sound;
            images::put<uint32_t>(image, value + field, number);
            EXPECT_NE(verdict(image), "sound") << field;
        }
    }
    EXPECT_EQ(roots, 2);
    EXPECT_EQ(bitmaps, 2);
}

TEST_F(SecureIndexes, TheStreamHasToAgree) {
    const size_t entry = blocks[0] + 24 + images::get<uint32_t>(sound, blocks[0] + 24);
    const size_t data = entry + images::get<uint16_t>(sound, entry);
    for (const size_t field : {size_t{0}, size_t{4}, size_t{8}, size_t{16}}) { /* hash, id, offset, length */
        ByteVector image = sound;
        image[data + field] ^= 1;
        EXPECT_NE(verdict(image).find("index of security descriptors"), std::string::npos) << field;
        const OpenVolume looked(path("tried.img"), DiskAccess::readOnly);
        EXPECT_NE(looked.volume, nullptr) << looked.problem.text;
    }
    /* An id that only the hashes lead to: what a file would get that has an equal descriptor. */
    int leaves = 0;
    for (const size_t block : blocks) {
        const size_t first = block + 24 + images::get<uint32_t>(sound, block + 24);
        if (images::get<uint16_t>(sound, first) != 20 || (sound[block + 36] & 1) != 0) continue;
        ++leaves;
        ByteVector image = sound;
        image[first + 12] |= 2; /* the node ends before it */
        EXPECT_NE(verdict(image).find("index of security descriptors"), std::string::npos);
    }
    EXPECT_GT(leaves, 0);
}

} /* namespace */
