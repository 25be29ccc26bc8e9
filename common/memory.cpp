/* SPDX-License-Identifier: GPL-2.0-or-later */
#define OMBRA_UNIT "common/memory"
#include "common/memory.h"

#include <cstdlib>

#include "common/log.h"

void* ombraMalloc(size_t size) {
    void* block = malloc(size);
    if (block == nullptr) OMBRA_LOG(OMBRA_ERROR, "failed to allocate %Id bytes", size);
    return block;
}

void* ombraRealloc(void* block, size_t size) {
    if (size == 0) {  // what realloc makes of a size of 0 differs from one C library to the next
        free(block);
        return nullptr;
    }
    void* resized = realloc(block, size);
    if (resized == nullptr) {
        OMBRA_LOG(OMBRA_ERROR, "failed to realloc %p to %Id bytes", block, size);
        free(block);
    }
    return resized;
}

void ombraFree(void* block) {
    free(block);
}

int memBufInit(memBuf* buffer, uint32_t size) {
    buffer->data = nullptr;
    buffer->size = 0;
    return size == 0 ? 1 : memBufResize(buffer, size);
}

int memBufResize(memBuf* buffer, uint32_t size) {
    buffer->size = size;
    buffer->data = static_cast<uint8_t*>(ombraRealloc(buffer->data, size));
    if (buffer->data != nullptr) return 1;
    buffer->size = 0;
    return 0;
}

void memBufFree(memBuf* buffer) {
    ombraFree(buffer->data);
    buffer->data = nullptr;
    buffer->size = 0;
}
