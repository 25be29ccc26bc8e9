/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "tests/support/drives.h"

namespace offline {
namespace {

const std::u16string onlyFile = u"\\\\?\\c:\\file";
const ByteVector clean = descriptor(admins, admins, {}, {}), owned = descriptor(oldText, admins, {}, {});
const ByteVector both = descriptor(oldText, oldText + "-513", {}, {});
const ByteVector listed = descriptor(admins, admins, {}, acl({allowed(oldText), allowed(oldText)}));
const ByteVector large = descriptor(admins, admins, {}, acl({}, 504)); /* 564 bytes */

struct FileSecurity : SmallSystem {
    Drives drives;
};

/* Reads and writes that are refused, once each after so many that are not. */
Fault reading(LONG code, int after = 0) {
    return {"GetFileSecurityW", "", code, after, 1};
}
Fault writing(LONG code, int after = 0) {
    return {"SetFileSecurityW", "", code, after, 1};
}
Fault seizing(LONG code, int after = 0) {
    return {"SetNamedSecurityInfoW", "", code, after, 1};
}
Fault token(const char* call, LONG code) {
    return {call, "", code};
}

/* "seize" is a seizure without a failure; "!" stands before a failure that is reported at ERROR. */
// clang-format off
const Legend seizures = {
    {" \\\\?\\c:\\file", ""}, {"INFO takeFileOwnership: Taking ownership of", "take"},
    {"ERROR takeFileOwnership: ", "! "}, {"Win API call ", ""}, {"take, owner, list", "seize"},
    {"WARN sidReplaceInFileSD: Original security attributes lost for", "lost"},
    {"DEBUG sidReplaceInFileSD: Replaced old SID in file SD", "done"},
    {"INFO sidReplaceInFileSD: Found old SID in file SD (simulation mode)", "found"},
    {"ERROR sidReplaceInFileSD: Failed to replace old SID in file SD", "! limit"},
    {"ERROR sidReplaceInFileSD: ", "! "}, {"ERROR sidReplaceInSDInternal: ", "! "}, {" returned", ""},
    {" for,", ","}, {"GetFileSecurity", "reading"}, {"SetFileSecurity", "writing"},
    {"SetNamedSecurityInfo", "setting"}, {"GetSecurityDescriptorDacl", "list"}, {"OpenProcessToken", "token"},
    {"GetTokenInformation", "asking"}, {"write", "w"}, {"read ", "r"}};
// clang-format on

TEST_F(FileSecurity, EveryRoadThroughReadingAndWriting) {
    // clang-format off
    const struct {
        ByteVector stored; std::vector<Fault> refused = {}; std::string expected;
        int simulate = 0; DWORD reported = 0; bool keepsOld = false; int allocations = -1;
    } rows[] = {
        {clean, {}, "r512, 0"},
        {listed, {}, "r512, w, done, r512, 0"},
        {both, {}, "r512, w, done, r512, w, done, r512, 0"},
        {.stored = owned, .expected = "r512, w, done, r512, w, done, r512, ! limit, 1359", .keepsOld = true},
        {both, {}, "r512, found, 0", 1},
        {owned, {reading(2)}, "! reading 2, 2"},
        {owned, {reading(silently)}, "! reading 1359, 1359"},
        {both, {writing(19, 1)}, "r512, w, done, r512, ! writing 19, 19"},
        {owned, {token("GetSecurityDescriptorDacl", silently)}, "r512, ! list 1359, 1359"},
        /* growth */
        {large, {}, "r512, r820, 0"},
        {owned, {}, "r512, ! reading 122, 122", 0, 512},
        {owned, {}, "r512, ! reading 122, 122", 0, 0xFFFFFF80},
        {.stored = large, .expected = "r512, no memory, 8", .allocations = 0},
        /* refused reads */
        {owned, {reading(5)}, "seize, lost, r512, w, done, r512, 0"},
        {owned, {reading(5), reading(32)}, "seize, lost, ! reading 32, 32"},
        {owned, {reading(5), seizing(1307, 1)}, "take, owner, ! setting 1307, ! reading 5, 5"},
        {clean, {reading(5), seizing(1307)}, "take, ! setting 1307, list, lost, r512, 0"},
        {owned, {reading(5)}, "! reading 5, 5", 1},
        {owned, {reading(5), token("OpenProcessToken", silently)}, "! token 1359, ! reading 5, 5"},
        {owned, {reading(5), token("GetTokenInformation", 998)}, "! asking 998, ! reading 5, 5"},
        /* refused writes */
        {owned, {writing(5)}, "r512, seize, w, done, r512, 0"},
        {owned, {writing(5), writing(112)}, "r512, seize, ! writing 112, 112"},
        {owned, {writing(5), seizing(1307, 1)}, "r512, take, owner, ! setting 1307, ! writing 5, 5"},
        {both, {writing(5), reading(5, 1), writing(5, 1)},
         "r512, seize, w, done, seize, lost, r512, seize, w, done, r512, 0"},
    };
    // clang-format on
    for (const auto& row : rows) {
        SCOPED_TRACE(row.expected);
        beginWatching();
        drives = {{}, row.keepsOld, row.reported};
        drives.files[onlyFile] = {plainFile, row.stored};
        drives.answerCalls();
        faults = row.refused;
        memBuf buffer = {};
        ASSERT_TRUE(memBufInit(&buffer, 512));
        allocationsLeft = row.allocations;
        std::string told = outcome(seizures, [&] {
            const DWORD error = sidReplaceInFileSD(onlyFile.c_str(), oldSid.data(), newSid.data(), 24, 0,
                                                   row.simulate, &buffer);
            allocationsLeft = -1;
            return error;
        });
        if (const size_t at = told.find("ERROR ombraRealloc"); at != told.npos)
            told.replace(at, told.rfind(',') - at, "no memory");
        EXPECT_EQ(told, row.expected);
        memBufFree(&buffer);
    }
}

} /* namespace */
} /* namespace offline */
