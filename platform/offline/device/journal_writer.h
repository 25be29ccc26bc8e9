/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Writes a journal, piece by piece, in a bounded memory. */
#ifndef QUILLET_OFFLINE_DEVICE_JOURNAL_WRITER_H
#define QUILLET_OFFLINE_DEVICE_JOURNAL_WRITER_H

#include "platform/offline/device/compression.h"
#include "platform/offline/device/journal_files.h"
#include "platform/offline/device/journal_format.h"

namespace offline {

/* A stretch of a disk: what it holds, and what will replace it. */
struct ChangedStretch {
    size_t disk = 0;
    uint64_t offset = 0; /* a unit's beginning */
    bool marked = false;
    bool hole = false; /* it holds zeros, and nothing is stored for them */
    Bytes before, after;
};

/* Nothing here fails at once: the first error is remembered, and for want of room what follows is still
 * counted, so that it can be said how much is needed. May throw std::bad_alloc. */
struct JournalWriter {
    /* Creates the file. */
    void begin(JournalFiles& files, const std::string& path, const JournalHead& head);

    /* 1 MiB at most; in the order of the format. */
    void add(const ChangedStretch& stretch);

    /* Everything but the closing record is on the medium. */
    void endPieces();

    /* So is the closing record. */
    void close();

    bool begun = false;
    bool created = false; /* the file is ours */
    int error = 0;
    uint64_t length = 0;               /* bytes of the file so far, or that it would have */
    uint64_t stretches = 0, bytes = 0; /* of the disks */

    /* The file's length with its closing record, when the pieces have been ended. */
    uint64_t fullLength() const { return journal::roundUp(length, journal::tornAt) + journal::closing::size; }

private:
    JournalFile file;
    std::array<uint8_t, 16> id = {};
    RunningChecksum sum;
    size_t disk = 0; /* of the piece in hand */
    bool marked = false;
    uint32_t inPiece = 0;
    ByteVector table, sums, images, whole;
    Packer packer;

    void append(Bytes more);
    void addSums(Bytes after);
    void endPiece();
};

} /* namespace offline */

#endif
