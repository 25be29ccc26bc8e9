#include <algorithm>
#include <cstring>

#include "sidchng/sid.h"
#include "sidchng/sidchng.h"
#include "tests/engine/scripted.h"

namespace {

const WCHAR path[] = u"\\\\?\\c:\\file";

/* One file, and what its calls answer: a code, or 0 for what the stored descriptor gives. */
struct File {
    Bytes stored;
    std::vector<DWORD> reads, writes, seizures;
    DWORD needed = 0;      /* what a 122 in reads reports */
    bool holdsOld = false; /* writes don't take hold */
};

/* Turns the descriptor's road into events. Calls beyond those listed give what the file gives. */
void answerFor(File* file) {
    const auto next = [](std::vector<DWORD>* codes) {
        if (codes->empty()) return DWORD{0};
        const DWORD code = codes->front();
        codes->erase(codes->begin());
        return code;
    };
    answer.GetFileSecurityW = [=](LPCWSTR at, SECURITY_INFORMATION information,
                                  PSECURITY_DESCRIPTOR descriptor, DWORD size, LPDWORD needed) {
        note("read %d %d", information, size);
        EXPECT_EQ(at, path);
        const DWORD code = next(&file->reads);
        *needed = code != 0 ? file->needed : static_cast<DWORD>(file->stored.size());
        if (code != 0) return failWith(code);
        if (*needed > size) return failWith(ERROR_INSUFFICIENT_BUFFER);
        memcpy(descriptor, file->stored.data(), *needed);
        return TRUE;
    };
    answer.SetFileSecurityW = [=](LPCWSTR at, SECURITY_INFORMATION information,
                                  PSECURITY_DESCRIPTOR descriptor) {
        note("write %d", information);
        EXPECT_EQ(at, path);
        const DWORD code = next(&file->writes);
        if (code != 0) return failWith(code);
        if (!file->holdsOld) memcpy(file->stored.data(), descriptor, file->stored.size());
        return TRUE;
    };
    answer.GetTokenInformation = [](HANDLE, TOKEN_INFORMATION_CLASS, LPVOID buffer, DWORD, LPDWORD) {
        static_cast<TOKEN_OWNER*>(buffer)->Owner = fakeHandle(0x77);
        return TRUE;
    };
    answer.SetNamedSecurityInfoW = [=](LPWSTR at, SE_OBJECT_TYPE type, SECURITY_INFORMATION information,
                                       PSID owner, PSID, PACL dacl, PACL) {
        note("seize %d %#x %Ix", type, information, numberOf(owner));
        EXPECT_EQ(at, path);
        EXPECT_EQ(dacl, nullptr);
        return next(&file->seizures);
    };
}

const char seizeOwner[] = "seize 1 0x1 77";
const char seizeDacl[] = "seize 1 0x80000004 0";
const char closed[] = "CloseHandle 70";
const char taking[] = "INFO takeFileOwnership: Taking ownership of \\\\?\\c:\\file";
const char notTaken[] =
    "ERROR takeFileOwnership: Win API call SetNamedSecurityInfo returned 1307 for \\\\?\\c:\\file";
const char lost[] = "WARN sidReplaceInFileSD: Original security attributes lost for \\\\?\\c:\\file";
const char replaced[] = "DEBUG sidReplaceInFileSD: Replaced old SID in file SD \\\\?\\c:\\file";
const char simulated[] =
    "INFO sidReplaceInFileSD: Found old SID in file SD \\\\?\\c:\\file (simulation mode)";
const char unreplaced[] = "ERROR sidReplaceInFileSD: Failed to replace old SID in file SD \\\\?\\c:\\file";
const char ownerMatched[] = "DEBUG sidReplace: Matching SID [4]..-300 in owner";
const char groupMatched[] = "DEBUG sidReplace: Matching SID [5]..-513 in group";
const char aceMatched[] = "DEBUG sidReplace: Matching SID [4]..-300 in DACL";
const char read512[] = "read 15 512";
const char wrote[] = "write 15";

std::string failed(const char* call, DWORD code) {
    return text("ERROR sidReplaceInFileSD: Win API call %s returned %d for %ws", call, code, path);
}

const Bytes clean = image({administrators, administrators});
const Bytes owned = image({oldSid, administrators});
const Bytes ownedTwice = image({oldSid, derived(oldSid, 513)});
const Bytes listed = image({administrators, administrators, std::vector<Ace>{{0, oldSid}, {1, oldSid}}});

Bytes padded(Bytes descriptor, size_t size) {
    descriptor.resize(size);
    return descriptor;
}

struct Row {
    const char* name;
    File file;
    bool simulate;
    DWORD result;
    Events expected;
    uint32_t bufferAfter = 512;
};

void expectRoad(const Row& row) {
    SCOPED_TRACE(row.name);
    File file = row.file;
    answerFor(&file);
    memBuf buffer = {};
    ASSERT_TRUE(memBufInit(&buffer, 512));
    const DWORD result = sidReplaceInFileSD(path, oldSid.data(), newSid.data(), 24, 0, row.simulate, &buffer);
    EXPECT_EQ(result, row.result);
    EXPECT_EQ(events, row.expected);
    EXPECT_EQ(buffer.size, row.bufferAfter);
    EXPECT_EQ(file.reads.size() + file.writes.size() + file.seizures.size(), 0u) << "calls not made";
    memBufFree(&buffer);
}

} /* namespace */

