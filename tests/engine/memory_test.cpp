#include "common/memory.h"

#include <cstring>

#include "common/log.h"
#include "tests/engine/scripted.h"

using Memory = Scripted;

/* That the old block is freed is the leak checker's to see. */
TEST_F(Memory, BuffersGrowShrinkAndFail) {
    memBuf buffer = {};
    ASSERT_EQ(memBufResize(&buffer, 4), 1);
    memcpy(buffer.data, "abcd", 4);
    ASSERT_TRUE(memBufResize(&buffer, 5000) == 1 && buffer.size == 5000 &&
                memcmp(buffer.data, "abcd", 4) == 0);
    ASSERT_TRUE(memBufResize(&buffer, 3) == 1 && buffer.size == 3 && memcmp(buffer.data, "abc", 3) == 0);
    EXPECT_TRUE(memBufResize(&buffer, 0) == 0 && buffer.data == nullptr && buffer.size == 0);
    EXPECT_EQ(events, Events{});

    for (const bool logged : {true, false}) {
        if (!logged) ombraSetLogger(nullptr);
        ASSERT_EQ(memBufInit(&buffer, 16), 1);
        const std::string block = text("%p", buffer.data);
        allocationsLeft = 0;
        events.clear();
        EXPECT_EQ(ombraMalloc(0x123456789), nullptr);
        EXPECT_TRUE(memBufResize(&buffer, 0xFFFFFFFF) == 0 && buffer.data == nullptr && buffer.size == 0);
        EXPECT_TRUE(memBufInit(&buffer, 512) == 0 && buffer.size == 0);
        memBufFree(&buffer);
        allocationsLeft = -1;
        const Events lines = {"ERROR ombraMalloc: failed to allocate 4886718345 bytes",
                              "ERROR ombraRealloc: failed to realloc " + block + " to 4294967295 bytes",
                              "ERROR ombraRealloc: failed to realloc 0x0 to 512 bytes"};
        EXPECT_EQ(events, logged ? lines : Events{});
    }
}
