// Controls the simulated cards from a program: install, plug, signal, faults, counters, log. Any thread may
// use a Control; a CardControl is a number and a reference to it.
#pragma once

#include "simcard/model/control_wire.h"

#include <stdexcept>
#include <string>
#include <vector>

namespace kestra::simcard {

/// A control request failed; `error()` is the Win32 error.
class ControlError : public std::runtime_error {
public:
    ControlError(const std::string& what, uint32_t error);
    uint32_t error() const noexcept { return m_error; }

private:
    uint32_t m_error;
};

/// Installs `count` cards (1..kMaxCards), after removing what was installed, unless a program uses it. Waits for the
/// service manager (simcard/ctl/services.h).
/// @param infPath kestrasim.inf, with kestrasim.sys beside it.
void installCards(unsigned count, const std::wstring& infPath);
/// Removes every card. No card is no error; one that a program uses is. @return how many there were.
unsigned removeCards();

/// One card, through the driver's control device; works while the card is unplugged. Throws ControlError.
class CardControl {
public:
    explicit CardControl(uint32_t card = 0) : m_card(card) {}
    uint32_t number() const noexcept { return m_card; }

    CardState state() const;
    std::wstring devicePath() const;
    void plug() const;
    void unplug() const;
    void setSignal(const Signal& signal) const;
    void setOptions(const Options& options) const;
    void addFault(const Fault& fault) const;
    void clearFaults() const;
    /// The requests received since the log was cleared, oldest first; the card keeps the last 2048.
    std::vector<LogEntry> log(uint64_t firstSequence = 0) const;
    void clearLog() const;
    /// The last frames that it wrote into clients' memory, oldest first.
    std::vector<WrittenFrame> writes() const;
    /// Answers as the script says (replay_script.h); an empty one ends that.
    void setReplay(const std::vector<uint8_t>& script) const;
    ReplayReport replayReport() const;
    /// Plugged, default signal, options and converter, no faults, empty log.
    void reset() const;

    // The common faults by name: the next `count` requests of `code`, after `skip` of them.
    void failNext(uint32_t code, uint32_t ntStatus, uint32_t count = 1, uint32_t skip = 0) const;
    void refuseNext(uint32_t code, uint32_t driverResult, uint32_t count = 1, uint32_t skip = 0) const;
    void dmaStatusNext(uint32_t port, uint32_t dmaStatus, uint32_t count = 1, uint32_t skip = 0) const;

private:
    uint32_t m_card;
};

/// Numbers of the installed cards.
std::vector<uint32_t> installedCards();

} // namespace kestra::simcard
