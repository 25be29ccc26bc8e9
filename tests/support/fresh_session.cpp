/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Every test runs in a session of its own: what one leaves open or set is gone before the next begins. */
#include <gtest/gtest.h>

#include <memory>

#include "platform/offline/base/session.h"

namespace {

class FreshSession : public testing::EmptyTestEventListener {
    std::unique_ptr<offline::Session> session;

    void OnTestStart(const testing::TestInfo&) override { session = std::make_unique<offline::Session>(); }
    void OnTestEnd(const testing::TestInfo&) override { session.reset(); }
};

const bool listening = [] {
    testing::UnitTest::GetInstance()->listeners().Append(new FreshSession);
    return true;
}();

} /* namespace */
