// A channel's life on one thread: what is asked of the card and of the grabbing threads, and in which order. A run's
// thread lives when the test says so: within its start, or at any time after it.
#include "device/channel_life.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace kestra::test {
namespace {

/// Notes each step, and answers as the test has said.
class NotingPort {
public:
    struct Run : LifeRun<Run> {
        explicit Run(std::string runName) : name(std::move(runName)) {}
        const std::string name;
    };
    using Mutex = kestra::Mutex;
    struct Patience {
        bool ends = false;
    };
    using RunPointer = std::shared_ptr<Run>;
    using Life = ChannelLife<NotingPort>;

    RunPointer makeThread(const std::string& setup) {
        note("make " + setup);
        return hasThreads ? std::make_shared<Run>(setup) : nullptr;
    }
    static std::string resumedSetup(const Run& run) { return run.name + " resumed"; }
    void release(const RunPointer& run) {
        note("release " + run->name);
        released.push_back(run);
    }
    void awaitStart(Run& run) {
        note("await start of " + run.name);
        if (livesAtOnce) live(run.name);
    }
    bool prepare(Run& run) {
        note("prepare " + run.name);
        duringPrepare();
        return prepares;
    }
    bool startCard(Run& run) {
        note("start card for " + run.name);
        return cardStarts;
    }
    uint32_t stopCard(Run* run) {
        note("stop card for " + (run ? run->name : "nobody"));
        return 77;
    }
    void started(Run& run) { note(run.name + " has started"); }
    bool awaitEarlier(Run& run, Run& earlier) {
        note(run.name + " awaits " + earlier.name);
        return earlierEnds;
    }
    Life::LoopEnd loop(Run& run) {
        note("loop of " + run.name);
        if (const auto during = duringLoop.find(run.name); during != duringLoop.end()) during->second();
        return loopEnd;
    }
    void tellClient(Run& run) { note("last callback of " + run.name); }
    void tellToLeave(Run& run) { note("tell " + run.name + " to leave"); }
    static Patience stopPatience() { return {true}; }
    bool awaitEnd(Run& run, Patience& patience) {
        note("await end of " + run.name + (patience.ends ? "" : ", however long"));
        if (!patience.ends) live(run.name);
        return !patience.ends || !outlives(run.name);
    }

    /// The thread of a released run lives to its end, now.
    void live(const std::string& name) {
        for (size_t i = 0; i < released.size(); ++i)
            if (released[i]->name == name) {
                const RunPointer run = released[i];
                released.erase(released.begin() + static_cast<ptrdiff_t>(i));
                life.live(run);
                return;
            }
    }
    /// What has been noted since the last time.
    std::vector<std::string> noted() { return std::exchange(m_noted, {}); }

    Life life{*this};
    bool hasThreads = true, livesAtOnce = true, prepares = true, cardStarts = true, earlierEnds = true;
    Life::LoopEnd loopEnd = Life::LoopEnd::ToldToLeave;
    std::function<void()> duringPrepare = [] {};
    std::map<std::string, std::function<void()>> duringLoop;
    std::function<bool(const std::string&)> outlives = [](const std::string&) { return false; };
    std::vector<RunPointer> released; ///< and not lived yet

private:
    void note(std::string step) { m_noted.push_back(std::move(step)); }
    std::vector<std::string> m_noted;
};

using Steps = std::vector<std::string>;
using LoopEnd = NotingPort::Life::LoopEnd;

class ChannelSteps : public testing::Test {
protected:
    /// A run that is in its loop while `during` is done, from a callback as it were.
    void whileRunning(const std::string& name, std::function<void()> during) {
        m_port.duringLoop[name] = [this, during = std::move(during)] {
            m_port.noted();
            during();
        };
        m_life.start(name);
    }
    NotingPort m_port;
    NotingPort::Life& m_life = m_port.life;
};

} // namespace

TEST_F(ChannelSteps, StartMakesAThreadWhichStartsTheCardAndGrabs) {
    const auto run = m_life.start(std::string("A"));
    EXPECT_EQ(m_port.noted(), (Steps{"make A", "release A", "await start of A", "prepare A", "start card for A",
                                     "A has started", "loop of A"}));
    ASSERT_TRUE(run);
    EXPECT_TRUE(m_life.hasStarted(*run));
}

TEST_F(ChannelSteps, StartWithoutAThreadChangesNothing) {
    m_port.hasThreads = false;
    EXPECT_FALSE(m_life.start(std::string("A")));
    EXPECT_EQ(m_port.noted(), (Steps{"make A"}));
    EXPECT_EQ(m_life.state(), LifeState::Idle);
}

