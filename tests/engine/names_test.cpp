#include <cstring>
#include <memory>

#include "sidchng/sid.h"
#include "tests/engine/scripted.h"

namespace {

const std::u16string head = u"S-1-5-21-100-200-300";
const std::u16string longer = u"S-1-5-21-1000-2000-3000";
const std::u16string shorter = u"S-1-5-21-1-2-3";
const std::string matchedName = "DEBUG sidReplaceInName: Matching SID ..";

/* One call on a name of this many bytes, in a heap block of exactly that size. */
struct Renaming {
    DWORD error = 0;
    int changed = 0;
    UNICODE_STRING result = {};

    Renaming(const std::u16string& name, size_t bytes, const std::u16string& newText, int exact,
             memBuf* buffer) {
        const std::unique_ptr<char[]> block(new char[bytes]);
        memcpy(block.get(), name.data(), bytes);
        const UNICODE_STRING given = {static_cast<USHORT>(bytes), static_cast<USHORT>(bytes),
                                      reinterpret_cast<WCHAR*>(block.get())};
        const UNICODE_STRING oldCounted = counted(head);
        const UNICODE_STRING newCounted = counted(newText);
        error = sidReplaceInName(&given, &result, &oldCounted, &newCounted, exact, &changed, buffer);
    }
    std::u16string characters() const { return {result.Buffer, result.Length / sizeof(WCHAR)}; }
};

} /* namespace */

using Names = Scripted;

TEST_F(Names, TextFormAtTheHeadOfAName) {
    const std::u16string nul(1, u'\0');
    const struct {
        std::u16string name;
        bool prefixMatches;
        std::string tail; /* as the message shows it */
    } rows[] = {
        {head, true, ""},
        {head + u"-500", true, "-500"},
        {head + u"-", true, "-"},
        {head + u"_Classes", false, ""},
        {head + u"-1001_Classes", true, "-1001_Classes"},
        {head + u"0", false, ""},
        {head + nul, false, ""},
        {head + u"-5" + nul + u"x", true, "-5\xEF\xBF\xBDx"},
        {head.substr(0, head.size() - 1), false, ""},
        {u"s" + head.substr(1), false, ""},
        {u" " + head, false, ""},
        {u"", false, ""},
    };
    for (const auto& row : rows) {
        for (const int exact : {0, 1}) {
            for (const std::u16string& newText : {longer, shorter}) {
                SCOPED_TRACE(text("%ws exact %d", row.name.c_str(), exact));
                events.clear();
                memBuf buffer = {};
                const Renaming renaming(row.name, 2 * row.name.size(), newText, exact, &buffer);
                const bool matches = exact != 0 ? row.name == head : row.prefixMatches;
                EXPECT_EQ(renaming.error, 0u);
                EXPECT_EQ(renaming.changed, matches ? 1 : 0);
                EXPECT_EQ(renaming.characters(), matches ? newText + row.name.substr(head.size()) : u"");
                EXPECT_EQ(renaming.result.MaximumLength, renaming.result.Length);
                EXPECT_EQ(buffer.size, renaming.result.Length);
                const bool logged = matches && exact == 0;
                EXPECT_EQ(events, logged ? Events{matchedName + row.tail} : Events{});
                memBufFree(&buffer);
            }
        }
    }
}

TEST_F(Names, NamesOfOddAndOfGreatLength) {
    const std::u16string line(40000, u'-');
    const struct {
        size_t bytes;
        std::u16string newText;
        size_t result; /* bytes; 0: left alone */
        bool warned;
    } rows[] = {
        {2 * head.size() + 1, longer, 0, false},
        {2 * head.size() + 3, longer, 2 * longer.size() + 3, false},
        {65528, longer, 65534, false},
        {65529, longer, 65535, false},
        {65530, longer, 0, true},
        {65535, longer, 0, true},
        {65535, shorter, 65523, false},
    };
    ASSERT_EQ(2 * (longer.size() - head.size()), 6u);
    ASSERT_EQ(2 * (head.size() - shorter.size()), 12u);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.bytes);
        events.clear();
        memBuf buffer = {};
        const std::u16string name = (head + line).substr(0, row.bytes / 2 + 1);
        const Renaming renaming(name, row.bytes, row.newText, 0, &buffer);
        EXPECT_EQ(renaming.error, 0u);
        EXPECT_EQ(renaming.changed, row.result != 0 ? 1 : 0);
        EXPECT_EQ(renaming.result.Length, row.result);
        EXPECT_EQ(buffer.size, row.result);
        const size_t tail = row.bytes - 2 * head.size();
        if (row.result != 0) {
            EXPECT_EQ(memcmp(buffer.data, row.newText.data(), 2 * row.newText.size()), 0);
            EXPECT_EQ(memcmp(buffer.data + 2 * row.newText.size(), line.data(), tail), 0);
        }
        ASSERT_EQ(events.size(), row.result != 0 || row.warned ? 1u : 0u);
        if (row.warned) {
            EXPECT_TRUE(events[0].starts_with("WARN sidReplaceInName: ")) << events[0].substr(0, 80);
        }
        memBufFree(&buffer);
    }
}

TEST_F(Names, WorkBufferOfRenamings) {
    const std::u16string name = head + u"-500";
    const uint32_t total = static_cast<uint32_t>(2 * (longer.size() + 4));
    memBuf buffer = {};
    ASSERT_TRUE(memBufInit(&buffer, total - 1));
    EXPECT_EQ(Renaming(name, 2 * name.size(), longer, 0, &buffer).changed, 1);
    EXPECT_EQ(buffer.size, total);
    for (const uint32_t room : {total, total + 100}) {
        ASSERT_TRUE(memBufResize(&buffer, room));
        const uint8_t* const block = buffer.data;
        allocationsLeft = 0;
        EXPECT_EQ(Renaming(name, 2 * name.size(), longer, 0, &buffer).changed, 1);
        EXPECT_EQ(buffer.data, block);
        EXPECT_EQ(buffer.size, room);
        allocationsLeft = -1;
    }
    ASSERT_TRUE(memBufResize(&buffer, total - 1));
    allocationsLeft = 0;
    const Renaming renaming(name, 2 * name.size(), longer, 0, &buffer);
    EXPECT_EQ(renaming.error, DWORD{ERROR_NOT_ENOUGH_MEMORY});
    EXPECT_EQ(renaming.changed, 0);
    EXPECT_TRUE(renaming.result.Buffer == nullptr && buffer.data == nullptr && buffer.size == 0);

    const std::u16string system = u"S-1-5-18";
    const UNICODE_STRING other = counted(system);
    UNICODE_STRING result = {2, 4, nullptr};
    int changed = 1;
    const UNICODE_STRING oldCounted = counted(head);
    EXPECT_EQ(sidReplaceInName(&other, &result, &oldCounted, &oldCounted, 0, &changed, &buffer), 0u);
    EXPECT_EQ(changed, 1);
    EXPECT_EQ(result.MaximumLength, 4);
}
