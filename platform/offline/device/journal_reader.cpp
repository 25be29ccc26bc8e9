/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/device/journal_reader.h"

#include <algorithm>
#include <cerrno>

#include "platform/offline/device/compression.h"
#include "platform/offline/device/device_error.h"

namespace offline {

using namespace journal;

namespace {

/* Whether a checksum in the bytes is that of them with zero in its place. */
bool sumFits(ByteVector& bytes, size_t at) {
    const auto sum = numberAt<uint64_t>(bytes, at);
    put(bytes, at, uint64_t{0});
    const bool fits = checksum(bytes) == sum;
    put(bytes, at, sum);
    return fits;
}

bool hasMagic(Bytes bytes, std::string_view magic) {
    return std::equal(magic.begin(), magic.end(), bytes.begin());
}

/* Takes pieces off the front of bytes; what is not there any more is empty, and noted. */
struct Cursor {
    Bytes left;
    bool inside = true;

    Bytes take(uint64_t count) {
        inside = inside && count <= left.size();
        if (!inside) return {};
        const Bytes taken = left.first(static_cast<size_t>(count));
        left = left.subspan(taken.size());
        return taken;
    }
    template <class Number>
    Number number() {
        const Bytes taken = take(sizeof(Number));
        return inside ? loadNumber<Number>(taken.data()) : Number{};
    }
};

bool takePath(Cursor& cursor, uint64_t length, std::string& path) {
    const Bytes text = cursor.take(length);
    path.assign(text.begin(), text.end());
    return path.starts_with('/') && path.find('\0') == std::string::npos;
}

} /* namespace */

/* ---- Head and closing record ---- */

JournalState JournalReader::open(JournalFiles& files, const std::string& filePath) {
    path = filePath;
    headWhole = false;
    head = {};
    error = file.open(files, path);
    if (error == ENOENT || error == ENOTDIR) return JournalState::none;
    if (error != 0) return JournalState::unreadable;
    const JournalState state = readHead();
    if (state == JournalState::otherVersion || state == JournalState::unreadable) return state;
    if (headWhole && head.kind == JournalKind::pointer) return JournalState::pointer;
    return readClosing();
}

/* A head that is not whole is found out by its closing record's absence or presence. */
JournalState JournalReader::readHead() {
    ByteVector read(head::size);
    if (file.size < head::size) return JournalState::unfinished;
    if ((error = file.read(0, read)) != 0) return JournalState::unreadable;
    if (!hasMagic(read, headMagic)) return JournalState::unfinished;
    if (numberAt<uint32_t>(read, head::version) != version) return JournalState::otherVersion;
    const auto kind = numberAt<JournalKind>(read, head::kind);
    const auto length = numberAt<uint32_t>(read, head::bodyLength);
    head.id = numberAt<decltype(head.id)>(read, head::id);
    head.time = numberAt<uint64_t>(read, head::time);
    head.kind = kind;
    if (length > head::maxBody || length > file.size - head::size) return JournalState::unfinished;
    read.resize(head::size + length);
    if ((error = file.read(head::size, std::span(read).subspan(head::size))) != 0) {
        return JournalState::unreadable;
    }
    bodyEnd = read.size();
    headWhole =
        (kind == JournalKind::journal || kind == JournalKind::pointer) && sumFits(read, head::sum) &&
        parseBody(Bytes(read).subspan(head::size), numberAt<uint32_t>(read, head::disks),
                  numberAt<uint32_t>(read, head::marks), numberAt<uint32_t>(read, head::undoFileLength));
    return JournalState::whole;
}

bool JournalReader::parseBody(Bytes body, uint32_t disks, uint32_t marks, uint32_t undoFileLength) {
    Cursor cursor{body};
    for (uint32_t count = 0; count < disks && cursor.inside; ++count) {
        JournalDisk disk;
        disk.size = cursor.number<uint64_t>();
        disk.identity = cursor.number<Digest>();
        if (!takePath(cursor, cursor.number<uint32_t>(), disk.path)) return false;
        if (disk.size > INT64_MAX) return false;
        head.disks.push_back(std::move(disk));
    }
    for (uint32_t count = 0; count < marks && cursor.inside; ++count) {
        DirtyMark mark;
        mark.disk = cursor.number<uint32_t>();
        const auto length = cursor.number<uint32_t>();
        mark.offset = cursor.number<uint64_t>();
        const Bytes contents = cursor.take(length);
        if (!cursor.inside || length == 0 || length % tornAt != 0 || mark.offset % tornAt != 0) return false;
        if (mark.disk >= head.disks.size()) return false;
        const uint64_t size = head.disks[mark.disk].size;
        if (length > size || mark.offset > size - length || mark.offset < identityBytes) return false;
        mark.bytes.assign(contents.begin(), contents.end());
        head.marks.push_back(std::move(mark));
    }
    if (undoFileLength != 0 && !takePath(cursor, undoFileLength, head.undoFile)) return false;
    if (!cursor.inside || !cursor.left.empty() || head.disks.empty()) return false;
    ranges = markedRanges(head);
    return true;
}

/* The closing record is one sector at the end: after a power cut it is there whole or not at all, and what
 * bears traces of one has been damaged since. */
JournalState JournalReader::readClosing() {
    if (file.size < closing::size || file.size % tornAt != 0) return JournalState::unfinished;
    ByteVector record(closing::size);
    if ((error = file.read(file.size - record.size(), record)) != 0) return JournalState::unreadable;
    const bool sameId = headWhole && numberAt<decltype(head.id)>(record, closing::id) == head.id;
    if (!hasMagic(record, closingMagic) && !sameId) return JournalState::unfinished;
    record.resize(closing::used);
    piecesEnd = numberAt<uint64_t>(record, closing::length);
    stretches = numberAt<uint64_t>(record, closing::stretches);
    bytes = numberAt<uint64_t>(record, closing::bytes);
    sumOfAll = numberAt<uint64_t>(record, closing::sumOfAll);
    const bool fits = sumFits(record, closing::sum) && hasMagic(record, closingMagic) && sameId &&
                      piecesEnd >= bodyEnd && piecesEnd <= file.size - closing::size &&
                      roundUp(piecesEnd, tornAt) == file.size - closing::size;
    return fits ? JournalState::whole : JournalState::damaged;
}

/* ---- Pieces ---- */

/* Where a pass has got to. */
struct JournalReader::Progress {
    uint64_t at = 0;
    JournalImages images = JournalImages::unpacked;
    bool unmarked = false; /* past the marked pieces */
    size_t disk = 0;
    uint64_t end = 0; /* of the stretch before */
    uint64_t stretches = 0, bytes = 0, markedBytes = 0;
    RunningChecksum sum;
};

/* The next piece, its lengths and its checksum compared; EBADMSG when it is not as it was written. */
int JournalReader::readPiece(Progress& progress) {
    const uint64_t left = piecesEnd - progress.at;
    if (left < piece::size) return EBADMSG;
    stored.resize(piece::size);
    if (const int refused = file.read(progress.at, stored)) return refused;
    const auto table = numberAt<uint32_t>(stored, piece::table);
    const auto images = numberAt<uint32_t>(stored, piece::images);
    const auto storedImages = numberAt<uint32_t>(stored, piece::stored);
    const bool packed = (numberAt<uint32_t>(stored, piece::flags) & piece::compressed) != 0;
    if (numberAt<uint32_t>(stored, 0) != pieceMagic || table > piece::maxTable) return EBADMSG;
    if (images > piece::maxStretch || (packed ? storedImages > images : storedImages != images))
        return EBADMSG;
    if (left - piece::size < uint64_t{table} + storedImages) return EBADMSG;
    stored.resize(piece::size + table + storedImages);
    const int refused = file.read(progress.at + piece::size, std::span(stored).subspan(piece::size));
    if (refused != 0) return refused;
    if (!sumFits(stored, piece::sum)) return EBADMSG;
    progress.sum.add(stored);
    progress.at += stored.size();
    return 0;
}

/* The images of the piece in hand. */
bool JournalReader::unpackImages() {
    const size_t length = numberAt<uint32_t>(stored, piece::images);
    const Bytes images = Bytes(stored).subspan(piece::size + numberAt<uint32_t>(stored, piece::table));
    plain.resize(std::max(plain.size(), length));
    if ((numberAt<uint32_t>(stored, piece::flags) & piece::compressed) != 0) {
        return unpacker.unpack(images, std::span(plain).first(length));
    }
    std::copy(images.begin(), images.end(), plain.begin());
    return true;
}

/* Whether it lies on its disk, behind the one before, in the class where it belongs. */
bool JournalReader::stretchFits(const JournalStretch& stretch, Progress& progress) const {
    const uint64_t size = head.disks[stretch.disk].size;
    if (stretch.length == 0 || stretch.length > piece::maxStretch || stretch.offset % tornAt != 0)
        return false;
    if (stretch.length > size || stretch.offset > size - stretch.length) return false;
    const uint64_t end = stretch.offset + stretch.length;
    if (stretch.length % tornAt != 0 && end != size) return false;
    if (stretch.offset < identityBytes || stretch.offset < progress.end) return false;
    const MarkedRange* const range = markedIn(ranges, stretch.disk, stretch.offset, end);
    if (stretch.marked != (range != nullptr)) return false;
    if (range != nullptr && (stretch.offset < range->start || end > range->end)) return false;
    progress.end = end;
    progress.bytes += stretch.length;
    if (stretch.marked) progress.markedBytes += stretch.length;
    ++progress.stretches;
    return true;
}

/* Checks the piece's stretches, and hands them out when there is a function. */
bool JournalReader::parsePiece(Progress& progress, const ForStretch* function, NTSTATUS& status) {
    JournalStretch stretch;
    stretch.disk = numberAt<uint32_t>(stored, piece::disk);
    stretch.marked = (numberAt<uint32_t>(stored, piece::flags) & piece::marked) != 0;
    const bool otherClass = progress.unmarked == stretch.marked;
    if (otherClass && stretch.marked) return false;
    if (stretch.disk >= head.disks.size()) return false;
    if (otherClass || stretch.disk != progress.disk) {
        if (!otherClass && stretch.disk < progress.disk) return false;
        progress.end = 0;
    }
    progress.unmarked = !stretch.marked;
    progress.disk = stretch.disk;

    const bool unpacked = function != nullptr && progress.images == JournalImages::unpacked;
    if (unpacked && !unpackImages()) return false;
    const uint64_t count = numberAt<uint32_t>(stored, piece::stretches);
    Cursor sums{Bytes(stored).subspan(piece::size, numberAt<uint32_t>(stored, piece::table))};
    Cursor rows{sums.take(count * stretch::size)};
    uint64_t images = 0; /* bytes of them that were handed out */
    const uint64_t allImages = numberAt<uint32_t>(stored, piece::images);
    for (uint64_t row = 0; row < count && sums.inside; ++row) {
        stretch.offset = rows.number<uint64_t>();
        stretch.length = rows.number<uint32_t>();
        stretch.hole = (rows.number<uint32_t>() & stretch::hole) != 0;
        stretch.sums = sums.take(sectorsOf(stretch.length) * sizeof(uint64_t));
        const uint64_t image = stretch.hole ? 0 : stretch.length;
        if (!sums.inside || image > allImages - images || !stretchFits(stretch, progress)) return false;
        stretch.before = unpacked ? Bytes(plain).subspan(images, image) : Bytes();
        images += image;
        if (function != nullptr && status >= 0) status = (*function)(stretch);
    }
    return sums.inside && sums.left.empty() && images == allImages;
}

/* The marked stretches cover the marks whole, or the old bytes below one would be missing. */
bool JournalReader::totalsFit(const Progress& progress) const {
    uint64_t covered = 0;
    for (const MarkedRange& range : ranges) covered += range.end - range.start;
    return progress.sum.value() == sumOfAll && progress.stretches == stretches && progress.bytes == bytes &&
           progress.markedBytes == covered;
}

NTSTATUS JournalReader::forStretches(JournalPart part, JournalImages images, const ForStretch& function,
                                     Problem& problem) {
    Progress progress;
    progress.at = bodyEnd;
    progress.images = images;
    if (part == JournalPart::all) progress.sum.add(encodedHead(head));
    NTSTATUS status = STATUS_SUCCESS;
    bool fits = true;
    while (fits && status >= 0 && progress.at < piecesEnd) {
        const int refused = readPiece(progress);
        if (refused != 0 && refused != EBADMSG) {
            return refuse(problem, STATUS_IO_DEVICE_ERROR,
                          path + ": the journal can't be read (" + deviceErrorText(refused) + ")");
        }
        fits = refused == 0;
        if (!fits) break;
        const bool marked = (numberAt<uint32_t>(stored, piece::flags) & piece::marked) != 0;
        if (part == JournalPart::marked && !marked) return status;
        const bool wanted = part == JournalPart::all || marked == (part == JournalPart::marked);
        fits = parsePiece(progress, wanted ? &function : nullptr, status);
    }
    if (status < 0) return status;
    if (fits && part == JournalPart::all) fits = totalsFit(progress);
    if (fits) return status;
    return refuse(problem, STATUS_FILE_CORRUPT_ERROR,
                  path + ": the journal is damaged and not played back; restore the disk from a copy");
}

} /* namespace offline */
