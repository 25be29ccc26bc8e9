/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Where the SIDs of a machine stand in an installation. Reads its volumes and hives; writes nothing. */
#ifndef QUILLET_COMPANION_AUDIT_H
#define QUILLET_COMPANION_AUDIT_H

#include <array>
#include <cstdint>
#include <functional>
#include <string>

#include "companion/audit/audit_match.h"
#include "companion/audit/other_sids.h"
#include "companion/opened.h"

namespace companion {

enum class Kind { file, keyDescriptor, keyName, value };
constexpr size_t kindCount = 4;

/* A place that holds a SID. One that is treated and also holds what is left is reported twice. Texts are
 * UTF-8.
 */
struct Finding {
    Kind kind;
    std::optional<Left> left = {}; /* none: it is treated */
    std::string path;              /* of a file: "C:\Users"; of a key: its hive, ": ", "\Key\Subkey" */
    std::string value = {};        /* the name of the value */
};

struct Audit {
    Wanted wanted;
    std::optional<Wanted> current = {};             /* the machine's SID, where that is another one by now */
    std::function<void(const Finding&)> found = {}; /* called with each; may be empty */
    std::array<uint64_t, kindCount> treated = {}, left = {};
    std::array<uint64_t, kindCount> changed = {}; /* hold the current one where the wanted would be treated */
    std::array<uint64_t, leftCount> reasons = {};
    OtherSids others = {}; /* of machines and domains: neither the wanted nor the current */
    Problems problems = {};
};

/* Looks at every volume and every hive of an installation that was read, as they are now. */
void auditInstallation(const Opened& opened, Audit& audit);

} /* namespace companion */

#endif
