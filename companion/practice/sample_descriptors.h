/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The security descriptors of a practice installation: plain ones, and many shapes that name its accounts. */
#ifndef QUILLET_COMPANION_PRACTICE_SAMPLE_DESCRIPTORS_H
#define QUILLET_COMPANION_PRACTICE_SAMPLE_DESCRIPTORS_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "companion/machine.h"

namespace companion {

using offline::ByteVector;

/* An entry of a list. who is a SID's text. */
struct Entry {
    uint8_t type;
    uint8_t flags;
    uint32_t mask;
    std::u16string who;
};

/* A self-relative descriptor to be laid out. A list that is not there is null; with its present bit in
 * control it is a null list. */
struct Shape {
    std::u16string owner, group; /* empty: none */
    uint16_t control = 0;        /* bits beside those that follow from the parts */
    std::optional<std::vector<Entry>> dacl, sacl;
    size_t freeRoom = 0;       /* bytes of the DACL after its entries */
    bool ownerIsGroup = false; /* one SID in the image serves as both */
};

ByteVector layOut(const Shape& shape);

/* The access rights that differ between keys and files. */
struct Rights {
    uint32_t full, read;
};
constexpr Rights keyRights = {0xF003F, 0x20019};
constexpr Rights fileRights = {0x1F01FF, 0x1200A9};

/* Names no account of the machine. */
ByteVector plainDescriptor(const Rights& rights);

/* Lets only the system in, as in the SAM: administrators may read the descriptor and change the list. */
ByteVector samDescriptor();

/* What belongs to an account of the machine, as below its profile. */
ByteVector profileDescriptor(const Machine& machine, uint32_t rid, const Rights& rights);

/* Of the root directory. */
ByteVector rootDescriptor(const Machine& machine);

/* The shapes that a key or file can have, every kind of entry, list and control bit among them. The last ones
 * are for keys alone: a volume does not take them. */
std::vector<Shape> oddShapes(const Machine& machine, const Rights& rights);
std::vector<Shape> oddKeyShapes(const Machine& machine);

/* count different descriptors that name accounts of the machine: first the odd shapes, then varied ones. */
std::vector<ByteVector> descriptorVariety(const Machine& machine, const Rights& rights, size_t count);

} /* namespace companion */

#endif
