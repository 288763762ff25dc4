// A walk over nothing, which fails as its environment asks (KESTRA_PLANTED): once "arm" has been called twice on thread
// 0, "fire" fails. For the test of the walks themselves.
#include "tests/walk/walk.h"

#include <windows.h>

#include <atomic>
#include <cstdlib>
#include <string>

namespace kestra::walk {
namespace {

const std::vector<Call> kCalls = {{"nothing", 20, 20}, {"arm", 2, 2}, {"fire", 2, 2}, {"leak", 1, 1}};

class PlantedWorld final : public World {
public:
    const std::vector<Call>& calls() const override { return kCalls; }
    void begin(const Act&) override { m_armed = 0; }
    uint32_t step(const Step& step) override {
        if (step.call == 1 && step.thread == 0) ++m_armed;
        if (step.call == 2 && m_armed >= 2) fire();
        if (step.call == 3 && m_fault == "leak") CreateEventW(nullptr, FALSE, FALSE, nullptr);
        return step.a % 2;
    }
    void end() override {}
    void rescue() override {}
    uint32_t hangMs() const override { return 1000; }

private:
    void fire() const {
        if (m_fault == "check") fail("check", "it fired");
        if (m_fault == "crash") *static_cast<volatile int*>(nullptr) = 1;
        if (m_fault == "hang") Sleep(INFINITE);
    }

    const std::string m_fault = std::getenv("KESTRA_PLANTED") ? std::getenv("KESTRA_PLANTED") : "";
    std::atomic<int> m_armed{0};
};

} // namespace
} // namespace kestra::walk

int main(int argc, char** argv) {
    kestra::walk::PlantedWorld world;
    return kestra::walk::walkMain(argc, argv, world);
}