using FileSecurity = Scripted;

TEST_F(FileSecurity, ReadingAndWriting) {
    const Row rows[] = {
        {"nothing to do", {clean, {}, {}, {}}, false, 0, {read512}},
        {"owner", {owned, {}, {}, {}}, false, 0, {read512, ownerMatched, wrote, replaced, read512}},
        {"list", {listed, {}, {}, {}}, false, 0, {read512, aceMatched, aceMatched, wrote, replaced, read512}},
        {"owner and group",
         {ownedTwice, {}, {}, {}},
         false,
         0,
         {read512, ownerMatched, wrote, replaced, read512, groupMatched, wrote, replaced, read512}},
        {"writes that don't take hold",
         {owned, {}, {}, {}, 0, true},
         false,
         1359,
         {read512, ownerMatched, wrote, replaced, read512, ownerMatched, wrote, replaced, read512,
          ownerMatched, unreplaced}},
        {"simulation", {ownedTwice, {}, {}, {}}, true, 0, {read512, ownerMatched, simulated}},
        {"simulation, nothing to do", {clean, {}, {}, {}}, true, 0, {read512}},
        {"read fails", {owned, {2}, {}, {}}, false, 2, {read512, failed("GetFileSecurity", 2)}},
        {"write fails",
         {owned, {}, {112}, {}},
         false,
         112,
         {read512, ownerMatched, wrote, failed("SetFileSecurity", 112)}},
        {"second write fails",
         {ownedTwice, {}, {0, 19}, {}},
         false,
         19,
         {read512, ownerMatched, wrote, replaced, read512, groupMatched, wrote,
          failed("SetFileSecurity", 19)}},
        {"growth", {padded(clean, 600), {}, {}, {}}, false, 0, {read512, "read 15 856"}, 856},
        {"growth by one byte", {padded(clean, 513), {}, {}, {}}, false, 0, {read512, "read 15 769"}, 769},
        {"growth twice",
         {padded(clean, 2000), {122}, {}, {}, 600},
         false,
         0,
         {read512, "read 15 856", "read 15 2256"},
         2256},
        {"122 without growth",
         {owned, {122}, {}, {}, 512},
         false,
         122,
         {read512, failed("GetFileSecurity", 122)}},
        {"a size out of reach",
         {owned, {122}, {}, {}, 0xFFFFFF80},
         false,
         122,
         {read512, failed("GetFileSecurity", 122)}},
    };
    for (const Row& row : rows) {
        SetUp();
        expectRoad(row);
    }
}

TEST_F(FileSecurity, RefusedReadsAndWrites) {
    const Events seized = {taking, seizeOwner, seizeDacl, closed};
    const auto road = [](std::vector<Events> parts) {
        Events whole;
        for (const Events& part : parts) whole.insert(whole.end(), part.begin(), part.end());
        return whole;
    };
    const Row rows[] = {
        {"read seized, clean", {clean, {5}, {}, {}}, false, 0, road({{read512}, seized, {lost, read512}})},
        {"read seized, patched",
         {owned, {5}, {}, {}},
         false,
         0,
         road({{read512}, seized, {lost, read512, ownerMatched, wrote, replaced, read512}})},
        {"read refused again",
         {owned, {5, 5}, {}, {}},
         false,
         5,
         road({{read512}, seized, {lost, read512, failed("GetFileSecurity", 5)}})},
        {"another code at the second read",
         {owned, {5, 32}, {}, {}},
         false,
         32,
         road({{read512}, seized, {lost, read512, failed("GetFileSecurity", 32)}})},
        {"growth at the second read",
         {padded(clean, 600), {5}, {}, {}},
         false,
         0,
         road({{read512}, seized, {lost, read512, "read 15 856"}}),
         856},
        {"refused again after the growth",
         {padded(clean, 600), {5, 122, 5}, {}, {}, 600},
         false,
         0,
         road({{read512}, seized, {lost, read512, "read 15 856"}, seized, {lost, "read 15 856"}}),
         856},
        {"read, no seizure",
         {owned, {5}, {}, {0, 1307}},
         false,
         5,
         {read512, taking, seizeOwner, seizeDacl, notTaken, closed, failed("GetFileSecurity", 5)}},
        {"read, list alone seized",
         {clean, {5}, {}, {1307, 0}},
         false,
         0,
         {read512, taking, seizeOwner, notTaken, seizeDacl, closed, lost, read512}},
        {"read refused in simulation",
         {owned, {5}, {}, {}},
         true,
         5,
         {read512, failed("GetFileSecurity", 5)}},
        {"write seized",
         {owned, {}, {5}, {}},
         false,
         0,
         road({{read512, ownerMatched, wrote}, seized, {wrote, replaced, read512}})},
        {"write refused again",
         {owned, {}, {5, 5}, {}},
         false,
         5,
         road({{read512, ownerMatched, wrote}, seized, {wrote, failed("SetFileSecurity", 5)}})},
        {"another code at the second write",
         {owned, {}, {5, 112}, {}},
         false,
         112,
         road({{read512, ownerMatched, wrote}, seized, {wrote, failed("SetFileSecurity", 112)}})},
        {"wrote, no seizure",
         {owned, {}, {5}, {0, 1307}},
         false,
         5,
         {read512, ownerMatched, wrote, taking, seizeOwner, seizeDacl, notTaken, closed,
          failed("SetFileSecurity", 5)}},
        {"refusals in both passes",
         {ownedTwice, {0, 5}, {5, 0, 5}, {}},
         false,
         0,
         road({{read512, ownerMatched, wrote},
               seized,
               {wrote, replaced, read512},
               seized,
               {lost, read512, groupMatched, wrote},
               seized,
               {wrote, replaced, read512}})},
    };
    for (const Row& row : rows) {
        SetUp();
        expectRoad(row);
    }
}

