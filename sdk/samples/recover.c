// Grabs until it has enough frames, whatever happens to the card and its input meanwhile:
//   recover [FRAMES]   600 by default
// - The card is pulled and put back: the library goes on with the same callback by itself.
// - The input takes another format: the callback is told once, the grab has ended, and main() starts it anew.
// - No frame comes: main() asks why, says so, and starts anew when there is an input again and still no frame.
// Ends with 0: done, 1: failure, 3: no card, 5: in use by another program.
#include <tarnis.h>

#include <windows.h>

#include <stdio.h>
#include <stdlib.h>

enum { VIDEO = 0, DONE = 0, FAILED = 1, NO_CARD = 3, IN_USE = 5, LOOK_MS = 250 };

typedef struct Grab {
    HANDLE news;
    volatile LONG frames, lost, changed, bufferSize;
    LONG wanted;
} Grab;

static void onFrame(uint64_t context, const TarnisFrameInfo* frame) {
    Grab* grab = (Grab*)(uintptr_t)context;
    switch (frame->dmaStatus) {
    case DMA_STATUS_GOOD:
        InterlockedExchange(&grab->bufferSize, (LONG)frame->bufferSize);
        if (InterlockedIncrement(&grab->frames) >= grab->wanted) SetEvent(grab->news);
        break;
    case DMA_STATUS_DICONNECTED: // the last call of this grab
        InterlockedExchange(&grab->changed, 1);
        SetEvent(grab->news);
        break;
    default: // dropped, overrun, aborted: the next frame follows
        InterlockedIncrement(&grab->lost);
        break;
    }
}

static void say(const char* text) {
    puts(text);
    fflush(stdout);
}

// Starts, or starts anew. Stopping what does not run is no error.
static int start(TARNIS_HANDLE card, Grab* grab) {
    TARNIS_StopGrab(card, VIDEO);
    InterlockedExchange(&grab->changed, 0);
    TarnisCameraData data = {0};
    data.outputSelector = TARNIS_OUTPUT_YUV422_8;
    if (TARNIS_StartGrab(card, VIDEO, 0, &data, onFrame, (uint64_t)(uintptr_t)grab) != TARNIS_SUCCESS) return 0;
    printf("grabbing %u x %u, %u a second\n", data.status.width, data.status.height, data.status.frameRate);
    fflush(stdout);
    return 1;
}

typedef enum Mood { GRABBING, NOT_STARTED, CARD_GONE, NO_INPUT } Mood;

// No frame has come for a while: why? Says so when it is another reason than before.
static Mood look(TARNIS_HANDLE card, Mood before) {
    uint8_t connected = 0;
    Mood now = NOT_STARTED;
    if (TARNIS_IsCameraConnected(card, VIDEO, &connected) != TARNIS_SUCCESS)
        now = CARD_GONE; // requests fail at once while the card is away
    else if (!connected)
        now = NO_INPUT;
    if (now != before && now == CARD_GONE) say("the card is gone; waiting for it");
    if (now != before && now == NO_INPUT) say("no signal; waiting for it");
    return now;
}

static void grabAll(TARNIS_HANDLE card, Grab* grab) {
    Mood mood = start(card, grab) ? GRABBING : NOT_STARTED;
    LONG seen = 0;
    while (grab->frames < grab->wanted) {
        WaitForSingleObject(grab->news, LOOK_MS);
        const LONG frames = grab->frames;
        if (grab->changed) {
            say("the input has changed");
            mood = start(card, grab) ? GRABBING : NOT_STARTED;
        } else if (frames != seen) {
            if (mood != GRABBING) printf("frames again, of %ld bytes\n", (long)grab->bufferSize);
            fflush(stdout);
            mood = GRABBING;
        } else {
            // A card that has just come back goes on by itself: it is given the time until the next look.
            const Mood before = mood;
            mood = look(card, before);
            if (mood == NOT_STARTED && before == NOT_STARTED && start(card, grab)) mood = GRABBING;
        }
        seen = frames;
    }
    TARNIS_StopGrab(card, VIDEO);
}

int main(int argc, char** argv) {
    Grab grab = {0};
    grab.wanted = argc > 1 ? strtol(argv[1], NULL, 10) : 600;
    if (argc > 2 || grab.wanted < 1) {
        fprintf(stderr, "usage: recover [FRAMES]\n");
        return FAILED;
    }
    CDeviceEnumerator* cards = TARNIS_EnumOpen();
    DeviceEnumData first = {0};
    first.size = sizeof first;
    TARNIS_HANDLE card = NULL;
    if (TARNIS_EnumNext(cards, &first) == TARNIS_SUCCESS) card = TARNIS_InitByHandle(first.interfaceDetail);
    TARNIS_EnumClose(cards);
    if (!card) {
        fprintf(stderr, "recover: there is no card that can be opened\n");
        return NO_CARD;
    }
    int result = FAILED;
    grab.news = CreateEventW(NULL, FALSE, FALSE, NULL);
    if (grab.news) {
        const uint32_t claimed = TARNIS_GetDMAAccess(card, VIDEO);
        if (claimed == TARNIS_SUCCESS) {
            grabAll(card, &grab);
            TARNIS_ReleaseDMAAccess(card, VIDEO);
            printf("%ld frames, %ld lost\n", (long)grab.frames, (long)grab.lost);
            result = DONE;
        } else {
            fprintf(stderr, "recover: the card cannot be claimed (result %u)\n", claimed);
            result = claimed == TARNIS_ACCESS_DENIED ? IN_USE : FAILED;
        }
        CloseHandle(grab.news);
    }
    TARNIS_Done(card);
    return result;
}
