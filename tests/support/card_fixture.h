// A simulated card in a known state for each test: installed, plugged, receiving 1080p60 with audio, no
// faults, log empty. Needs the CARD keyword of kestra_test, which installs the cards and keeps tests apart.
#pragma once

#include "simcard/ctl/control.h"

#include <gtest/gtest.h>

namespace kestra::test {

class CardTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_NO_THROW(m_card.reset()) << "is the simulated card installed?"; }

    /// A test may leave faults and another signal behind, but not a card that no longer answers, nor a request
    /// that nobody waits for.
    void TearDown() override {
        ASSERT_NO_THROW(m_card.reset()) << "the card is unusable after this test";
        const simcard::CardState state = m_card.state();
        EXPECT_EQ(state.plugged, 1u);
        EXPECT_EQ(state.clients, 0u) << "the test left the card open";
        EXPECT_EQ(state.pendingRequests, 0u);
    }

    simcard::CardControl m_card{0};
};

} // namespace kestra::test
