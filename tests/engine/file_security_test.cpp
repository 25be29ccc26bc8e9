#include <algorithm>
#include <cstring>

#include "sidchng/sid.h"
#include "sidchng/sidchng.h"
#include "tests/engine/scripted.h"

namespace {

const WCHAR path[] = u"\\\\?\\c:\\file";

/* One file, and the codes that its calls give, one a call; 0, and calls beyond the list: what the file gives.
 */
struct File {
    ByteVector stored;
    std::vector<DWORD> reads = {}, writes = {}, seizures = {};
    DWORD needed = 0;                        /* what a 122 in reads reports */
    bool holdsOld = false;                   /* writes don't take hold */
    DWORD token = 0, query = 0, length = 88; /* what answerForToken is told */
};

DWORD next(std::vector<DWORD>* codes) {
    if (codes->empty()) return 0;
    const DWORD code = codes->front();
    codes->erase(codes->begin());
    return code;
}

void answerFor(File* file) {
    answer.GetFileSecurityW = [=](LPCWSTR at, SECURITY_INFORMATION information,
                                  PSECURITY_DESCRIPTOR descriptor, DWORD size, LPDWORD needed) {
        note("r%d", size);
        EXPECT_TRUE(at == path && information == 15);
        const DWORD code = next(&file->reads);
        *needed = code != 0 ? file->needed : static_cast<DWORD>(file->stored.size());
        if (code != 0) return failWith(code);
        if (*needed > size) return failWith(ERROR_INSUFFICIENT_BUFFER);
        memcpy(descriptor, file->stored.data(), *needed);
        return TRUE;
    };
    answer.SetFileSecurityW = [=](LPCWSTR at, SECURITY_INFORMATION information,
                                  PSECURITY_DESCRIPTOR descriptor) {
        note("w");
        EXPECT_TRUE(at == path && information == 15);
        const DWORD code = next(&file->writes);
        if (code != 0) return failWith(code);
        if (!file->holdsOld) memcpy(file->stored.data(), descriptor, file->stored.size());
        return TRUE;
    };
    answerForToken(fakeHandle(0x77), TokenOwner, file->token, file->query, file->length);
    answer.SetNamedSecurityInfoW = [=](LPWSTR at, SE_OBJECT_TYPE type, SECURITY_INFORMATION information,
                                       PSID owner, PSID group, PACL dacl, PACL sacl) {
        note("set %d %#x %Ix", type, information, numberOf(owner));
        EXPECT_TRUE(at == path && group == nullptr && dacl == nullptr && sacl == nullptr);
        return next(&file->seizures);
    };
}

/* "seize" is a whole seizure without a failure; "!" stands before a failure that is reported at ERROR. */
// clang-format off
const Legend legend = {
    {"set 1 0x1 77", "owner"}, {"set 1 0x80000004 0", "list"}, {"CloseHandle 70", "close"},
    {" \\\\?\\c:\\file", ""}, {"INFO takeFileOwnership: Taking ownership of", "take"},
    {"ERROR takeFileOwnership: Win API call", "!"},
    {"ERROR takeFileOwnership: GetTokenInformation requested 89 bytes of buffer", "! 89"},
    {"take, owner, list, close", "seize"},
    {"WARN sidReplaceInFileSD: Original security attributes lost for", "lost"},
    {"DEBUG sidReplaceInFileSD: Replaced old SID in file SD", "done"},
    {"INFO sidReplaceInFileSD: Found old SID in file SD (simulation mode)", "found"},
    {"ERROR sidReplaceInFileSD: Failed to replace old SID in file SD", "! limit"},
    {"ERROR sidReplaceInFileSD: Win API call", "!"}, {" returned", ""}, {" for,", ","},
    {"DEBUG sidReplace: Matching SID ", ""}, {"[4]..-300 in owner", "-o"}, {"[5]..-513 in group", "-g"},
    {"[4]..-300 in DACL", "-d"}};
// clang-format on

std::string road() {
    const std::string line = shortened(legend);
    return line.ends_with(" for") ? line.substr(0, line.size() - 4) : line;
}

ByteVector padded(ByteVector descriptor, size_t size) {
    descriptor.resize(size);
    return descriptor;
}

const ByteVector clean = image({administrators, administrators});
const ByteVector owned = image({oldSid, administrators});
const ByteVector both = image({oldSid, derived(oldSid, 513)});
const ByteVector listed = image({administrators, administrators, std::vector<Ace>{{0, oldSid}, {1, oldSid}}});
const ByteVector large = padded(clean, 600);

} /* namespace */

using FileSecurity = Scripted;

