#include "platform/offline/device/journal_writer.h"

#include <algorithm>

#include "platform/offline/device/compression.h"
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

void JournalWriter::add(const ChangedStretch& stretch) {
    const size_t sectors = sectorsOf(stretch.before.size());
    const size_t more =
        stretch::size + sectors * sizeof(uint64_t) + (stretch.hole ? 0 : stretch.before.size());
    const bool other = stretch.disk != disk || stretch.marked != marked;
    if (other || table.size() + sums.size() + images.size() + more > piece::maxPlain) endPiece();
    disk = stretch.disk;
    marked = stretch.marked;
    offline::append(table, stretch.offset);
    offline::append(table, static_cast<uint32_t>(stretch.before.size()));
    offline::append(table, stretch.hole ? stretch::hole : 0u);
    for (size_t at = 0; at < stretch.after.size(); at += tornAt) {
        offline::append(
            sums, checksum(stretch.after.subspan(at, std::min(stretch.after.size() - at, size_t{tornAt}))));
    }
    if (!stretch.hole) offline::append(images, stretch.before);
    ++inPiece;
    ++stretches;
    bytes += stretch.before.size();
}

void JournalWriter::endPiece() {
    if (inPiece == 0) return;
    offline::append(table, Bytes(sums));
    offline::append(table, Bytes(images));
    const bool pays = compressed(table, packed);
    const ByteVector& stored = pays ? packed : table;
    whole.assign(piece::size, 0);
    put(whole, 0, pieceMagic);
    put(whole, piece::disk, static_cast<uint32_t>(disk));
    put(whole, piece::flags, (marked ? piece::marked : 0u) | (pays ? piece::compressed : 0u));
    put(whole, piece::stretches, inPiece);
    put(whole, piece::plain, static_cast<uint32_t>(table.size()));
    put(whole, piece::stored, static_cast<uint32_t>(stored.size()));
    offline::append(whole, Bytes(stored));
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
