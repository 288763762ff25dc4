// The list of cards: what it holds, what it says of cards and systems that fail, and how long it waits for one.
#include "device/device_enumerator.h"
#include "simcard/model/card.h"
#include "tests/device/device_test.h"
#include "tests/support/scoped_import_hook.h"
#include "win32/device_set.h"

#include <gmock/gmock.h>

namespace kestra::test {
namespace {

using namespace kestra::simcard;

constexpr char kGroup[] = "DeviceEnumerator";
constexpr char kEnumerate[] = "CDeviceEnumerator::EnumerateDevice";

decltype(&DeviceIoControl) g_ioctl;

uint32_t g_descriptionLength, g_descriptionGrowth; // characters now, and more with each answer

/// The driver answers, but describes the slot with so many letters.
BOOL WINAPI withDescription(HANDLE device, DWORD code, void* in, DWORD inSize, void* out, DWORD outSize, DWORD* bytes,
                            OVERLAPPED* overlapped) {
    const BOOL answered = g_ioctl(device, code, in, inSize, out, outSize, bytes, overlapped);
    if (answered && code == wire::kGetSlotInfo) {
        wire::SlotInfoReply reply;
        std::memcpy(&reply, out, sizeof reply);
        std::fill(std::begin(reply.description), std::end(reply.description), u'\0');
        std::fill_n(reply.description, std::min<size_t>(g_descriptionLength, std::size(reply.description)), u'x');
        g_descriptionLength += g_descriptionGrowth;
        std::memcpy(out, &reply, sizeof reply);
    }
    return answered;
}

class DeviceEnumerator : public DeviceTest {
protected:
    UniqueFile openDevice() {
        return UniqueFile(CreateFileW(m_card.devicePath().c_str(), GENERIC_READ | GENERIC_WRITE,
                                      FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_ALWAYS, 0, nullptr));
    }
};

} // namespace

TEST_F(DeviceEnumerator, EnumeratorHandsOutEveryCardOnce) {
    CDeviceEnumerator* enumerator = TARNIS_EnumOpen();
    ASSERT_NE(enumerator, nullptr);
    DeviceEnumData data{};
    data.size = 16;
    EXPECT_EQ(TARNIS_EnumNext(enumerator, &data), TARNIS_INVALID_ARGUMENT) << "a record that is too small";
    EXPECT_EQ(data.interfaceDetail, nullptr);
    data.size = 1000; // larger than a record: kept to what there is
    ASSERT_EQ(TARNIS_EnumNext(enumerator, &data), TARNIS_SUCCESS);
    EXPECT_EQ(data.size, 24u);
    EXPECT_EQ(data.slotValue, 0u);
    EXPECT_EQ(lstrcmpiW(data.interfaceDetail->devicePath, m_card.devicePath().c_str()), 0);
    EXPECT_STREQ(data.slotText, L"Kestra HD-SDI (simulated)");
    ASSERT_EQ(TARNIS_EnumNext(enumerator, &data), TARNIS_SUCCESS);
    EXPECT_EQ(data.slotValue, 1u);
    EXPECT_EQ(TARNIS_EnumNext(enumerator, &data), TARNIS_NO_MORE_DEVICES);
    EXPECT_TRUE(m_log.records().empty());
    EXPECT_EQ(TARNIS_EnumNext(enumerator, nullptr), TARNIS_INVALID_ARGUMENT);
    expectOnly(m_log, kGroup, "TARNIS_EnumNext", L"pEnumData is NULL", LOG_ERROR, TARNIS_INVALID_ARGUMENT);
    TARNIS_EnumClose(enumerator);
    EXPECT_EQ(TARNIS_EnumNext(nullptr, &data), TARNIS_INVALID_ARGUMENT);
    expectOnly(m_log, kGroup, "TARNIS_EnumNext", L"hDevEnum is NULL", LOG_ERROR, TARNIS_INVALID_ARGUMENT);
}

TEST_F(DeviceEnumerator, CardThatCannotBeOpenedIsSkippedAndNamedByItsIndex) {
    m_card.addFault({FaultKind::RefuseOpen, 0, 0, 0, kForever, {}});
    CDeviceEnumerator enumerator;
    EXPECT_EQ(enumerator.status, TARNIS_SUCCESS);
    EXPECT_EQ(enumerator.lastError, DWORD{ERROR_FILE_NOT_FOUND});
    DeviceEnumData data{};
    data.size = sizeof data;
    ASSERT_EQ(TARNIS_EnumNext(&enumerator, &data), TARNIS_SUCCESS);
    EXPECT_EQ(data.slotValue, 1u) << "the second card is listed";
    EXPECT_EQ(TARNIS_EnumNext(&enumerator, &data), TARNIS_NO_MORE_DEVICES);
    const auto records = m_log.records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].severity, LOG_WARNING);
    EXPECT_EQ(records[0].message.substr(0, 13), L"0 CreateFile(");
    EXPECT_THAT(records[0].message, testing::EndsWith(L") failed: GetLastError=2(0x2)"));
    m_log.clear();
    m_card.clearFaults();
}

