// A program that leaves while it grabs, without a stop or a close: the library must let it go.
//   sdk_leaver return|exit|free
#include <tarnis.h>

#include <windows.h>

#include <stdio.h>
#include <string.h>

static HANDLE g_frame;

static void onFrame(uint64_t context, const TarnisFrameInfo* frame) {
    (void)context;
    if (frame->dmaStatus == DMA_STATUS_GOOD) SetEvent(g_frame);
}

int main(int argc, char** argv) {
    TarnisCameraData data = {0};
    DeviceEnumData first = {0};
    CDeviceEnumerator* cards = TARNIS_EnumOpen();
    TARNIS_HANDLE card = NULL;
    g_frame = CreateEventW(NULL, FALSE, FALSE, NULL);
    first.size = sizeof first;
    if (argc != 2 || TARNIS_EnumNext(cards, &first) != TARNIS_SUCCESS) return 10;
    card = TARNIS_InitByHandle(first.interfaceDetail);
    TARNIS_EnumClose(cards);
    data.outputSelector = TARNIS_OUTPUT_YUV422_8;
    if (TARNIS_GetDMAAccess(card, 0) != TARNIS_SUCCESS) return 11;
    if (TARNIS_StartGrab(card, 0, 0, &data, onFrame, 0) != TARNIS_SUCCESS) return 12;
    if (WaitForSingleObject(g_frame, 30000) != WAIT_OBJECT_0) return 13;
    puts("leaving");
    fflush(stdout);
    if (strcmp(argv[1], "exit") == 0) ExitProcess(0);
    if (strcmp(argv[1], "free") == 0) FreeLibrary(GetModuleHandleW(L"tarnis.dll"));
    return 0;
}
