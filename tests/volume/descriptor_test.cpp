#include <algorithm>
#include <cstdlib>
#include <functional>
#include <new>

#include "tests/volume/images.h"

using namespace offline;
using images::ByteVector;
using images::descriptor;
using images::OpenVolume;
using images::put;

namespace {
/* Counts down with every allocation while it is not negative; the one at 0 fails. */
long allocationsLeft = -1;
} /* namespace */

[[gnu::noinline]] void* operator new(size_t size) {
    if (allocationsLeft >= 0 && allocationsLeft-- == 0) throw std::bad_alloc();
    if (void* const block = malloc(size)) return block;
    throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* block) noexcept {
    free(block);
}
[[gnu::noinline]] void operator delete(void* block, size_t) noexcept {
    free(block);
}

namespace {

struct DescriptorTest : images::ImageTest {
    std::string image;
    void SetUp() override {
        ImageTest::SetUp();
        image = ntfsImage();
    }
    static FileRef make(OpenVolume& opened, std::u16string_view name, const ByteVector& bytes) {
        FileRef file = 0;
        EXPECT_EQ(volumeCreate(opened.get(), rootDirectory, name, NewFile::file, bytes, file),
                  STATUS_SUCCESS);
        return file;
    }
    static ByteVector read(OpenVolume& opened, FileRef file) {
        std::span<const uint8_t> bytes;
        EXPECT_EQ(volumeDescriptor(opened.get(), file, bytes), STATUS_SUCCESS);
        return ByteVector(bytes.begin(), bytes.end());
    }
    void expectSound() const {
        std::string report = images::outputOf("ntfssecaudit -ar " + image);
        EXPECT_NE(report.find("All keys are present in all lists"), std::string::npos) << report;
        EXPECT_NE(report.find("No errors were found"), std::string::npos) << report;
    }
    /* Where a file's record lies in the image; its MFT is in one piece. */
    static size_t recordOffset(const ByteVector& bytes, FileRef file) {
        return images::get<uint64_t>(bytes, 0x30) * bytes[0x0D] * 512 + (file & 0xFFFFFFFF) * 1024;
    }
    static size_t securityIdOffset(const ByteVector& bytes, FileRef file) {
        size_t record = recordOffset(bytes, file);
        return record + images::get<uint16_t>(bytes, record + 20) + 24 + 52;
    }
};

TEST_F(DescriptorTest, KeptByteForByteAndShared) {
    std::vector<ByteVector> shapes = {descriptor(500)};
    for (int control : {0x9C04, 0x8404, 0x8C14, 0x8004, 0x8804}) {
        shapes.push_back(descriptor(600, static_cast<uint16_t>(control)));
    }
    ByteVector conditional = descriptor(700); /* an entry of a kind that the library knows nothing of */
    conditional[72] = 9;
    shapes.push_back(conditional);
    ByteVector noList = descriptor(800, SE_SELF_RELATIVE);
    put<uint32_t>(noList, 16, 0);
    noList.resize(64);
    shapes.push_back(noList);
    ByteVector large = descriptor(900); /* 60 KiB: many entries */
    for (size_t i = 1; i < 1600; ++i) large.insert(large.end(), large.begin() + 72, large.begin() + 108);
    put<uint16_t>(large, 66, static_cast<uint16_t>(8 + 1600 * 36));
    put<uint16_t>(large, 68, 1600);
    shapes.push_back(large);
    shapes.push_back(descriptor(950)); /* bytes after the last part */
    shapes.back().resize(shapes.back().size() + 8, 0x5A);

    std::vector<FileRef> files;
    {
        OpenVolume opened(image);
        for (size_t i = 0; i < 3 * shapes.size(); ++i) {
            char16_t name = static_cast<char16_t>(0x4E00 + i);
            files.push_back(make(opened, {&name, 1}, descriptor(1)));
        }
        FileInfo before = {}, after = {};
        for (size_t i = 0; i < files.size(); ++i) {
            const ByteVector& shape = shapes[i % shapes.size()];
            ASSERT_EQ(volumeFileInfo(opened.get(), files[i], before), STATUS_SUCCESS);
            ASSERT_EQ(volumeSetDescriptor(opened.get(), files[i], shape), STATUS_SUCCESS) << i;
            EXPECT_EQ(read(opened, files[i]), shape) << i;
            ASSERT_EQ(volumeFileInfo(opened.get(), files[i], after), STATUS_SUCCESS);
            EXPECT_EQ(before.lastWritten, after.lastWritten);
            EXPECT_EQ(before.created, after.created);
        }
        ASSERT_EQ(opened.close(), STATUS_SUCCESS);
    }
    expectSound();
    /* One more for all that were made, two of the fresh volume. */
    std::string entries = std::to_string(shapes.size() + 3) + " valid entries in $SII";
    EXPECT_NE(images::outputOf("ntfssecaudit -ar " + image).find(entries), std::string::npos);
    OpenVolume opened(image);
    for (size_t i = 0; i < files.size(); ++i)
        EXPECT_EQ(read(opened, files[i]), shapes[i % shapes.size()]) << i;
}

/* What the platform takes and libntfs-3g refuses; and two of one hash. That many large ones fill several
 * blocks of the stream, so that some would cross into a copy. */
TEST_F(DescriptorTest, EveryValidOneIsStored) {
    const std::function<void(ByteVector&)> unusual[] = {
        [](ByteVector& bytes) { put<uint32_t>(bytes, 4, 0); },                /* no owner */
        [](ByteVector& bytes) { put<uint32_t>(bytes, 8, 0); },                /* no group */
        [](ByteVector& bytes) { bytes[64] = 3; },                             /* revision of the list */
        [](ByteVector& bytes) { put<uint16_t>(bytes, 2, SE_SELF_RELATIVE); }, /* the list's present bit */
        [](ByteVector& bytes) { bytes[81] = 4; }, /* bytes after the SID of an entry */
        [](ByteVector& bytes) { bytes[49] = 0; }, /* a group without sub-authorities */
        [](ByteVector& bytes) { bytes[81] = 0; }, /* and an entry */
        [](ByteVector& bytes) {
            put<uint32_t>(bytes, 32, 0x1001);
            put<uint32_t>(bytes, 36, 0x2000 - 8);
        },
        [](ByteVector& bytes) {
            put<uint32_t>(bytes, 32, 0x1000);
            put<uint32_t>(bytes, 36, 0x2000);
        },
        [](ByteVector& bytes) { bytes.resize(60'000, 7); },
    };
    std::vector<std::pair<FileRef, ByteVector>> files;
    {
        OpenVolume opened(image);
        for (uint32_t i = 0; i < 150; ++i) {
            const size_t shape = i % std::size(unusual);
            ByteVector bytes = descriptor(shape == 7 || shape == 8 ? 1000 : 1000 + i);
            unusual[shape](bytes);
            char16_t name = static_cast<char16_t>(0x4E00 + i);
            const FileRef file = make(opened, {&name, 1}, descriptor(1));
            ASSERT_EQ(volumeSetDescriptor(opened.get(), file, bytes), STATUS_SUCCESS) << i;
            files.emplace_back(file, bytes);
        }
        ASSERT_EQ(opened.close(), STATUS_SUCCESS);
    }
    /* Opening goes through both indexes and holds them against the stream. */
    OpenVolume opened(image);
    ASSERT_NE(opened.volume, nullptr) << opened.problem.text;
    for (const auto& [file, bytes] : files) EXPECT_EQ(read(opened, file), bytes);
}

/* What was begun counts as a failed change, and what is stored next does not overwrite it. */
TEST_F(DescriptorTest, MemoryMayRunOutWhileOneIsStored) {
    OpenVolume opened(image);
    const FileRef file = make(opened, u"file", descriptor(1));
    NTSTATUS status = STATUS_NO_MEMORY;
    for (uint32_t i = 0; status == STATUS_NO_MEMORY; ++i) {
        const ByteVector bytes = descriptor(3000 + i), next = descriptor(5000 + i);
        allocationsLeft = i;
        status = volumeSetDescriptor(opened.get(), file, bytes);
        allocationsLeft = -1;
        ASSERT_EQ(volumeSetDescriptor(opened.get(), file, next), STATUS_SUCCESS) << i;
    }
    EXPECT_EQ(status, STATUS_SUCCESS);
    EXPECT_EQ(opened.close(), STATUS_IO_DEVICE_ERROR);
    const std::string report = images::outputOf("ntfssecaudit -a " + image);
    EXPECT_NE(report.find("No errors were found"), std::string::npos) << report;
}

/* The library's copy of a file and the record that is changed here must not undo each other. */
TEST_F(DescriptorTest, ChangesOfEveryKindLiveTogether) {
    OpenVolume opened(image);
    Volume& volume = opened.get();
    FileRef one = make(opened, u"one", descriptor(1)), two = make(opened, u"two", descriptor(2));
    ASSERT_EQ(volumeSetDescriptor(volume, one, descriptor(2)), STATUS_SUCCESS); /* by id */
    ASSERT_EQ(volumeWriteFile(volume, one, 0, ByteVector(100, 5)), STATUS_SUCCESS);
    ASSERT_EQ(volumeSetDescriptor(volume, one, descriptor(1)), STATUS_SUCCESS);
    ASSERT_EQ(volumeLink(volume, one, rootDirectory, u"three"), STATUS_SUCCESS);
    ASSERT_EQ(volumeSetDescriptor(volume, two, descriptor(1)), STATUS_SUCCESS);
    ASSERT_EQ(volumeSetAttributes(volume, two, FILE_ATTRIBUTE_HIDDEN), STATUS_SUCCESS);
    ASSERT_EQ(volumeWriteFile(volume, one, 100, ByteVector(3000, 6)), STATUS_SUCCESS);
    auto check = [&](OpenVolume& current) {
        FileRef found = 0;
        FileInfo info = {};
        ByteVector bytes;
        EXPECT_EQ(volumeFind(current.get(), u"three", found), STATUS_SUCCESS);
        EXPECT_EQ(found, one);
        EXPECT_EQ(read(current, one), descriptor(1));
        EXPECT_EQ(read(current, two), descriptor(1));
        EXPECT_EQ(volumeReadFile(current.get(), one, 10'000, bytes), STATUS_SUCCESS);
        EXPECT_EQ(bytes.size(), 3100u);
        EXPECT_EQ(volumeFileInfo(current.get(), two, info), STATUS_SUCCESS);
        EXPECT_NE(info.attributes & FILE_ATTRIBUTE_HIDDEN, 0u);
        EXPECT_EQ(current.close(), STATUS_SUCCESS);
    };
    check(opened);
    OpenVolume reopened(image);
    check(reopened);
    expectSound();
}

/* mkntfs gives the root an attribute of its own; other metadata is left alone. */
TEST_F(DescriptorTest, TheRootAndTheMetadata) {
    OpenVolume opened(image);
    ByteVector root = read(opened, rootDirectory);
    EXPECT_GT(root.size(), 4096u);
    ASSERT_EQ(volumeSetDescriptor(opened.get(), rootDirectory, descriptor(42)), STATUS_SUCCESS);
    EXPECT_EQ(read(opened, rootDirectory), descriptor(42));
    ASSERT_EQ(volumeSetDescriptor(opened.get(), rootDirectory, descriptor(43)), STATUS_SUCCESS);
    ASSERT_EQ(volumeSetDescriptor(opened.get(), rootDirectory, descriptor(42)), STATUS_SUCCESS);
    EXPECT_EQ(read(opened, rootDirectory), descriptor(42));
    for (FileRef metadata : std::initializer_list<FileRef>{0, 3, 9, 11, 23}) {
        EXPECT_EQ(volumeSetDescriptor(opened.get(), metadata, descriptor(42)), STATUS_ACCESS_DENIED);
    }
    EXPECT_EQ(opened.close(), STATUS_SUCCESS);
    expectSound();
}

TEST_F(DescriptorTest, RefusesWhatIsNoDescriptor) {
    const std::pair<const char*, std::function<void(ByteVector&)>> cases[] = {
        {"nothing", [](ByteVector& bytes) { bytes.clear(); }},
        {"header cut", [](ByteVector& bytes) { bytes.resize(19); }},
        {"list cut", [](ByteVector& bytes) { bytes.resize(100); }},
        {"revision", [](ByteVector& bytes) { bytes[0] = 2; }},
        {"absolute", [](ByteVector& bytes) { put<uint16_t>(bytes, 2, SE_DACL_PRESENT); }},
        {"owner in the header", [](ByteVector& bytes) { put<uint32_t>(bytes, 4, 4); }},
        {"owner far away", [](ByteVector& bytes) { put<uint32_t>(bytes, 4, 0xFFFFFFF0); }},
        {"owner too long", [](ByteVector& bytes) { bytes[21] = 16; }},
        {"list too long", [](ByteVector& bytes) { put<uint16_t>(bytes, 66, 0xFFF0); }},
        {"too many entries", [](ByteVector& bytes) { put<uint16_t>(bytes, 68, 2); }},
        {"entry of no size", [](ByteVector& bytes) { put<uint16_t>(bytes, 74, 0); }},
        {"entry too long", [](ByteVector& bytes) { put<uint16_t>(bytes, 74, 40); }},
        {"owner across the list", [](ByteVector& bytes) { put<uint32_t>(bytes, 4, 80); }},
    };
    OpenVolume opened(image);
    FileRef file = make(opened, u"file", descriptor(5)), made = 0;
    for (const auto& [name, damage] : cases) {
        ByteVector bytes = descriptor(6);
        damage(bytes);
        EXPECT_EQ(volumeSetDescriptor(opened.get(), file, bytes), STATUS_INVALID_SECURITY_DESCR) << name;
        EXPECT_EQ(volumeCreate(opened.get(), rootDirectory, u"new", NewFile::file, bytes, made),
                  STATUS_INVALID_SECURITY_DESCR)
            << name;
        EXPECT_EQ(volumeFind(opened.get(), u"new", made), STATUS_OBJECT_NAME_NOT_FOUND) << name;
    }
    EXPECT_EQ(read(opened, file), descriptor(5));
    EXPECT_EQ(opened.close(), STATUS_SUCCESS);
    expectSound();
}

/* Each descriptor is there twice; the second serves when the first is damaged, but never one of another id.
 */
TEST_F(DescriptorTest, TheSecondCopyServes) {
    FileRef file = 0;
    {
        OpenVolume opened(image);
        file = make(opened, u"file", descriptor(3));
        ASSERT_EQ(opened.close(), STATUS_SUCCESS);
    }
    const ByteVector sound = images::readFile(image), stored = descriptor(3);
    const auto first = std::search(sound.begin(), sound.end(), stored.begin(), stored.end());
    const auto second = std::search(first + 1, sound.end(), stored.begin(), stored.end());
    ASSERT_NE(second, sound.end());
    const auto readsAs = [&](const std::vector<std::pair<long, int>>& blows, const ByteVector& expected) {
        ByteVector bytes = sound;
        for (const auto& [at, value] : blows) bytes[static_cast<size_t>(at)] ^= static_cast<uint8_t>(value);
        images::writeFile(image, bytes);
        OpenVolume opened(image, DiskAccess::readOnly);
        std::span<const uint8_t> got;
        const NTSTATUS status = volumeDescriptor(opened.get(), file, got);
        EXPECT_EQ(status, expected.empty() ? STATUS_INVALID_SECURITY_DESCR : STATUS_SUCCESS);
        EXPECT_EQ(ByteVector(got.begin(), got.end()), expected);
    };
    const long a = first - sound.begin(), b = second - sound.begin();
    readsAs({{a + 40, 1}}, stored);               /* a byte of a SID */
    readsAs({{a + 66, 1}, {a + 21, 16}}, stored); /* sizes */
    readsAs({{a + 66, 1}, {b - 16, 1}}, {});      /* and the other copy is one of another id */
    ByteVector both = stored; /* both of them changed: what lies there counts, when it is valid */
    both[40] ^= 1;
    readsAs({{a + 40, 1}, {b + 40, 1}}, both);
    /* A list that begins inside the SID of an entry, whose numbers would be its header. */
    readsAs({{a + 2, SE_SACL_PRESENT},
             {b + 2, SE_SACL_PRESENT},
             {a + 12, 88},
             {b + 12, 88},
             {a + 88, 21 ^ 2},
             {b + 88, 21 ^ 2},
             {a + 90, 8},
             {b + 90, 8},
             {a + 92, 1},
             {b + 92, 1}},
            {});
}

/* Where the stored one is gone or damaged, none is made up. */
TEST_F(DescriptorTest, NeverInvented) {
    FileRef dangling = 0, without = 0, damaged = 0;
    {
        OpenVolume opened(image);
        dangling = make(opened, u"dangling", descriptor(1));
        without = make(opened, u"without", descriptor(2));
        damaged = make(opened, u"damaged", descriptor(3));
        ASSERT_EQ(opened.close(), STATUS_SUCCESS);
    }
    ByteVector bytes = images::readFile(image);
    put<uint32_t>(bytes, securityIdOffset(bytes, dangling), 0x7777);
    put<uint32_t>(bytes, securityIdOffset(bytes, without), 0);
    const ByteVector stored = descriptor(3);
    size_t copies = 0;
    for (auto at = bytes.begin();; ++at) { /* its two copies in $SDS */
        at = std::search(at, bytes.end(), stored.begin(), stored.end());
        if (at == bytes.end()) break;
        *(at + 21) = 200;
        ++copies;
    }
    EXPECT_GE(copies, 2u);
    images::writeFile(image, bytes);
    OpenVolume opened(image);
    std::span<const uint8_t> read;
    for (FileRef file : {dangling, without, damaged, damaged}) {
        EXPECT_EQ(volumeDescriptor(opened.get(), file, read), STATUS_INVALID_SECURITY_DESCR);
        EXPECT_TRUE(read.empty());
    }
    /* A new one can be given to them all the same. */
    for (FileRef file : {dangling, without, damaged}) {
        EXPECT_EQ(volumeSetDescriptor(opened.get(), file, descriptor(9)), STATUS_SUCCESS);
        EXPECT_EQ(DescriptorTest::read(opened, file), descriptor(9));
    }
    EXPECT_EQ(opened.close(), STATUS_SUCCESS);
}

} /* namespace */
