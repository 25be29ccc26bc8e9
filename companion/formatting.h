/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Numbers, sizes, times and statuses as text. */
#ifndef QUILLET_COMPANION_FORMATTING_H
#define QUILLET_COMPANION_FORMATTING_H

#include <chrono>
#include <cstdint>
#include <string>

#include "platform/nt.h"

namespace companion {

std::u16string decimal(uint32_t number);

/* At least this many digits, in capital hexadecimal or in decimal. */
std::u16string hexadecimal(uint32_t number, size_t digits);
std::u16string paddedDecimal(uint32_t number, size_t digits);

/* "96.0 MiB" */
std::string sizeText(uint64_t bytes);

/* In UTC, in the form that strftime takes. */
std::string timeText(std::chrono::system_clock::time_point time, const char* form);

/* A path as it is from the root; throws Failure where there is no working directory. */
std::string absolutePath(const std::string& path);

/* "status 0xC0000034", for what has no words of its own. */
std::string statusText(NTSTATUS status);

} /* namespace companion */

#endif
