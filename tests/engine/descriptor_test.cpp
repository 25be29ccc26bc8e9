#include "sidchng/sid.h"
#include "tests/engine/scripted.h"

namespace {

std::u16string objectName = u"thing";

DWORD replaceIn(Bytes* descriptor, int* touched, int exact = 0) {
    const UNICODE_STRING name = counted(objectName);
    return sidReplaceInSDInternal(descriptor->data(), oldSid.data(), newSid.data(), 24, &name, exact,
                                  touched);
}

std::string matched(const char* what, const char* place) {
    return std::string("DEBUG sidReplace: Matching SID ") + what + " in " + place;
}

} /* namespace */

using Descriptor = Scripted;

TEST_F(Descriptor, OnePassOverEachShape) {
    const Bytes account = derived(oldSid, 500);
    const Bytes newAccount = derived(newSid, 500);
    const std::vector<Ace> others = {{0, administrators}, {1, administrators}};
    const std::vector<Ace> mixed = {{0, derived(oldSid, 1)}, {5, derived(oldSid, 2)},
                                    {1, derived(oldSid, 3)}, {9, derived(oldSid, 4)},
                                    {2, administrators},     {3, derived(oldSid, 5)}};
    std::vector<Ace> mixedNew = mixed;
    for (const size_t i : {0u, 2u, 5u}) mixedNew[i].sid = derived(newSid, mixed[i].sid[24]);
    const struct {
        Parts before, after;
        int touched;
        Events lines;
    } rows[] = {
        {{oldSid, account, others, others},
         {newSid, account, others, others},
         1,
         {matched("[4]..-300", "owner")}},
        {{newSid, account}, {newSid, newAccount}, 1, {matched("[5]..-500", "group")}},
        {{newSid, administrators}, {newSid, administrators}, 0, {}},
        {{{}, account},
         {{}, newAccount},
         1,
         {"DEBUG sidReplaceInSDInternal: thing has no owner", matched("[5]..-500", "group")}},
        {{{}, {}},
         {{}, {}},
         0,
         {"DEBUG sidReplaceInSDInternal: thing has no owner",
          "DEBUG sidReplaceInSDInternal: thing has no primary group"}},
        {{newSid, newSid, mixed, mixed},
         {newSid, newSid, mixedNew, mixedNew},
         1,
         {matched("[5]..-5", "DACL"), matched("[5]..-3", "DACL"), matched("[5]..-1", "DACL"),
          matched("[5]..-5", "SACL"), matched("[5]..-3", "SACL"), matched("[5]..-1", "SACL")}},
        {{account, {}, std::vector<Ace>{}, std::vector<Ace>{{2, oldSid}}},
         {newAccount, {}, std::vector<Ace>{}, std::vector<Ace>{{2, newSid}}},
         1,
         {"DEBUG sidReplaceInSDInternal: thing has no primary group", matched("[4]..-300", "SACL"),
          matched("[5]..-500", "owner")}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(&row - rows);
        for (const int before : {0, 1}) {  // the caller's flag is never cleared
            events.clear();
            Bytes descriptor = image(row.before);
            int touched = before;
            EXPECT_EQ(replaceIn(&descriptor, &touched), 0u);
            EXPECT_EQ(descriptor, image(row.after));
            EXPECT_EQ(touched, row.touched | before);
            EXPECT_EQ(events, row.lines);
        }
    }
}

TEST_F(Descriptor, ExactModeAndEmptyLists) {
    refusal = {"GetAce", 0, 1338};  // that there is no such call
    const Parts before = {derived(oldSid, 500), oldSid, std::vector<Ace>{}, std::vector<Ace>{}};
    Parts after = before;
    after.group = newSid;
    Bytes descriptor = image(before);
    int touched = 0;
    EXPECT_EQ(replaceIn(&descriptor, &touched, 1), 0u);
    EXPECT_EQ(descriptor, image(after));
    EXPECT_EQ(touched, 1);
    EXPECT_EQ(events, Events{});
}

/* Each call in turn fails; what was patched before it is all that differs. */
TEST_F(Descriptor, FailingCallsEndThePass) {
    const std::vector<Ace> aces = {{0, oldSid}, {0, oldSid}};
    const std::vector<Ace> half = {{0, oldSid}, {0, newSid}};
    const std::vector<Ace> all = {{0, newSid}, {0, newSid}};
    const Parts before = {oldSid, oldSid, aces, aces};
    const std::string inDacl = matched("[4]..-300", "DACL");
    const std::string inSacl = matched("[4]..-300", "SACL");
    const struct {
        const char* call;
        int callsBefore; /* of the same name, that succeed */
        const char* function;
        Parts after;
        int touched;
        Events lines; /* before the failure's */
    } rows[] = {
        {"GetSecurityDescriptorOwner", 0, "sidReplaceInSDInternal", before, 0, {}},
        {"GetSecurityDescriptorGroup", 0, "sidReplaceInSDInternal", before, 0, {}},
        {"GetSecurityDescriptorDacl", 0, "sidReplaceInSDInternal", before, 0, {}},
        {"GetSecurityDescriptorSacl", 0, "sidReplaceInSDInternal", before, 0, {}},
        {"GetAclInformation", 0, "sidReplaceInAcl", before, 0, {}},
        {"GetAce", 0, "sidReplaceInAcl", before, 0, {}},
        {"GetAce", 1, "sidReplaceInAcl", {oldSid, oldSid, half, aces}, 1, {inDacl}},
        {"GetAclInformation", 1, "sidReplaceInAcl", {oldSid, oldSid, all, aces}, 1, {inDacl, inDacl}},
        {"GetAce", 3, "sidReplaceInAcl", {oldSid, oldSid, all, half}, 1, {inDacl, inDacl, inSacl}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(text("%s after %d", row.call, row.callsBefore));
        SetUp();
        refusal = {row.call, row.callsBefore, 1338};
        Bytes descriptor = image(before);
        int touched = 0;
        EXPECT_EQ(replaceIn(&descriptor, &touched), 1338u);
        Events expected = row.lines;
        expected.push_back(text("ERROR %s: Win API call %s returned 1338 for thing", row.function, row.call));
        EXPECT_EQ(events, expected);
        EXPECT_EQ(descriptor, image(row.after));
        EXPECT_EQ(touched, row.touched);
    }
}