TEST_F(ChannelSteps, WhatCannotBePreparedNeverAsksTheCard) {
    m_port.prepares = false;
    const auto run = m_life.start(std::string("A"));
    EXPECT_EQ(m_port.noted(), (Steps{"make A", "release A", "await start of A", "prepare A"}));
    EXPECT_FALSE(m_life.hasStarted(*run));
    EXPECT_EQ(m_life.state(), LifeState::Idle);
}

TEST_F(ChannelSteps, RunThatIsStoppedWhileItPreparesNeverAsksTheCardToStart) {
    m_port.duringPrepare = [this] { m_life.stop(); };
    m_life.start(std::string("A"));
    EXPECT_EQ(m_port.noted(), (Steps{"make A", "release A", "await start of A", "prepare A", "stop card for A",
                                     "tell A to leave", "await end of A", "await end of A"}));
    EXPECT_EQ(m_life.state(), LifeState::Idle);
}

TEST_F(ChannelSteps, StartThatTheCardRefusesIsStoppedOnTheCard) {
    m_port.cardStarts = false;
    const auto run = m_life.start(std::string("A"));
    EXPECT_EQ(m_port.noted(),
              (Steps{"make A", "release A", "await start of A", "prepare A", "start card for A", "stop card for A"}));
    EXPECT_FALSE(m_life.hasStarted(*run));
}

TEST_F(ChannelSteps, StartOfARunningChannelStopsItFirst) {
    whileRunning("A", [this] {
        m_port.livesAtOnce = false;
        EXPECT_TRUE(m_life.start(std::string("B")));
        EXPECT_EQ(m_port.noted(), (Steps{"stop card for A", "tell A to leave", "await end of A", "await end of A",
                                         "make B", "release B", "await start of B"}));
    });
    EXPECT_EQ(m_life.state(), LifeState::Starting) << "B's";
    m_port.live("B");
    EXPECT_EQ(m_port.noted(), (Steps{"prepare B", "start card for B", "B has started", "loop of B"}));
}

TEST_F(ChannelSteps, StartAfterAnAbortedOneWaitsForItsThreadHoweverLong) {
    m_port.livesAtOnce = false;
    m_life.start(std::string("A"));
    m_life.leave(LifeEvent::AccessReleased);
    EXPECT_EQ(m_life.state(), LifeState::Aborting);
    m_port.noted();
    m_life.start(std::string("B"));
    EXPECT_EQ(m_port.noted(),
              (Steps{"await end of A, however long", "prepare A", "make B", "release B", "await start of B"}));
}

TEST_F(ChannelSteps, ClosedChannelRefusesAStart) {
    m_life.leave(LifeEvent::Close);
    EXPECT_FALSE(m_life.start(std::string("A")));
    EXPECT_EQ(m_port.noted(), Steps{});
}

TEST_F(ChannelSteps, StopAnswersWhatTheCardSaid) {
    EXPECT_EQ(m_life.stop(), 77u);
    EXPECT_EQ(m_port.noted(), (Steps{"stop card for nobody"}));
}

TEST_F(ChannelSteps, ArrivalMeansNothingToAChannelThatRunsOrIsIdle) {
    EXPECT_TRUE(m_life.arrive());
    EXPECT_EQ(m_port.noted(), Steps{});
    whileRunning("A", [this] {
        EXPECT_TRUE(m_life.arrive());
        EXPECT_EQ(m_port.noted(), Steps{});
        EXPECT_EQ(m_life.state(), LifeState::Running);
    });
}

TEST_F(ChannelSteps, RemovalStopsTheRunAndArrivalGoesOnWithItsGrab) {
    m_port.duringLoop["A"] = [this] {
        m_port.noted();
        m_life.leave(LifeEvent::Removal);
        EXPECT_EQ(m_port.noted(), (Steps{"stop card for A", "tell A to leave", "await end of A", "await end of A"}));
    };
    const auto run = m_life.start(std::string("A"));
    EXPECT_EQ(m_life.state(), LifeState::Paused);
    m_port.livesAtOnce = false;
    EXPECT_TRUE(m_life.arrive());
    EXPECT_EQ(m_port.noted(), (Steps{"make A resumed", "release A resumed", "await start of A resumed"}));
    EXPECT_EQ(m_port.released.back()->grab, run->grab);
    EXPECT_NE(m_port.released.back()->number, run->number);
}

TEST_F(ChannelSteps, ArrivalWithoutAThreadCanBeTriedAgain) {
    whileRunning("A", [this] { m_life.leave(LifeEvent::Removal); });
    m_port.hasThreads = false;
    EXPECT_FALSE(m_life.arrive());
    EXPECT_EQ(m_life.state(), LifeState::Paused);
    m_port.hasThreads = true;
    EXPECT_TRUE(m_life.arrive());
}

