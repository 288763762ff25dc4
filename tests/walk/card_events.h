// What befalls the cards of a walk, from a step's numbers. Any thread.
#pragma once

#include "simcard/ctl/control.h"
#include "tests/walk/walk.h"

#include <cstdint>
#include <vector>

namespace kestra::walk {

/// One of kSignals, now and then one that is settling, with other sound, or none.
simcard::Signal anySignal(uint32_t b);
/// Any fault that the card knows. Throws simcard::ControlError if the card has as many as it can have.
void addAnyFault(const simcard::CardControl& card, uint32_t a, uint32_t b);
simcard::Options anyOptions(uint32_t b);

/// Steps that befall a card: the last rows of a world's calls.
const std::vector<Call>& cardCalls();
/// The calls of a world: its own, then the cards'.
std::vector<Call> withCardCalls(std::vector<Call> own);
/// @param which  row of cardCalls() @return 0, or kNotMade
uint32_t cardStep(size_t which, uint32_t a, uint32_t b);
/// Whether calls may take long after such a row's step.
bool mayHoldAnswers(size_t which);
/// What hangs at a card hangs no longer.
void letCardsAnswer();
constexpr uint32_t kCards = 2;

} // namespace kestra::walk