TEST_F(DeviceEnumerator, EnumerationFailuresOfTheSystemAreLogged) {
    {
        const ScopedImportHook<decltype(&SetupDiGetClassDevsW)> hook("setupapi.dll", "SetupDiGetClassDevsW",
                                                                     [](const GUID*, PCWSTR, HWND, DWORD) -> HDEVINFO {
                                                                         SetLastError(ERROR_NOT_ENOUGH_MEMORY);
                                                                         return INVALID_HANDLE_VALUE;
                                                                     });
        ASSERT_TRUE(hook.installed());
        CDeviceEnumerator enumerator;
        EXPECT_EQ(enumerator.status, TARNIS_NO_MORE_DEVICES);
        DeviceEnumData data{};
        data.size = sizeof data;
        EXPECT_EQ(TARNIS_EnumNext(&enumerator, &data), TARNIS_NO_MORE_DEVICES);
        EXPECT_EQ(TARNIS_EnumOpen(), nullptr) << "an enumerator without a card is of no use";
    }
    const auto records = m_log.records();
    ASSERT_EQ(records.size(), 4u);
    EXPECT_EQ(records[0].message, L"SetupDiGetClassDevs failed: GetLastError=8(0x8)");
    EXPECT_EQ(records[0].severity, LOG_ERROR);
    EXPECT_EQ(records[1].message, L"No devices present!");
    EXPECT_EQ(records[1].severity, LOG_WARNING);
    EXPECT_EQ(records[1].code, TARNIS_NO_MORE_DEVICES);
    EXPECT_EQ(records[1].functionName, "CDeviceEnumerator::CDeviceEnumerator");
    m_log.clear();

    m_card.failNext(wire::kGetSlotInfo, kStatusNotSupported, 2);
    CDeviceEnumerator enumerator;
    DeviceEnumData data{};
    data.size = sizeof data;
    ASSERT_EQ(TARNIS_EnumNext(&enumerator, &data), TARNIS_SUCCESS);
    EXPECT_EQ(data.slotText, nullptr);
    const auto slotRecords = m_log.records();
    ASSERT_EQ(slotRecords.size(), 2u) << "asked for the length, then for the text";
    for (const SeenRecord& record : slotRecords) {
        EXPECT_EQ(record.message,
                  L"First chanceDeviceIOCtl(KestraCTL_GET_SLOT_INFO) failed. ErrorCode=50(0x00000032).");
        EXPECT_EQ(record.functionName, "noexp_TARNIS_GetSlotInfo");
        EXPECT_EQ(record.severity, LOG_ERROR);
        EXPECT_EQ(record.code, ERROR_NOT_SUPPORTED);
    }
}

TEST_F(DeviceEnumerator, SlotInformationSaysHowMuchRoomItsTextNeeds) {
    const UniqueFile device = openDevice();
    uint32_t value = 99, capacity = 0;
    EXPECT_EQ(noexp_TARNIS_GetSlotInfo(device.get(), &value, nullptr, &capacity), TARNIS_INVALID_ARGUMENT);
    EXPECT_EQ(value, 0u) << "stored although the text did not fit";
    EXPECT_EQ(capacity, 26u);
    wchar_t text[26];
    capacity = 25;
    EXPECT_EQ(noexp_TARNIS_GetSlotInfo(device.get(), nullptr, text, &capacity), TARNIS_INVALID_ARGUMENT);
    EXPECT_EQ(capacity, 26u);
    EXPECT_EQ(noexp_TARNIS_GetSlotInfo(device.get(), nullptr, text, &capacity), TARNIS_SUCCESS);
    EXPECT_STREQ(text, L"Kestra HD-SDI (simulated)");
}

TEST_F(DeviceEnumerator, EmptySlotDescriptionLeavesATerminatedEmptyText) {
    const ScopedImportHook<decltype(&DeviceIoControl)> hook("kernel32.dll", "DeviceIoControl", withDescription);
    ASSERT_TRUE(hook.installed());
    g_descriptionLength = g_descriptionGrowth = 0;
    g_ioctl = hook.original();
    const UniqueFile device = openDevice();
    wchar_t text[] = L"what was there before";
    uint32_t value = 99, capacity = std::size(text);
    EXPECT_EQ(noexp_TARNIS_GetSlotInfo(device.get(), &value, text, &capacity), TARNIS_SUCCESS);
    EXPECT_EQ(value, 0u);
    EXPECT_EQ(capacity, 0u);
    EXPECT_STREQ(text, L"");
    EXPECT_EQ(text[1], L'h') << "nothing else is touched";

    wchar_t untouched[] = L"x";
    capacity = 0;
    EXPECT_EQ(noexp_TARNIS_GetSlotInfo(device.get(), nullptr, untouched, &capacity), TARNIS_SUCCESS);
    EXPECT_STREQ(untouched, L"x") << "there is no room for a terminator";
    EXPECT_EQ(noexp_TARNIS_GetSlotInfo(device.get(), nullptr, nullptr, nullptr), TARNIS_SUCCESS);

    CDeviceEnumerator enumerator;
    DeviceEnumData data{};
    data.size = sizeof data;
    ASSERT_EQ(TARNIS_EnumNext(&enumerator, &data), TARNIS_SUCCESS);
    EXPECT_EQ(data.slotText, nullptr) << "a record has no empty text";
}

