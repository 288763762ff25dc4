// The cards before and after an act.
#include "tests/walk/cards_world.h"

#include "simcard/ctl/control.h"
#include "tests/support/wait_until.h"

#include <string>

namespace kestra::walk {

using namespace kestra::simcard;

void CardsWorld::beginCards(const Act& act, size_t signals) {
    m_calm = act.calm;
    m_alone = act.threads == 1;
    m_cardsAnswer = true;
    for (uint32_t card = 0; card < kCards; ++card) {
        const CardControl control(card);
        control.reset();
        control.setSignal(kSignals[(act.seed + card) % signals]);
        Options options = kDefaultOptions;
        if (act.seed / 2 % 2 == card) options.pace = Pace::AsTaken;
        control.setOptions(options);
    }
    m_notices.await();
}

void CardsWorld::awaitClosedCards() {
    nowIn("cards still open");
    for (uint32_t card = 0; card < kCards; ++card) {
        const CardControl control(card);
        CardState state{};
        if (!test::waitUntil(
                [&] {
                    state = control.state();
                    return state.clients == 0 && state.pendingRequests == 0;
                },
                std::chrono::seconds(20)))
            fail("open", "card " + std::to_string(card) + " has still " + std::to_string(state.clients) +
                             " clients and " + std::to_string(state.pendingRequests) + " requests");
    }
}

void CardsWorld::rescue() {
    ++m_rescues;
    letCardsAnswer();
}

} // namespace kestra::walk
