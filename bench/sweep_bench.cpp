/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Keys a second of sidReplaceInKey over one hive (QUILLET_BENCH_HIVE), mounted as on a system: a dry run that
 * finds nothing, the steady state of the sweeps. */
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

#include "common/privilege.h"
#include "platform/offline/base/session.h"
#include "platform/offline/hive/hive.h"
#include "platform/offline/registry/registry.h"
#include "platform/offline/security/security.h"
#include "regtk/regtk.h"
#include "sidchng/sid.h"
#include "sidchng/sidchng.h"

namespace {

offline::Session session;

const uint8_t oldSid[SID_MACHINE_SIZE] = {1, 4, 0, 0, 0, 0, 0, 5, 21, 0, 0, 0,
                                          1, 1, 1, 1, 2, 2, 2, 2, 3,  3, 3, 3};
const uint8_t newSid[SID_MACHINE_SIZE] = {1, 4, 0, 0, 0, 0, 0, 5, 21, 0, 0, 0,
                                          4, 4, 4, 4, 5, 5, 5, 5, 6,  6, 6, 6};

bool mountHive() {
    const char* path = getenv("QUILLET_BENCH_HIVE");
    FILE* file = path == nullptr ? nullptr : fopen(path, "rb");
    if (file == nullptr) return false;
    std::vector<uint8_t> bytes(size_t{64} << 20);
    bytes.resize(fread(bytes.data(), 1, bytes.size(), file));
    fclose(file);
    offline::HivePtr hive;
    offline::Problem problem;
    return offline::hiveOpen(std::move(bytes), hive, problem) >= 0 &&
           offline::registryMount(u"\\Registry\\Machine\\BENCH", std::move(hive), nullptr) >= 0;
}

uint32_t countKey(HANDLE, const UNICODE_STRING*, const KEY_NODE_INFORMATION*, uint64_t, uint64_t*, void* data,
                  int32_t, uint32_t) {
    ++*static_cast<int64_t*>(data);
    return SCAN_DESCEND;
}

void replaceInKey(benchmark::State& state) {
    static const bool mounted = mountHive();
    HANDLE key = nullptr;
    DWORD error = 0;
    ombraEnablePrivilege(u"SeSecurityPrivilege");
    constexpr ACCESS_MASK access = ACCESS_SYSTEM_SECURITY | WRITE_OWNER | WRITE_DAC | KEY_READ | KEY_WRITE;
    if (!mounted || !regOpenKey(HKEY_LOCAL_MACHINE, u"BENCH", access, 0, &key, &error)) {
        state.SkipWithError("QUILLET_BENCH_HIVE names no hive file");
        return;
    }
    int64_t keys = 1;
    regScan(key, countKey, 0, &keys, REG_SCAN_LIGHT);
    const uint32_t flags = static_cast<uint32_t>(state.range(0));
    for (auto step : state) {
        benchmark::DoNotOptimize(
            sidReplaceInKey(key, flags, nullptr, oldSid, sizeof oldSid, newSid, sizeof newSid));
    }
    state.SetItemsProcessed(state.iterations() * keys);
    ZwClose(key);
}

BENCHMARK(replaceInKey)
    ->ArgName("flags")
    ->Arg(SID_RECURSIVE | SID_SIMULATE | SID_REPLACE_SD)
    ->Arg(SID_RECURSIVE | SID_SIMULATE | SID_REPLACE_SD | SID_REPLACE_VALUES | SID_REPLACE_NAMES);

} /* namespace */
