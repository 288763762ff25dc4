// What the walks have in common: two cards, in an order of their own in each act, and nothing in the log. Any thread.
#pragma once

#include "tests/support/registry_sandbox.h"
#include "tests/walk/card_events.h"
#include "tests/walk/card_pictures.h"
#include "tests/walk/plug_notices.h"
#include "tests/walk/walk.h"

#include <atomic>
#include <cstdio>

namespace kestra::walk {

class CardsWorld : public World {
public:
    void rescue() override;

protected:
    /// Plugs the cards in, with one of so many kSignals each; every second act reads one of them as fast as it
    /// delivers.
    void beginCards(const Act& act, size_t signals);
    /// Until no card has a client or a request any more; fails if that takes long.
    static void awaitClosedCards();
    /// Before each step: notes whether the cards may keep an answer from now on. @param cardRow  of cardCalls(), if it
    /// is one
    void noteStep(size_t cardRow) {
        if (mayHoldAnswers(cardRow)) m_cardsAnswer = false;
    }

    bool m_calm = false, m_alone = false;   ///< of the act
    std::atomic<bool> m_cardsAnswer{false}; ///< no fault has been planted
    std::atomic<uint64_t> m_rescues{0};
    CardPictures m_pictures{wireConverters()};
    PlugNotices m_notices;
    test::RegistrySandbox m_registry; ///< the walk logs nothing
};

/// main() of a walk over cards.
template <class Walked>
int walkOverCards(int argc, char** argv) {
    try {
        static Walked world;
        return walkMain(argc, argv, world);
    } catch (const simcard::ControlError& error) {
        std::printf("%s: are two simulated cards installed?\n", error.what());
        return kBadUsage;
    }
}

} // namespace kestra::walk
