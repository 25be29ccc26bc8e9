#include "sidchng/sid.h"
#include "tests/engine/scripted.h"

using Descriptor = Scripted;

/* What was patched before a failure is all that differs. */
TEST_F(Descriptor, OnePassOverEachShape) {
    const ByteVector account = derived(oldSid, 500), newAccount = derived(newSid, 500);
    const std::vector<Ace> empty, others = {{0, administrators}, {1, administrators}};
    const std::vector<Ace> audit = {{2, oldSid}}, newAudit = {{2, newSid}};
    const std::vector<Ace> none = {{0, oldSid}, {0, oldSid}}, all = {{0, newSid}, {0, newSid}};
    const std::vector<Ace> half = {{0, oldSid}, {0, newSid}};
    std::vector<Ace> mixed;
    for (const uint8_t type : ByteVector{0, 5, 1, 9, 4, 3}) mixed.push_back({type, derived(oldSid, type)});
    std::vector<Ace> newMixed = mixed;
    for (const size_t i : {0u, 2u, 5u}) newMixed[i].sid = derived(newSid, mixed[i].type);
    ByteVector first = account, last = account; /* that miss in their prefix's first and last byte */
    first[2] = last[23] = 1;
    const std::vector<Ace> near = {{0, sid({21, 100, 200})}, {0, first}, {0, last}, {1, account}};
    const std::vector<Ace> newNear = {{0, sid({21, 100, 200})}, {0, first}, {0, last}, {1, newAccount}};
    const Parts whole = {oldSid, oldSid, none, none};
    const std::string failed = "ERROR sidReplaceInSDInternal: ", list = "ERROR sidReplaceInAcl: ";
    // clang-format off
    const struct { Parts before, after; std::string lines; Refusal refusal = {}; int exact = 0; } rows[] = {
        {{oldSid, account, others, others}, {newSid, account, others, others}, "[4] 300 owner"},
        {{newSid, account}, {newSid, newAccount}, "[5] 500 group"},
        {{{}, account}, {{}, newAccount}, "no owner, [5] 500 group"},
        {{{}, {}}, {{}, {}}, "no owner, no primary group"},
        {{account, {}, empty, audit}, {newAccount, {}, empty, newAudit},
         "no primary group, [4] 300 SACL, [5] 500 owner"},
        {{newSid, newSid, mixed, mixed}, {newSid, newSid, newMixed, newMixed},
         "[5] 3 DACL, [5] 1 DACL, [5] 0 DACL, [5] 3 SACL, [5] 1 SACL, [5] 0 SACL"},
        {{newSid, newSid, near}, {newSid, newSid, newNear}, "[5] 500 DACL"},
        {{account, oldSid, near, empty}, {account, newSid, near, empty}, "", {}, 1},
        {whole, whole, failed + "GetSecurityDescriptorDacl", {"GetSecurityDescriptorDacl", 0, 1338}},
        {whole, {oldSid, oldSid, half, none}, "[4] 300 DACL, " + list + "GetAce", {"GetAce", 1, 1338}},
        {whole, {oldSid, oldSid, all, half}, "[4] 300 DACL, [4] 300 DACL, [4] 300 SACL, " + list + "GetAce",
         {"GetAce", 3, 1338}},
    };
    // clang-format on
    const Legend legend = {{"DEBUG sidReplace: Matching SID ", ""},
                           {"DEBUG sidReplaceInSDInternal: thing has ", ""},
                           {" in ", " "},
                           {"..-", " "},
                           {": Win API call", ":"},
                           {" returned 1338 for thing", ""}};
    const std::u16string objectName = u"thing";
    const UNICODE_STRING name = counted(objectName);
    for (const auto& row : rows) {
        SCOPED_TRACE(&row - rows);
        const ByteVector before = image(row.before);
        for (const int flag : {0, 1}) {  // the caller's flag is never cleared
            events.clear();
            refusal = row.refusal;
            ByteVector descriptor = before;
            int touched = flag;
            EXPECT_EQ(sidReplaceInSDInternal(descriptor.data(), oldSid.data(), newSid.data(), 24, &name,
                                             row.exact, &touched),
                      row.refusal.code);
            EXPECT_EQ(descriptor, image(row.after));
            EXPECT_EQ(touched, descriptor != before ? 1 : flag);
            EXPECT_EQ(shortened(legend), row.lines);
        }
    }
}
