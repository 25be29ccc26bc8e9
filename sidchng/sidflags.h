/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The sid flag word: what a run replaces, and how. The tool makes it, both sides of the engine obey it. */
#ifndef QUILLET_SIDCHNG_SIDFLAGS_H
#define QUILLET_SIDCHNG_SIDFLAGS_H

#include <cstdint>

enum : uint32_t {
    SID_REPLACE_NAMES = 0x1,  /* names of the keys below the start key */
    SID_REPLACE_VALUES = 0x2, /* data of values */
    SID_REPLACE_SD = 0x4,     /* descriptors of keys and files */
    SID_OPTIONAL = 0x10,      /* a missing start is success */
    SID_EXACT = 0x100,        /* the old SID only, none that begins with it */
    SID_RECURSIVE = 0x1000,   /* all that lies below */
    SID_SIMULATE = 0x10000    /* log at INFO instead of writing */
};

#endif
