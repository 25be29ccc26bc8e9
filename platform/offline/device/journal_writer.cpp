/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/device/journal_writer.h"

#include <algorithm>

#include "platform/offline/device/device_error.h"

namespace offline {

using namespace journal;

namespace {

template <class Number>
void append(ByteVector& bytes, Number number) {
    bytes.resize(bytes.size() + sizeof number);
    put(bytes, bytes.size() - sizeof number, number);
}

void append(ByteVector& bytes, Bytes more) {
    bytes.insert(bytes.end(), more.begin(), more.end());
}

} /* namespace */

void JournalWriter::append(Bytes more) {
    if (error == 0) error = file.write(length, more);
    length += more.size();
}

void JournalWriter::begin(JournalFiles& files, const std::string& path, const JournalHead& head) {
    begun = true;
    id = head.id;
    error = file.create(files, path);
    created = error == 0;
    const ByteVector bytesOfHead = encodedHead(head);
    sum.add(bytesOfHead);
    append(bytesOfHead);
}

void JournalWriter::addSums(Bytes after) {
    size_t at = sums.size();
    sums.resize(at + sectorsOf(after.size()) * sizeof(uint64_t));
    for (; !after.empty(); at += sizeof(uint64_t)) {
        const Bytes sector = after.first(std::min<size_t>(after.size(), tornAt));
        put(sums, at, checksum(sector));
        after = after.subspan(sector.size());
    }
}

void JournalWriter::add(const ChangedStretch& stretch) {
    const Bytes image = stretch.hole ? Bytes() : stretch.before;
    const size_t more = stretch::size + sectorsOf(stretch.before.size()) * sizeof(uint64_t);
    const bool fits = table.size() + sums.size() + more <= piece::maxTable &&
                      images.size() + image.size() <= piece::maxStretch;
    if (!fits || stretch.disk != disk || stretch.marked != marked) endPiece();
    disk = stretch.disk;
    marked = stretch.marked;
    offline::append(table, stretch.offset);
    offline::append(table, static_cast<uint32_t>(stretch.before.size()));
    offline::append(table, stretch.hole ? stretch::hole : 0u);
    addSums(stretch.after);
    offline::append(images, image);
    ++inPiece;
    ++stretches;
    bytes += stretch.before.size();
}

void JournalWriter::endPiece() {
    if (inPiece == 0) return;
    const Bytes packed = packer.packed(images);
    const Bytes stored = packed.empty() ? Bytes(images) : packed;
    whole.assign(piece::size, 0);
    put(whole, 0, pieceMagic);
    put(whole, piece::disk, static_cast<uint32_t>(disk));
    put(whole, piece::flags, (marked ? piece::marked : 0u) | (packed.empty() ? 0u : piece::compressed));
    put(whole, piece::stretches, inPiece);
    put(whole, piece::table, static_cast<uint32_t>(table.size() + sums.size()));
    put(whole, piece::images, static_cast<uint32_t>(images.size()));
    put(whole, piece::stored, static_cast<uint32_t>(stored.size()));
    offline::append(whole, Bytes(table));
    offline::append(whole, Bytes(sums));
    offline::append(whole, stored);
    put(whole, piece::sum, checksum(whole));
    sum.add(whole);
    append(whole);
    table.clear();
    sums.clear();
    images.clear();
    inPiece = 0;
}

void JournalWriter::endPieces() {
    endPiece();
    if (error == 0) error = file.flush();
}

void JournalWriter::close() {
    ByteVector record(closing::size);
    std::copy(closingMagic.begin(), closingMagic.end(), record.begin());
    put(record, closing::id, id);
    put(record, closing::length, length);
    put(record, closing::stretches, stretches);
    put(record, closing::bytes, bytes);
    put(record, closing::sumOfAll, sum.value());
    put(record, closing::sum, checksum(Bytes(record).first(closing::used)));
    append(ByteVector(roundUp(length, tornAt) - length));
    append(record);
    if (error == 0) error = file.flush();
}

} /* namespace offline */