TEST_F(DeviceEnumerator, DescriptionWithoutAnEndOrThatGrowsStaysWithinItsMemory) {
    const ScopedImportHook<decltype(&DeviceIoControl)> hook("kernel32.dll", "DeviceIoControl", withDescription);
    ASSERT_TRUE(hook.installed());
    g_ioctl = hook.original();
    const std::wstring whole(256, L'x');
    {
        g_descriptionLength = 256; // all of the record, and nothing ends it
        g_descriptionGrowth = 0;
        CDeviceEnumerator enumerator;
        DeviceEnumData data{};
        data.size = sizeof data;
        ASSERT_EQ(TARNIS_EnumNext(&enumerator, &data), TARNIS_SUCCESS);
        EXPECT_EQ(data.slotText, whole);
    }
    g_descriptionLength = 2; // asked for its length; then it is longer
    g_descriptionGrowth = 254;
    CDeviceEnumerator enumerator;
    DeviceEnumData data{};
    data.size = sizeof data;
    ASSERT_EQ(TARNIS_EnumNext(&enumerator, &data), TARNIS_SUCCESS) << "the card is listed";
    EXPECT_STREQ(data.slotText, L"") << "without the text that did not fit";
}

TEST_F(DeviceEnumerator, SlowCardIsListedWithItsDescription) {
    constexpr uint32_t kDelayMs = 1500;
    m_card.addFault({FaultKind::Delay, wire::kGetSlotInfo, kDelayMs, 0, 2, {}}); // the length, then the text
    CDeviceEnumerator enumerator;
    DeviceEnumData data{};
    data.size = sizeof data;
    ASSERT_EQ(TARNIS_EnumNext(&enumerator, &data), TARNIS_SUCCESS);
    EXPECT_STREQ(data.slotText, L"Kestra HD-SDI (simulated)");
    EXPECT_TRUE(m_log.records().empty());
}

TEST_F(DeviceEnumerator, CardThatNeverTellsItsSlotIsListedAfterAWhileAndTheOthersToo) {
    constexpr ULONGLONG kLimitMs = 5000, kDeadlineMs = 5000;
    m_card.addFault({FaultKind::NeverComplete, wire::kGetSlotInfo, 0, 0, 1, {}});
    const ULONGLONG begin = GetTickCount64();
    CDeviceEnumerator enumerator;
    EXPECT_LT(GetTickCount64() - begin, kLimitMs + kDeadlineMs);
    DeviceEnumData data{};
    data.size = sizeof data;
    ASSERT_EQ(TARNIS_EnumNext(&enumerator, &data), TARNIS_SUCCESS);
    EXPECT_EQ(data.slotText, nullptr);
    ASSERT_EQ(TARNIS_EnumNext(&enumerator, &data), TARNIS_SUCCESS) << "the second card";
    EXPECT_STREQ(data.slotText, L"Kestra HD-SDI (simulated)");
    expectOnly(m_log, kGroup, "noexp_TARNIS_GetSlotInfo",
               L"First chanceDeviceIOCtl(KestraCTL_GET_SLOT_INFO) failed. ErrorCode=995(0x000003E3).", LOG_ERROR,
               ERROR_OPERATION_ABORTED);
}

TEST_F(DeviceEnumerator, InterfaceWithoutDetailIsLeftOutAndNamedByItsIndex) {
    using Detail = decltype(&SetupDiGetDeviceInterfaceDetailW);
    static Detail original;
    static int calls;
    const ScopedImportHook<Detail> hook(
        "setupapi.dll", "SetupDiGetDeviceInterfaceDetailW",
        [](HDEVINFO set, SP_DEVICE_INTERFACE_DATA* data, SP_DEVICE_INTERFACE_DETAIL_DATA_W* detail, DWORD bytes,
           DWORD* needed, SP_DEVINFO_DATA* info) -> BOOL {
            if (++calls != 2)
                return original(set, data, detail, bytes, needed, info); // the second request for the first
            SetLastError(ERROR_NOT_ENOUGH_MEMORY);
            return FALSE;
        });
    ASSERT_TRUE(hook.installed());
    original = hook.original();
    calls = 0;
    CDeviceEnumerator enumerator;
    expectOnly(m_log, kGroup, kEnumerate, L"0: SetupDiGetDeviceInterfaceDetail failed: GetLastError=8(0x8)",
               LOG_WARNING, ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(enumerator.lastError, DWORD{ERROR_NOT_ENOUGH_MEMORY});
    EXPECT_EQ(enumerator.status, TARNIS_SUCCESS);
    DeviceEnumData data{};
    data.size = sizeof data;
    ASSERT_EQ(TARNIS_EnumNext(&enumerator, &data), TARNIS_SUCCESS);
    EXPECT_EQ(data.slotValue, 1u) << "the second card is listed";
    EXPECT_EQ(TARNIS_EnumNext(&enumerator, &data), TARNIS_NO_MORE_DEVICES);
}

} // namespace kestra::test
