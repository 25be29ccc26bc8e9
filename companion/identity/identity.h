/* SPDX-License-Identifier: GPL-2.0-or-later */
/* What else must differ between the copies of a system than the SID: the computer's name, and ids by which
 * services know a machine. Chosen by the options --computer-name and --new, changed in the registry of the
 * installation that is open, so that they are committed with the run or not at all. */
#ifndef QUILLET_COMPANION_IDENTITY_H
#define QUILLET_COMPANION_IDENTITY_H

#include <cstddef>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace companion {

enum class IdentityItem { computerName, machineGuid, wsusId, duid, telemetryId };
constexpr size_t identityItemCount = 5;

/* "computer-name"; the others as --new takes them. */
const char* nameOf(IdentityItem item);

/* ---- What is wished ---- */

struct IdentityOptions {
    std::optional<std::string> computerName, renewed; /* as the options have them; none: not given */
};

struct IdentityWish {
    std::string computerName; /* empty: it stays */
    std::set<IdentityItem> renewed;

    bool empty() const { return computerName.empty() && renewed.empty(); }
};

/* Throws Failure for what is no computer name, and for ids that --new doesn't know. */
IdentityWish identityWish(const IdentityOptions& options);

/* Throws Failure where quillet's options make no run: a dry run, help, what is none of them. */
void refuseWithoutRun(const std::vector<std::string>& quilletOptions, const IdentityWish& wish);

/* The computer names of so many clones: of a pattern with one "%d" or "%0Nd" that with the numbers from first
 * on, of one without the pattern itself. Throws Failure where one of them is no computer name, and where
 * several would have the same. */
std::vector<std::string> computerNames(const std::string& pattern, size_t first, size_t count);

/* ---- What becomes of it ---- */

/* unchanged: it had that value already; kept: as it was, for nothing was committed. */
enum class IdentityAction { replaced, removed, unchanged, notThere, kept };
const char* nameOf(IdentityAction action);

/* One value. Texts are UTF-8; data that is no text stands as hexadecimal digits. */
struct IdentityChange {
    IdentityItem item;
    IdentityAction action;
    std::string key, value;              /* the key's path below HKEY_LOCAL_MACHINE; the value's name */
    std::optional<std::string> from, to; /* none: there was or will be no such value, or nobody knows yet */
};

/* Makes the changes in the registry of the installation that is open, before the run. Throws Failure, which
 * names the value, when one can't be made: then nothing may be committed. */
std::vector<IdentityChange> changeIdentity(const IdentityWish& wish);

/* The same as a plan has them: new ids are made by the run itself, and not known before. */
void forgetNewIds(std::vector<IdentityChange>& changes);

/* The same when nothing of the run was committed. */
void keepIdentity(std::vector<IdentityChange>& changes);

/* "computer-name  KEY "VALUE": OLD -> NEW", for a person; planned: "would be removed". */
std::string changeLine(const IdentityChange& change, bool planned);

} /* namespace companion */

#endif
