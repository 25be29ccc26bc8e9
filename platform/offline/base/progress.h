/* SPDX-License-Identifier: GPL-2.0-or-later */
/* How far the work has come: phases, one at a time, and a counter that whoever does the work bumps. Part of
 * the session; who shows it is somebody else's business (progress_line.h), and where nobody does a count
 * costs an addition and a comparison. No function throws or allocates. */
#ifndef QUILLET_OFFLINE_BASE_PROGRESS_H
#define QUILLET_OFFLINE_BASE_PROGRESS_H

#include <cstdint>

namespace offline {

/* What is being done. Its name is made of the program's own words alone: nothing that comes from a disk. */
struct ProgressPhase {
    enum class Unit { entries, bytes };

    const char* title = nullptr; /* ASCII, good for the life of the process; null: nothing is going on */
    uint64_t total = 0;          /* in units, a guess; 0: not known */
    Unit unit = Unit::entries;
    char letter = 0;     /* of the drive that it is about; 0: none */
    uint32_t number = 0; /* which one of its kind; 0: there is one */
};

/* Who shows it. Called with the phase in the session's progress. */
struct ProgressDisplay {
    virtual void begin() = 0; /* a phase has begun */
    virtual void look(
        bool atOnce) = 0;   /* it has come further; some ten times a second where the work allows it */
    virtual void end() = 0; /* it is about to end */

protected:
    ~ProgressDisplay() = default;
};

struct Progress {
    uint64_t done = 0;
    uint64_t wake = UINT64_MAX; /* of done: the clock is looked at then */
    uint64_t step = 1;          /* from one look to the next; follows the speed of the work */
    ProgressPhase phase = {};
    int64_t began = 0, looked = 0; /* as progressTime tells it */
    ProgressDisplay* display = nullptr;
};

/* Nanoseconds of a clock that only runs forwards. */
int64_t progressTime();

/* Those below are for whoever does the work, in any session or none. */

/* So many more are done. */
void progressAdd(uint64_t count = 1);

/* Ends the phase before, if there is one, and begins another. */
void progressBegin(const ProgressPhase& phase);

/* The same, for one of several of a kind: its number is one more than that of the one before. */
void progressBeginNext(ProgressPhase phase);

/* Ends the phase. */
void progressEnd();

/* Has it shown now, for work that waits. */
void progressShow();

/* A better guess of the phase's total. */
void progressTotal(uint64_t total);

/* Null when nobody sees it, so that it is not worth finding a total; else good as long as the session. */
Progress* progressSeen();

/* One more is done, for whoever counts often. */
void progressLook(Progress& progress);
inline void progressCount(Progress& progress) {
    if (++progress.done >= progress.wake) [[unlikely]]
        progressLook(progress);
}

/* Whether this is the phase's title, the very text. */
bool progressIs(const char* title);

/* Another phase within the one that is going on, which goes on after it. */
class ProgressPart {
public:
    explicit ProgressPart(const ProgressPhase& phase);
    ~ProgressPart();
    ProgressPart(const ProgressPart&) = delete;
    ProgressPart& operator=(const ProgressPart&) = delete;

private:
    ProgressPhase outer;
    uint64_t outerDone;
    int64_t outerBegan, began;
};

} /* namespace offline */

#endif
