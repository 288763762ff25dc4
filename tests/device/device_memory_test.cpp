// Removal, arrival and closing while there is no memory: nobody who calls them could be told, so they go on without, or
// fail as the card itself might, and the next time works.
#include "device/card.h"
#include "tests/device/device_test.h"
#include "tests/support/failing_allocations.h"

#include <windows.h>

#include <utility>

namespace kestra::test {
namespace {

using namespace kestra::simcard;

constexpr Signal kSmall = {1, 0, 1, 7, 0, 0, 160, 120, 0, 60, 1, 0}; ///< there are many starts here

/// Without the library's log, whose memory is its own affair.
class DeviceMemory : public CardTest {
protected:
    void SetUp() override {
        CardTest::SetUp();
        if (HasFatalFailure()) return;
        m_card.setSignal(kSmall);
        const std::wstring path = m_card.devicePath();
        m_notice.resize(sizeof(DEV_BROADCAST_DEVICEINTERFACE_W) + path.size() * sizeof(wchar_t));
        std::memcpy(notice().dbcc_name, path.c_str(), (path.size() + 1) * sizeof(wchar_t));
    }
    DEV_BROADCAST_DEVICEINTERFACE_W& notice() {
        return *reinterpret_cast<DEV_BROADCAST_DEVICEINTERFACE_W*>(m_notice.data());
    }
    /// Runs it while this thread's allocation after so many fails. @return whether there were as many
    template <class Work>
    static bool withFailing(int passing, Work work) {
        allocationsThatPass = passing;
        work();
        return std::exchange(allocationsThatPass, -1) == -1;
    }

private:
    std::vector<std::byte> m_notice;
};

} // namespace

TEST_F(DeviceMemory, RemovalArrivalAndClosingWithoutMemoryDoTheirWorkOrFailForThisTime) {
    int removals = 0, arrivals = 0, closes = 0, stayedClosed = 0, notResumed = 0;
    for (int passing = 0;; ++passing) {
        SCOPED_TRACE(passing);
        TARNIS_HANDLE grabber = openCard();
        ASSERT_NE(grabber, nullptr);
        FrameCounter counter(kSmall);
        TarnisCameraData data{};
        data.outputSelector = TARNIS_OUTPUT_YUV422_8;
        ASSERT_EQ(TARNIS_GetDMAAccess(grabber, 0), 0u);
        ASSERT_EQ(TARNIS_StartGrab(grabber, 0, 0, &data, FrameCounter::onFrame, counter.context()), 0u);
        ASSERT_TRUE(counter.waitForFrames(1));

        const bool removal = withFailing(passing, [&] { grabber->DeviceRemoved(notice()); });
        ASSERT_EQ(m_card.state().clients, 0u) << "the card is let go of";
        const int good = counter.good;

        const bool arrival = withFailing(passing, [&] { grabber->DeviceArrived(notice()); });
        const bool open = m_card.state().clients == 1;
        const bool resumed = open && m_card.state().channels[0].grabbing != 0;
        EXPECT_TRUE(resumed || arrival);
        if (!resumed) {
            ++(open ? notResumed : stayedClosed);
            EXPECT_EQ(counter.good, good);
            grabber->DeviceRemoved(notice());
            grabber->DeviceArrived(notice());
        }
        EXPECT_TRUE(counter.waitForFrames(2)) << "the next arrival goes on with the grab";

        const bool close = withFailing(passing, [&] { TARNIS_Done(grabber); });
        ASSERT_EQ(m_card.state().clients, 0u);
        EXPECT_EQ(counter.wrong, 0);
        removals += removal;
        arrivals += arrival;
        closes += close;
        if (!removal && !arrival && !close) break;
    }
    std::printf("without memory: %d removals, %d arrivals (%d left the card closed, %d the grab paused), %d closes\n",
                removals, arrivals, stayedClosed, notResumed, closes);
    EXPECT_GT(stayedClosed, 0) << "an opened card needs memory";
    EXPECT_GT(notResumed, 0) << "and so does a grab";
}

TEST_F(DeviceMemory, EnumeratingOpeningAndPreparingWithoutMemoryFailAndTheNextTimeWorks) {
    int failures = 0;
    for (int passing = 0;; ++passing) {
        SCOPED_TRACE(passing);
        CDeviceEnumerator* enumerator = nullptr;
        const bool failed = withFailing(passing, [&] { enumerator = TARNIS_EnumOpen(); });
        EXPECT_EQ(enumerator == nullptr, failed);
        TARNIS_EnumClose(enumerator);
        if (!failed) break;
        ++failures;
    }
    EXPECT_GE(failures, 2) << "the enumerator, and what it keeps of a card";

    CDeviceEnumerator* enumerator = TARNIS_EnumOpen();
    ASSERT_NE(enumerator, nullptr);
    DeviceEnumData data{};
    data.size = sizeof data;
    ASSERT_EQ(TARNIS_EnumNext(enumerator, &data), TARNIS_SUCCESS);
    int opened = 0;
    for (int passing = 0;; ++passing) {
        SCOPED_TRACE(passing);
        TARNIS_HANDLE grabber = nullptr;
        const bool failed = withFailing(passing, [&] { grabber = TARNIS_InitByHandle(data.interfaceDetail); });
        if (grabber) TARNIS_Done(grabber);
        opened += grabber != nullptr;
        if (!failed) break;
        ASSERT_EQ(m_card.state().clients, 0u);
    }
    EXPECT_GE(opened, 1);
    TARNIS_EnumClose(enumerator);

    TARNIS_HANDLE grabber = openCard();
    ASSERT_NE(grabber, nullptr);
    ASSERT_EQ(TARNIS_GetDMAAccess(grabber, 0), 0u);
    int prepared = 0, refused = 0;
    for (int passing = 0; prepared == 0; ++passing) {
        TarnisCameraData wanted{};
        wanted.outputSelector = TARNIS_OUTPUT_YUV422_8;
        uint32_t code = TARNIS_SUCCESS;
        withFailing(passing, [&] { code = noexp_TARNIS_Prepare(grabber, 0, &wanted); });
        EXPECT_TRUE(code == TARNIS_SUCCESS || code == TARNIS_OUT_OF_MEMORY) << code;
        ++(code == TARNIS_SUCCESS ? prepared : refused);
    }
    EXPECT_GE(refused, 3) << "the buffers, their list and their table";
    EXPECT_EQ(TARNIS_Done(grabber), 0u);
}

} // namespace kestra::test
