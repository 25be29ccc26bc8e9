#include <cstring>

#include "common/log.h"
#include "tests/engine/scripted.h"

using Memory = Scripted;

TEST_F(Memory, BufferHasExactlyTheSizeAskedForAndKeepsItsContents) {
    memBuf buffer = {reinterpret_cast<uint8_t*>(1), 99};
    allocationsLeft = 0;
    EXPECT_EQ(memBufInit(&buffer, 0), 1);
    EXPECT_EQ(buffer.data, nullptr);
    EXPECT_EQ(buffer.size, 0u);
    allocationsLeft = -1;

    ASSERT_EQ(memBufResize(&buffer, 4), 1);
    memcpy(buffer.data, "abcd", 4);
    ASSERT_EQ(memBufResize(&buffer, 5000), 1);
    EXPECT_EQ(buffer.size, 5000u);
    EXPECT_EQ(memcmp(buffer.data, "abcd", 4), 0);
    memset(buffer.data + 4, 1, 4996);
    ASSERT_EQ(memBufResize(&buffer, 3), 1);
    EXPECT_EQ(buffer.size, 3u);
    EXPECT_EQ(memcmp(buffer.data, "abc", 3), 0);

    EXPECT_EQ(memBufResize(&buffer, 0), 0);
    EXPECT_EQ(buffer.data, nullptr);
    EXPECT_EQ(buffer.size, 0u);
    EXPECT_EQ(ombraRealloc(nullptr, 0), nullptr);
    EXPECT_EQ(events, Events{});

    ASSERT_EQ(memBufInit(&buffer, 7), 1);
    EXPECT_EQ(buffer.size, 7u);
    memBufFree(&buffer);
    memBufFree(&buffer);
    EXPECT_EQ(buffer.data, nullptr);
    EXPECT_EQ(buffer.size, 0u);
}

/* That the old block is freed is the leak checker's to see. */
TEST_F(Memory, FailuresAreReportedOnceAndLeaveAnEmptyBuffer) {
    for (const bool logged : {true, false}) {
        if (!logged) ombraSetLogger(nullptr);
        events.clear();
        memBuf buffer = {};
        ASSERT_EQ(memBufInit(&buffer, 16), 1);
        const std::string block = text("%p", buffer.data);
        allocationsLeft = 0;
        EXPECT_EQ(ombraMalloc(0x123456789), nullptr);
        EXPECT_EQ(memBufResize(&buffer, 0xFFFFFFFF), 0);
        EXPECT_EQ(buffer.data, nullptr);
        EXPECT_EQ(buffer.size, 0u);
        EXPECT_EQ(memBufInit(&buffer, 512), 0);
        EXPECT_EQ(buffer.size, 0u);
        memBufFree(&buffer);
        allocationsLeft = -1;
        const Events lines = {"ERROR ombraMalloc: failed to allocate 4886718345 bytes",
                              "ERROR ombraRealloc: failed to realloc " + block + " to 4294967295 bytes",
                              "ERROR ombraRealloc: failed to realloc 0x0 to 512 bytes"};
        EXPECT_EQ(events, logged ? lines : Events{});
    }
}
