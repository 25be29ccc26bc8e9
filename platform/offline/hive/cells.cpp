/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/hive/cells.h"
#include "platform/offline/base/guarded.h"

#include <algorithm>
#include <bit>

namespace offline {
namespace {

using namespace regf;

uint64_t roundUp(uint64_t value, uint64_t grain) {
    return (value + grain - 1) / grain * grain;
}

uint64_t cellSize(uint64_t length) {
    return roundUp(length + cellHeader, cellGrain);
}

int32_t cellHead(const Hive& hive, Cell cell) {
    return load<int32_t>(hive.bytes.data() + pageSize + cell);
}

void setCellHead(Hive& hive, Cell cell, int32_t size) {
    memcpy(hive.bytes.data() + pageSize + cell, &size, sizeof size);
    touch(hive, cell, sizeof size);
}

uint32_t binEnd(const Hive& hive, uint32_t bin) {
    return bin + get(Bytes(hive.bytes).subspan(pageSize + bin), bin::size);
}

/* A free cell that can't be entered for want of memory stays free in the file, and is found when it is next
 * opened. */
void enterFree(Hive& hive, Cell cell, uint32_t size) {
    static_cast<void>(guarded([&] {
        hive.freeCells.emplace(size, cell);
        return STATUS_SUCCESS;
    }));
}

void makeFree(Hive& hive, Cell cell, uint32_t size) {
    setCellHead(hive, cell, static_cast<int32_t>(size));
    enterFree(hive, cell, size);
}

/* The cell that ends where this one begins, which must not be the first of its bin. */
Cell cellBefore(const Hive& hive, Cell cell) {
    size_t word = (cell - cellGrain) / 512;
    const unsigned bit = (cell - cellGrain) / cellGrain % 64;
    uint64_t bits = hive.starts.words[word] & (~uint64_t{0} >> (63 - bit));
    while (bits == 0) bits = hive.starts.words[--word];
    return static_cast<Cell>((word * 64 + 63 - static_cast<unsigned>(std::countl_zero(bits))) * cellGrain);
}

/* A new bin at the end that is one free cell, which is not entered among the free ones. */
Cell addBin(Hive& hive, uint32_t size) {
    const uint32_t offset = hive.binsSize;
    const size_t end = pageSize + offset + size;
    if (hive.bytes.size() < end) hive.bytes.resize(end);
    hive.binsSize = offset + size;
    hive.starts.words.resize(hive.binsSize / 512);
    hive.keys.words.resize(hive.binsSize / 512);
    hive.dirtyPages.resize(hive.binsSize / pageSize, 0);
    hive.pageBin.resize(hive.binsSize / pageSize, offset);

    const std::span<uint8_t> bytes(hive.bytes.data() + pageSize + offset, size);
    std::fill(bytes.begin(), bytes.end(), uint8_t{0});
    set(bytes, bin::signature, bin::magic);
    set(bytes, bin::offset, offset);
    set(bytes, bin::size, size);
    touch(hive, offset, size);
    const Cell cell = offset + bin::headerSize;
    hive.starts.set(cell);
    setCellHead(hive, cell, static_cast<int32_t>(size - bin::headerSize));
    return cell;
}

/* Allocates the head of a free cell that is not entered any more. */
Cell takeCell(Hive& hive, Cell cell, uint32_t size) {
    const uint32_t whole = static_cast<uint32_t>(cellHead(hive, cell));
    if (whole > size) {
        hive.starts.set(cell + size);
        makeFree(hive, cell + size, whole - size);
    }
    setCellHead(hive, cell, -static_cast<int32_t>(size));
    const std::span<uint8_t> data = changeCell(hive, cell);
    std::fill(data.begin(), data.end(), uint8_t{0});
    return cell;
}

Cell takeNewBin(Hive& hive, uint32_t size) {
    return takeCell(hive, addBin(hive, static_cast<uint32_t>(roundUp(size + bin::headerSize, pageSize))),
                    size);
}

template <class T>
void reserveMore(std::vector<T>& vector, size_t size) {
    if (vector.capacity() < size) vector.reserve(std::max(size, vector.capacity() + vector.capacity() / 2));
}

} /* namespace */

uint64_t growthFor(uint64_t length) {
    return roundUp(cellSize(length) + bin::headerSize, pageSize);
}

NTSTATUS makeRoom(Hive& hive, uint64_t growth) {
    if (growth > largestBins - hive.binsSize) return STATUS_INSUFFICIENT_RESOURCES;
    const size_t size = hive.binsSize + static_cast<size_t>(growth);
    reserveMore(hive.bytes, pageSize + size);
    reserveMore(hive.starts.words, size / 512);
    reserveMore(hive.keys.words, size / 512);
    reserveMore(hive.dirtyPages, size / pageSize);
    reserveMore(hive.pageBin, size / pageSize);
    return STATUS_SUCCESS;
}

Cell allocateCell(Hive& hive, size_t length) {
    const uint32_t size = static_cast<uint32_t>(cellSize(length));
    const auto found = hive.freeCells.lower_bound({size, 0});
    if (found == hive.freeCells.end()) return takeNewBin(hive, size);
    const Cell cell = found->second;
    hive.freeCells.erase(found);
    return takeCell(hive, cell, size);
}

Cell allocateSegment(Hive& hive) {
    const auto found = hive.freeCells.lower_bound({db::segmentCell, 0});
    if (found == hive.freeCells.end() || found->first != db::segmentCell)
        return takeNewBin(hive, db::segmentCell);
    const Cell cell = found->second;
    hive.freeCells.erase(found);
    return takeCell(hive, cell, db::segmentCell);
}

void releaseCell(Hive& hive, Cell cell) {
    const uint32_t bin = hive.pageBin[cell / pageSize];
    const uint32_t end = binEnd(hive, bin);
    uint32_t size = static_cast<uint32_t>(-int64_t{cellHead(hive, cell)});
    while (cell + size < end && cellHead(hive, cell + size) > 0) {
        const uint32_t next = static_cast<uint32_t>(cellHead(hive, cell + size));
        hive.freeCells.erase({next, cell + size});
        hive.starts.clear(cell + size);
        size += next;
    }
    while (cell > bin + bin::headerSize) {
        const Cell before = cellBefore(hive, cell);
        if (cellHead(hive, before) < 0) break;
        hive.freeCells.erase({static_cast<uint32_t>(cellHead(hive, before)), before});
        hive.starts.clear(cell);
        size += cell - before;
        cell = before;
    }
    makeFree(hive, cell, size);
}

void shrinkCell(Hive& hive, Cell cell, size_t length) {
    const uint32_t size = static_cast<uint32_t>(cellSize(length));
    const uint32_t whole = static_cast<uint32_t>(-int64_t{cellHead(hive, cell)});
    if (whole <= size) return;
    setCellHead(hive, cell, -static_cast<int32_t>(size));
    hive.starts.set(cell + size);
    setCellHead(hive, cell + size, -static_cast<int32_t>(whole - size));
    releaseCell(hive, cell + size);
}

void noteFreeCell(Hive& hive, Cell cell, uint32_t size) {
    hive.freeCells.emplace(size, cell);
}

} /* namespace offline */
