/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "companion/formatting.h"

#include <array>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <iterator>

#include "companion/ending.h"

namespace companion {
namespace {

std::u16string digitsOf(uint32_t number, uint32_t base, size_t digits) {
    std::u16string text;
    for (; number != 0 || text.size() < digits; number /= base) {
        text.insert(text.begin(), u"0123456789ABCDEF"[number % base]);
    }
    return text;
}

} /* namespace */

std::u16string decimal(uint32_t number) {
    return digitsOf(number, 10, 1);
}

std::u16string hexadecimal(uint32_t number, size_t digits) {
    return digitsOf(number, 16, digits);
}

std::u16string paddedDecimal(uint32_t number, size_t digits) {
    return digitsOf(number, 10, digits);
}

std::string sizeText(uint64_t bytes) {
    static const char* const units[] = {"KiB", "MiB", "GiB", "TiB"};
    if (bytes < 1024) return std::to_string(bytes) + " bytes";
    double amount = static_cast<double>(bytes) / 1024;
    size_t unit = 0;
    for (; amount >= 1024 && unit + 1 < std::size(units); unit++) amount /= 1024;
    std::array<char, 32> text = {};
    snprintf(text.data(), text.size(), "%.1f %s", amount, units[unit]);
    return text.data();
}

std::string timeText(std::chrono::system_clock::time_point time, const char* form) {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
    std::tm parts = {};
    gmtime_r(&seconds, &parts);
    std::array<char, 40> text = {};
    return {text.data(), strftime(text.data(), text.size(), form, &parts)};
}

std::string absolutePath(const std::string& path) {
    std::error_code error;
    std::string absolute = std::filesystem::absolute(path, error);
    if (error) throw Failure{path + ": it has no place (" + error.message() + "); name its whole path"};
    return absolute;
}

std::string statusText(NTSTATUS status) {
    std::array<char, 32> text = {};
    snprintf(text.data(), text.size(), "status 0x%08X", static_cast<unsigned>(status));
    return text.data();
}

} /* namespace companion */
