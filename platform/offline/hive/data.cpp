/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/hive/data.h"

#include <algorithm>

#include "platform/offline/hive/cells.h"

namespace offline {
namespace {

using namespace regf;

Cell segmentList(const Hive& hive, Cell big) {
    return get(cellData(hive, big), db::list);
}

/* Gives big data this many segments, those that it has staying as they are. noCell stands for big data
 * without any; it has some afterwards. */
Cell resizeBig(Hive& hive, Cell big, uint32_t had, uint32_t wanted) {
    if (big == noCell) {
        big = allocateCell(hive, db::size);
        const Cell empty = allocateCell(hive, size_t{wanted} * sizeof(Cell));
        set(changeCell(hive, big), db::signature, db::magic);
        set(changeCell(hive, big), db::list, empty);
    }
    Cell list = segmentList(hive, big);
    for (uint32_t i = wanted; i < had; i++) releaseCell(hive, entryAt(cellData(hive, list), 0, i));
    if (cellData(hive, list).size() < size_t{wanted} * sizeof(Cell)) {
        const Cell longer = allocateCell(hive, size_t{wanted} * sizeof(Cell));
        memcpy(changeCell(hive, longer).data(), cellData(hive, list).data(), size_t{had} * sizeof(Cell));
        releaseCell(hive, list);
        list = longer;
        set(changeCell(hive, big), db::list, list);
    }
    for (uint32_t i = had; i < wanted; i++) {
        const Cell segment = allocateSegment(hive);
        setEntry(changeCell(hive, list), 0, i, segment);
    }
    shrinkCell(hive, list, size_t{wanted} * sizeof(Cell));
    set(changeCell(hive, big), db::count, static_cast<uint16_t>(wanted));
    return big;
}

void fillBig(Hive& hive, Cell big, Bytes data) {
    for (size_t i = 0; !data.empty(); i++) {
        const size_t length = std::min<size_t>(data.size(), db::segmentSize);
        const std::span<uint8_t> segment =
            changeCell(hive, entryAt(cellData(hive, segmentList(hive, big)), 0, i));
        std::copy_n(data.begin(), length, segment.begin());
        data = data.subspan(length);
    }
}

StoredData storeCell(Hive& hive, const StoredData& old, Bytes data) {
    StoredData stored{static_cast<uint32_t>(data.size()), old.where};
    const bool fits =
        dataForm(hive, old.size) == DataForm::cell && cellData(hive, old.where).size() >= data.size();
    if (fits) {
        shrinkCell(hive, stored.where, data.size());
    } else {
        stored.where = allocateCell(hive, data.size());
        releaseData(hive, old);
    }
    std::copy(data.begin(), data.end(), changeCell(hive, stored.where).begin());
    return stored;
}

StoredData storeBig(Hive& hive, const StoredData& old, Bytes data) {
    const uint32_t length = static_cast<uint32_t>(data.size());
    const bool wasBig = dataForm(hive, old.size) == DataForm::big;
    const Cell big =
        resizeBig(hive, wasBig ? old.where : noCell, wasBig ? segmentsOf(old.size) : 0, segmentsOf(length));
    if (!wasBig) releaseData(hive, old);
    fillBig(hive, big, data);
    return {length, big};
}

} /* namespace */

DataForm dataForm(const Hive& hive, uint32_t size) {
    if ((size & vk::inlineData) != 0) return DataForm::inlined;
    if (size == 0) return DataForm::none;
    return size > db::segmentSize && hive.minor >= db::firstMinor ? DataForm::big : DataForm::cell;
}

uint32_t dataLength(const StoredData& stored) {
    return stored.size & ~vk::inlineData;
}

uint32_t segmentsOf(uint32_t length) {
    return static_cast<uint32_t>((uint64_t{length} + db::segmentSize - 1) / db::segmentSize);
}

void readData(const Hive& hive, const StoredData& stored, std::span<uint8_t> out) {
    out = out.first(std::min<size_t>(out.size(), dataLength(stored)));
    switch (dataForm(hive, stored.size)) {
        case DataForm::none:
            break;
        case DataForm::inlined:
            std::copy_n(reinterpret_cast<const uint8_t*>(&stored.where), out.size(), out.begin());
            break;
        case DataForm::cell:
            std::copy_n(cellData(hive, stored.where).begin(), out.size(), out.begin());
            break;
        case DataForm::big: {
            const Bytes list = cellData(hive, segmentList(hive, stored.where));
            for (size_t i = 0; !out.empty(); i++) {
                const size_t length = std::min<size_t>(out.size(), db::segmentSize);
                std::copy_n(cellData(hive, entryAt(list, 0, i)).begin(), length, out.begin());
                out = out.subspan(length);
            }
            break;
        }
    }
}

uint64_t dataGrowth(const Hive& hive, size_t length) {
    const uint32_t size = static_cast<uint32_t>(length);
    if (length <= vk::longestInline) return 0;
    if (dataForm(hive, size) == DataForm::cell) return growthFor(length);
    return growthFor(db::size) + growthFor(segmentsOf(size) * sizeof(Cell)) +
           segmentsOf(size) * growthFor(db::segmentSize);
}

StoredData replaceData(Hive& hive, const StoredData& stored, Bytes data) {
    if (data.size() <= vk::longestInline) {
        StoredData inlined{static_cast<uint32_t>(data.size()) | vk::inlineData, 0};
        std::copy(data.begin(), data.end(), reinterpret_cast<uint8_t*>(&inlined.where));
        releaseData(hive, stored);
        return inlined;
    }
    const DataForm form = dataForm(hive, static_cast<uint32_t>(data.size()));
    return form == DataForm::big ? storeBig(hive, stored, data) : storeCell(hive, stored, data);
}

void releaseData(Hive& hive, const StoredData& stored) {
    const DataForm form = dataForm(hive, stored.size);
    if (form == DataForm::big) {
        const Cell list = segmentList(hive, stored.where);
        for (uint32_t i = 0; i < segmentsOf(stored.size); i++)
            releaseCell(hive, entryAt(cellData(hive, list), 0, i));
        releaseCell(hive, list);
    }
    if (form == DataForm::big || form == DataForm::cell) releaseCell(hive, stored.where);
}

} /* namespace offline */