TEST_F(FileSecurity, EveryRoadThroughReadingAndWriting) {
    // clang-format off
    const struct {
        File file; std::string road; DWORD result; bool simulate = false; Refusal refusal = {};
        int allocations = -1;
    } rows[] = {
        {{clean}, "r512", 0},
        {{listed}, "r512, -d, -d, w, done, r512", 0},
        {{both}, "r512, -o, w, done, r512, -g, w, done, r512", 0},
        {{owned, {}, {}, {}, 0, true}, "r512, -o, w, done, r512, -o, w, done, r512, -o, ! limit", 1359},
        {{both}, "r512, -o, found", 0, true},
        {{clean}, "r512", 0, true},
        {{owned, {2}}, "r512, ! GetFileSecurity 2", 2},
        {{owned, {silently}}, "r512, ! GetFileSecurity 1359", 1359},
        {{owned, {5}, {}, {}, 0, false, silently}, "r512, ! OpenProcessToken 1359, ! GetFileSecurity 5", 5},
        {{both, {}, {0, silently}}, "r512, -o, w, done, r512, -g, w, ! SetFileSecurity 1359", 1359},
        {{both, {}, {0, 19}}, "r512, -o, w, done, r512, -g, w, ! SetFileSecurity 19", 19},
        /* growth, by what is needed and 256 bytes */
        {{padded(clean, 513)}, "r512, r769", 0},
        {{padded(clean, 2000), {122}, {}, {}, 600}, "r512, r856, r2256", 0},
        {{owned, {122}, {}, {}, 512}, "r512, ! GetFileSecurity 122", 122},
        {{owned, {122}, {}, {}, 0xFFFFFF80}, "r512, ! GetFileSecurity 122", 122},
        /* refused reads */
        {{owned, {5}}, "r512, seize, lost, r512, -o, w, done, r512", 0},
        {{owned, {5, 5}}, "r512, seize, lost, r512, ! GetFileSecurity 5", 5},
        {{owned, {5, 32}}, "r512, seize, lost, r512, ! GetFileSecurity 32", 32},
        {{large, {5, 0, 5}}, "r512, seize, lost, r512, r856, seize, lost, r856", 0},
        {{owned, {5}, {}, {0, 1307}},
         "r512, take, owner, list, ! SetNamedSecurityInfo 1307, close, ! GetFileSecurity 5", 5},
        {{clean, {5}, {}, {1307}},
         "r512, take, owner, ! SetNamedSecurityInfo 1307, list, close, lost, r512", 0},
        {{owned, {5}}, "r512, ! GetFileSecurity 5", 5, true},
        {{owned, {5}, {}, {}, 0, false, 5}, "r512, ! OpenProcessToken 5, ! GetFileSecurity 5", 5},
        {{owned, {5}, {}, {}, 0, false, 0, 998, 89},
         "r512, ! GetTokenInformation 998, close, ! GetFileSecurity 5", 5},
        {{owned, {5}, {}, {}, 0, false, 0, 0, 89}, "r512, ! 89 (88 allocated), close, ! GetFileSecurity 5",
         5},
        /* refused writes */
        {{owned, {}, {5}}, "r512, -o, w, seize, w, done, r512", 0},
        {{owned, {}, {5, 112}}, "r512, -o, w, seize, w, ! SetFileSecurity 112", 112},
        {{owned, {}, {5}, {0, 1307}},
         "r512, -o, w, take, owner, list, ! SetNamedSecurityInfo 1307, close, ! SetFileSecurity 5", 5},
        {{both, {0, 5}, {5, 0, 5}},
         "r512, -o, w, seize, w, done, r512, seize, lost, r512, -g, w, seize, w, done, r512", 0},
        /* failures beside the file's calls */
        {{owned}, "r512, ERROR sidReplaceInSDInternal: Win API call GetSecurityDescriptorDacl 1359", 1359,
         false, {"GetSecurityDescriptorDacl", 0, silently}},
        {{large}, "r512, no memory", ERROR_NOT_ENOUGH_MEMORY, false, {}, 0},
    };
    // clang-format on
    for (const auto& row : rows) {
        SetUp();
        File file = row.file;
        answerFor(&file);
        memBuf buffer = {};
        ASSERT_TRUE(memBufInit(&buffer, 512));
        refusal = row.refusal;
        allocationsLeft = row.allocations;
        const DWORD result =
            sidReplaceInFileSD(path, oldSid.data(), newSid.data(), 24, 0, row.simulate, &buffer);
        allocationsLeft = -1;
        EXPECT_EQ(result, row.result) << row.road;
        if (events.back().starts_with("ERROR ombraRealloc")) events.back() = "no memory";
        EXPECT_EQ(road(), row.road);
        EXPECT_EQ(file.reads.size() + file.writes.size() + file.seizures.size(), 0u) << row.road;
        memBufFree(&buffer);
    }
}
