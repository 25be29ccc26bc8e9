/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Heap memory that reports its failures, and a byte buffer that grows to whatever a platform call asks for.
 */
#ifndef QUILLET_COMMON_MEMORY_H
#define QUILLET_COMMON_MEMORY_H

#include <cstddef>
#include <cstdint>

/* A growable byte buffer with one owner, who frees it. data is null exactly when size is 0; a pointer into it
 * is good until the next resize. Filled with zeros it is a valid empty buffer. */
struct memBuf {
    uint8_t* data;
    uint32_t size; /* bytes of the whole block; how much of it holds data is the owner's business */
};

/* A new block of size bytes, to be freed with ombraFree; null and an ERROR line when there is no memory. */
void* ombraMalloc(size_t size);

/* Resizes a block (null: makes one). Size 0 frees it and gives null without a word. On failure: an ERROR
 * line, the old block is freed, null. */
void* ombraRealloc(void* block, size_t size);

void ombraFree(void* block);

/* Makes an empty buffer, or one of size bytes. 1, or 0 when there is no memory; the buffer is then empty. */
int memBufInit(memBuf* buffer, uint32_t size);

/* Grows or shrinks to exactly size bytes; what fits of the contents stays. 1, or 0 with the buffer empty and
 * its contents lost when there is no memory, and when size is 0. */
int memBufResize(memBuf* buffer, uint32_t size);

/* Frees the block and leaves an empty buffer. */
void memBufFree(memBuf* buffer);

#endif
