/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The search for SIDs in raw data, beside the C library's own searches over the same bytes.
 * QUILLET_BENCH_HIVE may name a hive file to search as well. */
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "sidchng/sid.h"

namespace {

constexpr size_t blockSize = size_t{1} << 20;

const uint8_t oldSid[SID_MACHINE_SIZE] = {1,    4,    0,    0,    0,    0,    0,    5,
                                          21,   0,    0,    0,    0x9C, 0x21, 0x5B, 0x2B,
                                          0x1C, 0x4E, 0x9B, 0xD7, 0x50, 0x3F, 0x6C, 0x77};
const uint8_t newSid[SID_MACHINE_SIZE] = {1, 4, 0, 0, 0, 0, 0, 5, 21, 0,  0,  0,
                                          1, 2, 3, 4, 5, 6, 7, 8, 9,  10, 11, 12};

enum Content { randomBytes, zeros, realHive };

std::vector<uint8_t> makeBlock(int64_t content) {
    std::vector<uint8_t> block(blockSize);
    if (content == randomBytes) {
        std::mt19937 random(1);
        for (uint8_t& byte : block) byte = static_cast<uint8_t>(random());
    } else if (content == realHive) {
        const char* path = getenv("QUILLET_BENCH_HIVE");
        FILE* file = path == nullptr ? nullptr : fopen(path, "rb");
        block.resize(file == nullptr ? 0 : fread(block.data(), 1, block.size(), file));
        if (file != nullptr) fclose(file);
    }
    return block;
}

/* Runs one search over a block of the content that the benchmark's argument names. */
template <typename Search>
void searchBlocks(benchmark::State& state, Search search) {
    std::vector<uint8_t> block = makeBlock(state.range(0));
    if (block.empty()) {
        state.SkipWithError("QUILLET_BENCH_HIVE names no file");
        return;
    }
    for (auto step : state) benchmark::DoNotOptimize(search(block));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * block.size()));
}

void replaceInData(benchmark::State& state) {
    searchBlocks(state, [](std::vector<uint8_t>& block) {
        return sidReplaceInData(block.data(), static_cast<uint32_t>(block.size()), oldSid, newSid,
                                SID_MACHINE_SIZE, 0);
    });
}

/* Every place of the anchor byte, and nothing done there. */
void plainMemchr(benchmark::State& state) {
    searchBlocks(state, [](std::vector<uint8_t>& block) {
        const uint8_t* at = block.data();
        const uint8_t* const end = at + block.size();
        size_t found = 0;
        while ((at = static_cast<const uint8_t*>(memchr(at, oldSid[20], static_cast<size_t>(end - at)))) !=
               nullptr) {
            found++;
            at++;
        }
        return found;
    });
}

void plainMemmem(benchmark::State& state) {
    searchBlocks(state, [](std::vector<uint8_t>& block) {
        return memmem(block.data(), block.size(), oldSid + 2, SID_MACHINE_SIZE - 2);
    });
}

void contents(benchmark::internal::Benchmark* bench) {
    bench->ArgName("content")->Arg(randomBytes)->Arg(zeros)->Arg(realHive);
}

BENCHMARK(replaceInData)->Apply(contents);
BENCHMARK(plainMemchr)->Apply(contents);
BENCHMARK(plainMemmem)->Apply(contents);

} /* namespace */
