// The list of tests, and what they share: a filter, its pin and a sink in known relations.
#pragma once

#include "compliance/check.h"
#include "compliance/sink.h"
#include "compliance/subject.h"

#include <chrono>
#include <span>

namespace kestra::compliance {

/// How long and how often, and what provokes the loss of the device. Given to every child.
struct Settings {
    bool quick = false;
    int limitSeconds = 60;     ///< of one test
    std::wstring unplug, plug; ///< commands; empty: the loss is not tested
    int cycles(int full, int few) const { return quick ? few : full; }
};

struct Context {
    const Subject& subject;
    const Settings& settings;
    Exchange* exchange; ///< with the parent
};

struct Test {
    const char* group;
    const char* name;
    const char* rule; ///< the page of the platform's documentation that says so
    void (*run)(Context& context);
    int limitFactor = 1; ///< of Settings::limitSeconds
    std::string id() const { return std::string(group) + "." + name; }
};

/// All of them, in the order of the report.
const std::vector<Test>& allTests();

// One list for each file.
std::span<const Test> unknownTests();
std::span<const Test> enumerationTests();
std::span<const Test> filterTests();
std::span<const Test> configTests();
std::span<const Test> hostileTests();
std::span<const Test> connectTests();
std::span<const Test> allocatorTests();
std::span<const Test> stateTests();
std::span<const Test> streamTests();
std::span<const Test> sinkTests();
std::span<const Test> stressTests();
std::span<const Test> processTests();

/// Waits for a condition. @return whether it came about in time
template <class Condition>
bool waitFor(Condition condition, int milliseconds = 10'000) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        Sleep(1);
    }
    return true;
}

inline double nowMs() {
    using namespace std::chrono;
    return duration<double, std::milli>(steady_clock::now().time_since_epoch()).count();
}

/// A filter and its capturing pin.
struct Bare {
    explicit Bare(const Subject& subject);
    explicit Bare(const Context& context) : Bare(context.subject) {}
    ComRef<IBaseFilter> filter;
    ComRef<IPin> pin;
};

/// The references to an object, by what it says itself.
ULONG referencesTo(IUnknown* object);

/// These two and a sink that is not connected yet. Stops and disconnects at its end.
class Rig : public Bare {
public:
    explicit Rig(Context& context);
    ~Rig();
    Rig(const Rig&) = delete;
    Rig& operator=(const Rig&) = delete;

    /// @param type  null: as the two agree
    void connect(const AM_MEDIA_TYPE* type = nullptr);
    void pause();
    void run();
    void stop();
    /// Runs until the sink has this many samples. @throws Failure if they do not come
    void receive(int samples);
    void awaitSamples(int samples);
    void disconnect();

    ComRef<Sink> sink{new Sink};

protected:
    Context& m_context;
};

using Receiver = std::function<HRESULT(IMediaSample*, int)>;
/// Takes every sample, and that long for it.
Receiver taking(int milliseconds);
/// Answers one sample with `answer`, or all of them; takes the others at once.
constexpr int kEvery = -1;
Receiver answering(HRESULT answer, int number);

/// The same in the system's graph.
class GraphRig : public Rig {
public:
    explicit GraphRig(Context& context);
    ~GraphRig();
    ComRef<IGraphBuilder> graph;
    ComRef<IMediaControl> control;
};

/// The pin's IAMStreamConfig. @throws NotApplicable
ComRef<IAMStreamConfig> configOf(IPin* pin);
/// Every capability's type, with the record that describes it.
struct Capability {
    Type type;
    std::vector<BYTE> caps;
};
std::vector<Capability> capabilitiesOf(IAMStreamConfig* config);
Type formatOf(IAMStreamConfig* config);
std::string statesText(FILTER_STATE state);

} // namespace kestra::compliance
