/* SPDX-License-Identifier: GPL-2.0-or-later */
#include <sstream>

#include "tests/support/small_system.h"

namespace offline {
namespace {

/* "o:OLD g:BA d:0/OLD d:1/BA s:2/OLD": owner, group, and each entry of the two lists by its type and SID;
 * "d:" alone: an empty list. */
Image parse(const std::string& shape) {
    const Legend names = {{"OLD", oldText}, {"NEW", newText}, {"BA", admins}};
    std::string owner, group;
    std::vector<Image> rights, audits;
    bool hasRights = false, hasAudits = false;
    std::istringstream parts(shortened(names, {shape}));
    for (std::string part; parts >> part;) {
        const std::string who = part.substr(2);
        if (part[0] == 'o') owner = who;
        if (part[0] == 'g') group = who;
        if (part[0] == 'd') hasRights = true;
        if (part[0] == 's') hasAudits = true;
        if (who.find('/') == who.npos) continue;
        (part[0] == 'd' ? rights : audits)
            .push_back(ace(static_cast<uint8_t>(who[0] - '0'), 0, 1, who.substr(2)));
    }
    return descriptor(owner, group, hasAudits ? acl(audits) : Image(), hasRights ? acl(rights) : Image());
}

struct Descriptor : SmallSystem {};

/* What was patched before a failure is all that differs. */
TEST_F(Descriptor, OnePassOverEachShape) {
    const std::string first = "S-1-1099511627781-21-100-200-300-5", last = "S-1-5-21-100-200-16777516";
    const std::string near = " d:0/S-1-5-21-100-200 d:0/" + first + " d:0/" + last;
    const std::string two = " d:0/OLD d:0/OLD", half = " d:0/OLD d:0/NEW", failed = "ERROR sidReplaceIn";
    // clang-format off
    const struct {
        std::string before, after, told;
        Fault fault = {}; int exact = 0;
    } rows[] = {
        {"o:OLD g:OLD-5 d:0/BA s:2/BA", "o:NEW g:OLD-5 d:0/BA s:2/BA", "[4] 300 owner"},
        {"o:NEW g:OLD-500", "o:NEW g:NEW-500", "[5] 500 group"},
        {"g:OLD-500", "g:NEW-500", "no owner, [5] 500 group"},
        {"o:OLD-500 d: s:2/BA", "o:NEW-500 d: s:2/BA", "no primary group, [5] 500 owner"},
        {"o:BA g:BA d: s:2/OLD", "o:BA g:BA d: s:2/NEW", "[4] 300 SACL"},
        {"o:NEW g:NEW d:0/OLD d:5/OLD d:1/OLD-1 d:9/OLD d:4/OLD d:3/OLD-3",
         "o:NEW g:NEW d:0/NEW d:5/OLD d:1/NEW-1 d:9/OLD d:4/OLD d:3/NEW-3",
         "[5] 3 DACL, [5] 1 DACL, [4] 300 DACL"},
        {"o:NEW g:NEW" + near + " d:1/OLD-5", "o:NEW g:NEW" + near + " d:1/NEW-5", "[5] 5 DACL"},
        {"o:OLD-500 g:OLD" + near, "o:OLD-500 g:NEW" + near, "", {}, 1},
        {"o:OLD g:OLD" + two, "o:OLD g:OLD" + two, failed + "SDInternal: GetSecurityDescriptorDacl",
         {"GetSecurityDescriptorDacl", "", 1338}},
        {"o:OLD g:OLD s:2/BA" + two, "o:OLD g:OLD s:2/BA" + half, "[4] 300 DACL, " + failed + "Acl: GetAce",
         {"GetAce", "", 1338, 1}},
    };
    // clang-format on
    const Legend legend = {{"DEBUG sidReplace: Matching SID ", ""},
                           {"DEBUG sidReplaceInSDInternal: thing has ", ""},
                           {" in ", " "},
                           {"..-", " "},
                           {": Win API call", ":"},
                           {" returned 1338 for thing", ""}};
    const std::u16string thing = u"thing";
    const UNICODE_STRING name = counted(thing);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.before);
        beginWatching();
        faults = {row.fault};
        Image image = parse(row.before);
        int touched = 0;
        EXPECT_EQ(sidReplaceInSDInternal(image.data(), oldSid.data(), newSid.data(), 24, &name, row.exact,
                                         &touched),
                  static_cast<DWORD>(row.fault.code));
        EXPECT_EQ(image, parse(row.after));
        EXPECT_EQ(touched, row.before != row.after ? 1 : 0);
        EXPECT_EQ(shortened(legend), row.told);
    }
}

} /* namespace */
} /* namespace offline */
