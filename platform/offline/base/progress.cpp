/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/base/progress.h"

#include <ctime>

#include "platform/offline/base/session.h"

namespace offline {
namespace {

void start(Progress& progress, const ProgressPhase& phase, uint64_t done, int64_t began) {
    progress.phase = phase;
    progress.done = done;
    progress.step = 1;
    progress.wake = phase.title == nullptr ? UINT64_MAX : done + 1;
    progress.began = began;
    progress.looked = progressTime();
    if (phase.title != nullptr) progress.display->begin();
}

void end(Progress& progress) {
    if (progress.phase.title != nullptr) progress.display->end();
    progress.phase = {};
    progress.wake = UINT64_MAX;
}

/* Nanoseconds from one look to the next for which the step stays. */
constexpr int64_t closest = 40'000'000, farthest = 120'000'000;

} /* namespace */

void progressLook(Progress& progress) {
    const int64_t now = progressTime();
    if (now - progress.looked < closest) progress.step *= 2;
    if (now - progress.looked > farthest) progress.step = progress.step / 4 + 1;
    progress.looked = now;
    progress.wake = progress.done + progress.step;
    progress.display->look(false);
}

int64_t progressTime() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

void progressBegin(const ProgressPhase& phase) {
    Progress* const progress = progressSeen();
    if (progress == nullptr) return;
    end(*progress);
    start(*progress, phase, 0, progressTime());
}

void progressBeginNext(ProgressPhase phase) {
    const Progress* const progress = progressSeen();
    if (progress == nullptr) return;
    phase.number = progress->phase.title == phase.title ? progress->phase.number + 1 : 1;
    progressBegin(phase);
}

void progressEnd() {
    if (Progress* const progress = progressSeen()) end(*progress);
}

void progressShow() {
    Progress* const progress = progressSeen();
    if (progress != nullptr && progress->phase.title != nullptr) progress->display->look(true);
}

void progressTotal(uint64_t total) {
    if (Progress* const progress = progressSeen()) progress->phase.total = total;
}

Progress* progressSeen() {
    if (currentSession == nullptr || currentSession->progress.display == nullptr) return nullptr;
    return &currentSession->progress;
}

bool progressIs(const char* title) {
    const Progress* const progress = progressSeen();
    return progress != nullptr && progress->phase.title == title;
}

void progressAdd(uint64_t count) {
    if (currentSession == nullptr) return;
    Progress& progress = currentSession->progress;
    progress.done += count;
    if (progress.done >= progress.wake) [[unlikely]]
        progressLook(progress);
}

ProgressPart::ProgressPart(const ProgressPhase& phase) : outer(), outerDone(0), outerBegan(0), began(0) {
    Progress* const progress = progressSeen();
    if (progress == nullptr) return;
    outer = progress->phase;
    outerDone = progress->done;
    outerBegan = progress->began;
    began = progressTime();
    start(*progress, phase, 0, began);
}

/* The time that it took is not the outer one's. */
ProgressPart::~ProgressPart() {
    Progress* const progress = progressSeen();
    if (progress == nullptr) return;
    end(*progress);
    start(*progress, outer, outerDone, outerBegan + (progressTime() - began));
}

} /* namespace offline */
