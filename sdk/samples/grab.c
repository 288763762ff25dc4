// Lists the cards, opens the first one with a signal, grabs frames and stops:
//   grab [FRAMES]      100 by default
// Ends with 0: done, 1: failure, 3: no card, 4: no signal, 5: in use by another program.
#include <tarnis.h>

#include <windows.h>

#include <stdio.h>
#include <stdlib.h>

enum { VIDEO = 0, DONE = 0, FAILED = 1, NO_CARD = 3, NO_SIGNAL = 4, IN_USE = 5, PATIENCE_MS = 5000 };

// What the callback and main() share. The callback runs on a thread of the library.
typedef struct Grab {
    HANDLE something; // set when there is news for main()
    volatile LONG frames, lost, changed;
    LONG wanted;
} Grab;

static void onFrame(uint64_t context, const TarnisFrameInfo* frame) {
    Grab* grab = (Grab*)(uintptr_t)context;
    if (frame->dmaStatus == DMA_STATUS_DICONNECTED) {
        InterlockedExchange(&grab->changed, 1); // the grab has ended by itself
    } else if (frame->dmaStatus != DMA_STATUS_GOOD) {
        InterlockedIncrement(&grab->lost);
        return;
    } else {
        // frame->lpRawBuffer has frame->bufferSize bytes and is the card's again when this function returns: copy what
        // is needed later, and be quick.
        if (InterlockedIncrement(&grab->frames) < grab->wanted) return;
    }
    SetEvent(grab->something);
}

// Opens the cards one after the other and keeps the first one with a signal.
static TARNIS_HANDLE openCardWithSignal(int* result) {
    TARNIS_HANDLE found = NULL;
    CDeviceEnumerator* cards = TARNIS_EnumOpen();
    DeviceEnumData card = {0};
    card.size = sizeof card;
    *result = NO_CARD;
    for (int index = 0; cards && TARNIS_EnumNext(cards, &card) == TARNIS_SUCCESS; ++index) {
        printf("card %d: %ls\n", index, card.slotText ? card.slotText : L"(no name)");
        if (found) continue; // listed only
        TARNIS_HANDLE opened = TARNIS_InitByHandle(card.interfaceDetail);
        uint8_t connected = 0;
        if (opened && TARNIS_IsCameraConnected(opened, VIDEO, &connected) == TARNIS_SUCCESS && connected) {
            found = opened;
            printf("  opened\n");
        } else if (opened) {
            *result = NO_SIGNAL;
            printf("  no signal\n");
            TARNIS_Done(opened);
        } else {
            if (*result == NO_CARD) *result = FAILED;
            printf("  cannot be opened\n");
        }
        fflush(stdout);
    }
    TARNIS_EnumClose(cards); // null is fine; what `card` pointed to has gone now
    return found;
}

static int grabFrames(TARNIS_HANDLE opened, LONG wanted) {
    Grab grab = {0};
    grab.wanted = wanted;
    grab.something = CreateEventW(NULL, FALSE, FALSE, NULL);
    if (!grab.something) return FAILED;

    TarnisCameraData data = {0};
    data.outputSelector = TARNIS_OUTPUT_YUV422_8;
    const uint32_t started = TARNIS_StartGrab(opened, VIDEO, 0, &data, onFrame, (uint64_t)(uintptr_t)&grab);
    int result = FAILED;
    if (started == TARNIS_SUCCESS) {
        printf("grabbing %u x %u %s, %u %s a second\n", data.status.width, data.status.height,
               data.status.interlaced ? "interlaced" : "progressive", data.status.frameRate,
               data.status.interlaced ? "fields" : "frames");
        if (WaitForSingleObject(grab.something, PATIENCE_MS + (DWORD)wanted * 100) != WAIT_OBJECT_0)
            fprintf(stderr, "grab: the frames stopped coming\n");
        else if (grab.changed)
            fprintf(stderr, "grab: the input has changed; recover.c shows how to go on\n");
        else
            result = DONE;
        TARNIS_StopGrab(opened, VIDEO); // after it, onFrame is not called any more
        printf("%ld frames, %ld lost\n", (long)grab.frames, (long)grab.lost);
    } else {
        fprintf(stderr, "grab: the card does not start (result %u)\n", started);
    }
    CloseHandle(grab.something);
    return result;
}

int main(int argc, char** argv) {
    const LONG wanted = argc > 1 ? strtol(argv[1], NULL, 10) : 100;
    if (argc > 2 || wanted < 1) {
        fprintf(stderr, "usage: grab [FRAMES]\n");
        return FAILED;
    }
    int result = NO_CARD;
    TARNIS_HANDLE opened = openCardWithSignal(&result);
    if (!opened) {
        fprintf(stderr, "grab: %s\n", result == NO_CARD ? "there is no card" : "no card has a signal");
        return result;
    }
    const uint32_t claimed = TARNIS_GetDMAAccess(opened, VIDEO);
    if (claimed == TARNIS_SUCCESS) {
        result = grabFrames(opened, wanted);
        TARNIS_ReleaseDMAAccess(opened, VIDEO);
    } else {
        fprintf(stderr, "grab: %s (result %u)\n",
                claimed == TARNIS_ACCESS_DENIED ? "another program grabs this card" : "the card cannot be claimed",
                claimed);
        result = claimed == TARNIS_ACCESS_DENIED ? IN_USE : FAILED;
    }
    TARNIS_Done(opened);
    return result;
}
