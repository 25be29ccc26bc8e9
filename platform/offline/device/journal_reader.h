/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Reads a journal back. The file is hostile: here is the one place where its lengths, counts and offsets are
 * checked, and what it hands out lies inside its disks, in the order of the format. May throw
 * std::bad_alloc. */
#ifndef QUILLET_OFFLINE_DEVICE_JOURNAL_READER_H
#define QUILLET_OFFLINE_DEVICE_JOURNAL_READER_H

#include <functional>

#include "platform/offline/base/problem.h"
#include "platform/offline/device/compression.h"
#include "platform/offline/device/journal_files.h"
#include "platform/offline/device/journal_format.h"

namespace offline {

enum class JournalState {
    none,
    unfinished, /* without its closing record */
    whole,      /* head and closing record are; the pieces are checked as they are read */
    pointer,
    damaged,      /* it has or had a closing record, and is not as it was written */
    otherVersion, /* of the format */
    unreadable    /* see error */
};

struct JournalStretch {
    size_t disk = 0;
    uint64_t offset = 0;
    size_t length = 0; /* bytes, 1 MiB at most */
    bool hole = false;
    bool marked = false;
    Bytes before; /* empty for a hole, and where the images are not asked for */
    Bytes sums;   /* of each 512 bytes that will replace it */

    uint64_t sumAt(size_t sector) const { return numberAt<uint64_t>(sums, sector * sizeof(uint64_t)); }
};

enum class JournalPart { all, marked, unmarked };

/* Whether the images are unpacked too, which is most of the work; their checksums are compared in any case.
 */
enum class JournalImages { unpacked, asStored };

struct JournalReader {
    JournalState open(JournalFiles& files, const std::string& filePath);

    /* Hands the stretches of a part to the function until it fails. The part `all` is checked against the
     * closing record: a pass over it has to come first. A span lives until the function returns. */
    using ForStretch = std::function<NTSTATUS(const JournalStretch&)>;
    NTSTATUS forStretches(JournalPart part, JournalImages images, const ForStretch& function,
                          Problem& problem);

    std::string path;
    int error = 0;
    bool headWhole = false; /* also of one that is unfinished */
    JournalHead head;
    std::vector<MarkedRange> ranges; /* of its marks */
    uint64_t stretches = 0, bytes = 0;

private:
    struct Progress;

    JournalFile file;
    uint64_t bodyEnd = 0;   /* where the pieces begin */
    uint64_t piecesEnd = 0; /* and end */
    uint64_t sumOfAll = 0;
    ByteVector stored; /* the piece in hand */
    ByteVector plain;  /* its images, and room */
    Unpacker unpacker;

    JournalState readHead();
    JournalState readClosing();
    bool parseBody(Bytes body, uint32_t disks, uint32_t marks, uint32_t undoFileLength);
    int readPiece(Progress& progress);
    bool unpackImages();
    bool parsePiece(Progress& progress, const ForStretch* function, NTSTATUS& status);
    bool stretchFits(const JournalStretch& stretch, Progress& progress) const;
    bool totalsFit(const Progress& progress) const;
};

} /* namespace offline */

#endif
