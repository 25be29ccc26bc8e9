/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/main/call_tool.h"

#include <algorithm>

#include "platform/nt.h"
#include "platform/offline/base/unicode.h"

namespace offline {

int callTool(const std::vector<std::string>& arguments) {
    std::vector<std::u16string> texts = {u"quillet"};
    std::transform(arguments.begin(), arguments.end(), std::back_inserter(texts), toUtf16);
    std::vector<WCHAR*> pointers;
    pointers.reserve(texts.size() + 1);
    for (std::u16string& text : texts) pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return wmain(static_cast<int>(texts.size()), pointers.data(), nullptr);
}

bool quietAsked(const std::vector<std::string>& arguments) {
    return std::any_of(arguments.begin(), arguments.end(), [](const std::string& one) {
        return one.starts_with('-') && one.find('q') != one.npos;
    });
}

int exitStatusOf(int status) {
    if (status >= 0 && status <= 255) return status;
    const int low = status & 0xFF;
    return status == -1 || low == 0 ? 255 : low;
}

} /* namespace offline */