TEST_F(ChannelSteps, ResumedRunGrabsOnlyWhenTheInterruptedOneHasEnded) {
    for (const bool earlierEnds : {true, false}) {
        NotingPort port;
        port.earlierEnds = earlierEnds;
        port.outlives = [](const std::string&) { return true; };
        port.duringLoop["A"] = [&] {
            port.life.leave(LifeEvent::Removal);
            port.noted();
            port.life.arrive();
        };
        port.life.start(std::string("A"));
        Steps expected{"make A resumed",    "release A resumed",        "await start of A resumed",
                       "prepare A resumed", "start card for A resumed", "A resumed has started",
                       "A resumed awaits A"};
        if (earlierEnds) expected.push_back("loop of A resumed");
        EXPECT_EQ(port.noted(), expected);
    }
}

TEST_F(ChannelSteps, RunOfAnotherGrabIsNotWaitedForBeforeTheLoop) {
    m_port.outlives = [](const std::string&) { return true; };
    whileRunning("A", [this] {
        m_life.stop(); // gives A up, which is this thread
        m_port.noted();
        m_life.start(std::string("B"));
        EXPECT_EQ(m_port.noted(), (Steps{"make B", "release B", "await start of B", "prepare B", "start card for B",
                                         "B has started", "loop of B"}));
    });
}

TEST_F(ChannelSteps, AnotherFormatStopsTheCardAndIsToldOnce) {
    m_port.loopEnd = LoopEnd::FormatChange;
    whileRunning("A", [] {});
    EXPECT_EQ(m_port.noted(), (Steps{"stop card for A", "last callback of A"}));
    EXPECT_EQ(m_life.state(), LifeState::Idle);
}

TEST_F(ChannelSteps, AnotherFormatAfterAStopIsNotTold) {
    m_port.loopEnd = LoopEnd::FormatChange;
    whileRunning("A", [this] {
        m_life.stop();
        m_port.noted();
    });
    EXPECT_EQ(m_port.noted(), Steps{});
}

TEST_F(ChannelSteps, LoopThatCannotWaitAnyMoreStopsTheCardWithoutACallback) {
    m_port.loopEnd = LoopEnd::Broken;
    whileRunning("A", [] {});
    EXPECT_EQ(m_port.noted(), (Steps{"stop card for A"}));
    EXPECT_EQ(m_life.state(), LifeState::Idle);
}

TEST_F(ChannelSteps, NothingKeepsARunWhoseThreadHasGone) {
    m_port.duringLoop["A"] = [this] { m_life.stop(); };
    const std::weak_ptr<NotingPort::Run> gone = m_life.start(std::string("A"));
    EXPECT_TRUE(gone.expired());
    m_port.noted();
    whileRunning("B", [this] {
        m_life.stop();
        EXPECT_EQ(m_port.noted(), (Steps{"stop card for B", "tell B to leave", "await end of B", "await end of B"}))
            << "A has gone";
    });
}

TEST_F(ChannelSteps, StopWaitsForEveryThreadThatHasNotGone) {
    m_port.outlives = [](const std::string&) { return true; };
    whileRunning("A", [this] {
        m_life.leave(LifeEvent::Removal);
        m_port.outlives = [](const std::string&) { return false; };
        m_port.livesAtOnce = false;
        m_life.arrive();
        m_port.noted();
        m_life.stop();
        EXPECT_EQ(m_port.noted(), (Steps{"stop card for A resumed", "tell A resumed to leave", "await end of A resumed",
                                         "await end of A", "await end of A resumed"}));
    });
}

TEST_F(ChannelSteps, StopWaitsNoLongerWhenItsTimeIsOver) {
    m_port.outlives = [](const std::string& name) { return name == "A"; };
    whileRunning("A", [this] {
        m_life.stop();
        EXPECT_EQ(m_port.noted(), (Steps{"stop card for A", "tell A to leave", "await end of A"}));
        EXPECT_EQ(m_life.state(), LifeState::Idle) << "the thread is given up";
        // It is waited for anew by the next one, after its own.
        m_port.livesAtOnce = false;
        m_life.start(std::string("B"));
        m_life.leave(LifeEvent::AccessReleased);
        m_port.noted();
        m_life.stop();
        EXPECT_EQ(m_port.noted(), (Steps{"stop card for B", "tell B to leave", "await end of B", "await end of A"}));
    });
}

TEST_F(ChannelSteps, RunThatEndsInTimeIsNotGivenUp) {
    whileRunning("A", [this] {
        m_life.stop();
        EXPECT_EQ(m_life.state(), LifeState::Stopping) << "its thread says the last word itself";
    });
    EXPECT_EQ(m_life.state(), LifeState::Idle);
}

} // namespace kestra::test