TEST_F(FileSecurity, FailuresBesideThePlatformsFileCalls) {
    File file = {padded(owned, 600), {}, {}, {}};
    answerFor(&file);
    memBuf buffer = {};
    allocationsLeft = 1;
    ASSERT_TRUE(memBufInit(&buffer, 512));
    const auto replace = [&] {
        events.clear();
        return sidReplaceInFileSD(path, oldSid.data(), newSid.data(), 24, 0, 0, &buffer);
    };
    EXPECT_EQ(replace(), DWORD{ERROR_NOT_ENOUGH_MEMORY});
    EXPECT_EQ(logLines().size(), 1u);  // that of the memory layer
    EXPECT_EQ(buffer.size, 0u);
    allocationsLeft = -1;
    refusal = {"GetSecurityDescriptorDacl", 0, 1338};
    EXPECT_EQ(replace(), 1338u);  // on an empty buffer, which grows anew
    const Events expected = {"read 15 0", "read 15 856",
                             "ERROR sidReplaceInSDInternal: Win API call GetSecurityDescriptorDacl returned "
                             "1338 for \\\\?\\c:\\file"};
    EXPECT_EQ(events, expected);
    memBufFree(&buffer);
}

TEST_F(FileSecurity, SeizingAFile) {
    const std::string call = "ERROR takeFileOwnership: Win API call ";
    const struct {
        DWORD open, query, needed;
        std::vector<DWORD> seizures;
        DWORD result;
        Events expected;
    } rows[] = {
        {0, 0, 88, {}, 0, {taking, seizeOwner, seizeDacl, closed}},
        {0, 0, 20, {1307, 0}, 0, {taking, seizeOwner, notTaken, seizeDacl, closed}},
        {0, 0, 20, {0, 1307}, 1307, {taking, seizeOwner, seizeDacl, notTaken, closed}},
        {0,
         0,
         20,
         {5, 1307},
         1307,
         {taking, seizeOwner, call + "SetNamedSecurityInfo returned 5 for \\\\?\\c:\\file", seizeDacl,
          notTaken, closed}},
        {5, 0, 20, {}, 5, {call + "OpenProcessToken returned 5"}},
        {0, 998, 89, {}, 998, {call + "GetTokenInformation returned 998", closed}},
        {0,
         0,
         89,
         {},
         1359,
         {"ERROR takeFileOwnership: GetTokenInformation requested 89 bytes of buffer (88 allocated)",
          closed}},
    };
    for (const auto& row : rows) {
        SetUp();
        File file = {{}, {}, {}, row.seizures};
        answerFor(&file);
        answer.OpenProcessToken = [&](HANDLE, DWORD access, PHANDLE token) {
            EXPECT_EQ(access, TOKEN_QUERY);
            if (row.open != 0) return failWith(row.open);
            *token = fakeHandle(0x70);
            return TRUE;
        };
        answer.GetTokenInformation = [&](HANDLE, TOKEN_INFORMATION_CLASS infoClass, LPVOID buffer, DWORD size,
                                         LPDWORD needed) {
            EXPECT_EQ(infoClass, TokenOwner);
            EXPECT_EQ(size, 88u);
            EXPECT_EQ(*needed, 88u);
            memset(buffer, 0, size);
            static_cast<TOKEN_OWNER*>(buffer)->Owner = fakeHandle(0x77);
            *needed = row.needed;
            return row.query != 0 ? failWith(row.query) : TRUE;
        };
        EXPECT_EQ(takeFileOwnership(path), row.result);
        EXPECT_EQ(events, row.expected);
        EXPECT_TRUE(file.seizures.empty());
    }
}
