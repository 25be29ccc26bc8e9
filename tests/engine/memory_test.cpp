#include "common/memory.h"
#include "tests/support/small_system.h"

struct Memory : offline::SmallSystem {};

/* That the old block is freed is the leak checker's to see. */
TEST_F(Memory, ABufferThatCanNotGrowIsEmpty) {
    memBuf buffer = {};
    ASSERT_TRUE(memBufInit(&buffer, 16) && memBufResize(&buffer, 0) == 0 && buffer.size == 0);
    ASSERT_TRUE(memBufInit(&buffer, 16));
    allocationsLeft = 0;
    EXPECT_EQ(ombraMalloc(0x123456789), nullptr);
    EXPECT_TRUE(memBufResize(&buffer, 0xFFFFFFFF) == 0 && buffer.data == nullptr && buffer.size == 0);
    EXPECT_TRUE(memBufInit(&buffer, 512) == 0 && buffer.size == 0);
    EXPECT_EQ(events.front(), "ERROR ombraMalloc: failed to allocate 4886718345 bytes");
    EXPECT_EQ(events.back(), "ERROR ombraRealloc: failed to realloc 0x0 to 512 bytes");
}
