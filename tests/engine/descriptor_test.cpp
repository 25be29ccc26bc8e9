#include "sidchng/sid.h"
#include "tests/engine/scripted.h"

namespace {

std::u16string objectName = u"thing";

DWORD replaceIn(Bytes* descriptor, int* touched, int exact = 0) {
    const UNICODE_STRING name = counted(objectName);
    return sidReplaceInSDInternal(descriptor->data(), oldSid.data(), newSid.data(), 24, &name, exact,
                                  touched);
}

const Legend legend = {{"DEBUG sidReplace: Matching SID ", ""},
                       {"DEBUG sidReplaceInSDInternal: thing has ", ""},
                       {" in ", " "},
                       {"..-", " "}};

const std::vector<Ace> empty;

} /* namespace */

using Descriptor = Scripted;

TEST_F(Descriptor, OnePassOverEachShape) {
    const Bytes account = derived(oldSid, 500);
    const Bytes newAccount = derived(newSid, 500);
    const std::vector<Ace> others = {{0, administrators}, {1, administrators}};
    const std::vector<Ace> audit = {{2, oldSid}};
    const std::vector<Ace> newAudit = {{2, newSid}};
    std::vector<Ace> mixed;
    for (const uint8_t type : Bytes{0, 5, 1, 9, 4, 3}) mixed.push_back({type, derived(oldSid, type)});
    std::vector<Ace> newMixed = mixed;
    for (const size_t i : {0u, 2u, 5u}) newMixed[i].sid = derived(newSid, mixed[i].type);
    const struct {
        Parts before, after;
        std::string lines;
    } rows[] = {
        {{oldSid, account, others, others}, {newSid, account, others, others}, "[4] 300 owner"},
        {{newSid, account}, {newSid, newAccount}, "[5] 500 group"},
        {{newSid, administrators}, {newSid, administrators}, ""},
        {{{}, account}, {{}, newAccount}, "no owner, [5] 500 group"},
        {{{}, {}}, {{}, {}}, "no owner, no primary group"},
        {{account, {}, empty, audit},
         {newAccount, {}, empty, newAudit},
         "no primary group, [4] 300 SACL, [5] 500 owner"},
        {{newSid, newSid, mixed, mixed},
         {newSid, newSid, newMixed, newMixed},
         "[5] 3 DACL, [5] 1 DACL, [5] 0 DACL, [5] 3 SACL, [5] 1 SACL, [5] 0 SACL"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(&row - rows);
        const Bytes before = image(row.before);
        for (const int flag : {0, 1}) {  // the caller's flag is never cleared
            events.clear();
            Bytes descriptor = before;
            int touched = flag;
            EXPECT_EQ(replaceIn(&descriptor, &touched), 0u);
            EXPECT_EQ(descriptor, image(row.after));
            EXPECT_EQ(touched, descriptor != before ? 1 : flag);
            EXPECT_EQ(shortened(legend), row.lines);
        }
    }
}

TEST_F(Descriptor, ExactModeAndEmptyLists) {
    refusal = {"GetAce", 0, 1338};  // that there is no such call
    const Bytes account = derived(oldSid, 500);
    Bytes descriptor = image({account, oldSid, empty, empty});
    int touched = 0;
    EXPECT_EQ(replaceIn(&descriptor, &touched, 1), 0u);
    EXPECT_EQ(descriptor, image({account, newSid, empty, empty}));
    EXPECT_EQ(touched, 1);
    EXPECT_EQ(events, Events{});
}

/* What was patched before the failure is all that differs. */
TEST_F(Descriptor, FailingCallsEndThePass) {
    const std::vector<Ace> none = {{0, oldSid}, {0, oldSid}};
    const std::vector<Ace> half = {{0, oldSid}, {0, newSid}};
    const std::vector<Ace> all = {{0, newSid}, {0, newSid}};
    const struct {
        const char* call;
        int callsBefore; /* of the same name, that succeed */
        const char* function;
        std::vector<Ace> dacl, sacl;
        std::string lines;
    } rows[] = {
        {"GetSecurityDescriptorOwner", 0, "sidReplaceInSDInternal", none, none, ""},
        {"GetSecurityDescriptorGroup", 0, "sidReplaceInSDInternal", none, none, ""},
        {"GetSecurityDescriptorDacl", 0, "sidReplaceInSDInternal", none, none, ""},
        {"GetSecurityDescriptorSacl", 0, "sidReplaceInSDInternal", none, none, ""},
        {"GetAclInformation", 0, "sidReplaceInAcl", none, none, ""},
        {"GetAce", 0, "sidReplaceInAcl", none, none, ""},
        {"GetAce", 1, "sidReplaceInAcl", half, none, "[4] 300 DACL, "},
        {"GetAclInformation", 1, "sidReplaceInAcl", all, none, "[4] 300 DACL, [4] 300 DACL, "},
        {"GetAce", 3, "sidReplaceInAcl", all, half, "[4] 300 DACL, [4] 300 DACL, [4] 300 SACL, "},
    };
    for (const auto& row : rows) {
        SetUp();
        refusal = {row.call, row.callsBefore, 1338};
        Bytes descriptor = image({oldSid, oldSid, none, none});
        int touched = 0;
        EXPECT_EQ(replaceIn(&descriptor, &touched), 1338u);
        const std::string failure =
            text("ERROR %s: Win API call %s returned 1338 for thing", row.function, row.call);
        EXPECT_EQ(shortened(legend), row.lines + failure);
        EXPECT_EQ(descriptor, image({oldSid, oldSid, row.dacl, row.sacl}));
        EXPECT_EQ(touched, row.lines.empty() ? 0 : 1);
    }
}
