// kestraprobe: what is in the slots, what arrives at the inputs, and whether frames come through. Speaks the
// card's protocol itself, so it works without the module. Exit codes: 0 all is well, 1 something failed, 2 usage.
#include "protocol/card_interface.h"
#include "protocol/registers.h"
#include "simcard/client/raw_client.h"
#include "simcard/ctl/control.h"
#include "simcard/model/picture.h"
#include "simcard/model/sound.h"
#include "win32/device_set.h"

#include <windows.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

using namespace kestra;
using namespace kestra::simcard;

namespace {

/// What the requests said about the input.
struct Input {
    bool present = false, interlaced = false, audio = false;
    uint32_t width = 0, height = 0, rate = 0, mode = 0;
};

uint16_t readRegister(RawClient& client, uint16_t number) {
    wire::ReadRegisterReply reply = {};
    client.call(wire::kReadRegister, wire::ReadRegisterRequest{client.header(), number}, reply);
    return reply.value;
}

Input readInput(RawClient& client) {
    Input input;
    wire::VideoStatusReply status = {};
    wire::FormatSizeReply size = {};
    wire::GrabStatisticsReply statistics = {};
    client.call(wire::kVideoStatus, client.header(), status);
    client.call(wire::kFormatSize, client.header(), size);
    client.call(wire::kGrabStatistics, client.header(), statistics);
    const uint16_t flags = readRegister(client, kRegisterInput);
    input.present = status.signal != 0;
    input.mode = status.videoMode;
    input.width = size.width;
    input.height = size.height;
    input.rate = statistics.frameRate;
    input.interlaced = (flags & kInputInterlaced) != 0;
    input.audio = (flags & kInputAudioAlternate) != 0
                      ? (readRegister(client, kRegisterAudioAlternate) & kAudioAlternateMask) != 0
                      : (readRegister(client, kRegisterAudio) & kAudioMask) != 0;
    return input;
}

void printConverter(const wire::Converter& card) {
    const TarnisConverterParams p = wire::fromWire(card);
    std::printf("  converter   Y %.3f   Cr->R %.3f   Cr->G -%.3f   Cb->G -%.3f   Cb->B %.3f   (Y %d, Cr %d, Cb %d)\n",
                p.Y1, p.R1, p.G1, p.G2, p.B1, p.YOff, p.CrOff, p.CbOff);
    std::printf("              gain R %.3f G %.3f B %.3f   offset R %d G %d B %d   range R %d-%d G %d-%d B %d-%d\n",
                p.RedGain, p.GreenGain, p.BlueGain, p.RedOffset, p.GreenOffset, p.BlueOffset, p.RMin, p.RMax, p.GMin,
                p.GMax, p.BMin, p.BMax);
}

/// A bottom-up 24-bit bitmap file.
bool writeBitmap(const std::string& path, const uint8_t* topDown, uint32_t width, uint32_t height, uint32_t stride) {
    const uint32_t bytes = stride * height;
    BITMAPFILEHEADER file = {};
    file.bfType = 0x4D42;
    file.bfOffBits = sizeof file + sizeof(BITMAPINFOHEADER);
    file.bfSize = file.bfOffBits + bytes;
    BITMAPINFOHEADER info = {};
    info.biSize = sizeof info;
    info.biWidth = static_cast<LONG>(width);
    info.biHeight = static_cast<LONG>(height);
    info.biPlanes = 1;
    info.biBitCount = 24;
    info.biSizeImage = bytes;
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(&file), sizeof file);
    out.write(reinterpret_cast<const char*>(&info), sizeof info);
    for (uint32_t y = height; y-- > 0;)
        out.write(reinterpret_cast<const char*>(topDown + size_t{y} * stride), stride);
    return out.good();
}

/// Raw RGB24 of the card as one woven picture.
std::vector<uint8_t> weave(const uint8_t* raw, const PictureFormat& format) {
    const uint32_t stride = rawLineBytes(format.selector, format.width);
    std::vector<uint8_t> woven(size_t{stride} * format.height);
    for (uint32_t line = 0; line < format.height; ++line)
        std::memcpy(&woven[size_t{pictureLine(format, line)} * stride], raw + size_t{line} * stride, stride);
    return woven;
}

struct Tally {
    uint32_t frames = 0, wrong = 0, missed = 0, failed = 0;
    double seconds = 0; ///< from the first buffer to the last
    uint32_t bufferBytes = 0;
    bool good() const { return frames != 0 && wrong == 0 && failed == 0; }
};

void printTally(const char* name, const Tally& tally) {
    const double rate = tally.frames > 1 && tally.seconds > 0 ? (tally.frames - 1) / tally.seconds : 0;
    std::printf("  %-11s %u buffers at %.2f/s, %u bytes each, %u missed, %u failed, %s\n", name, tally.frames, rate,
                tally.bufferBytes, tally.missed, tally.failed,
                tally.wrong == 0 ? "every byte as the card made it" : "BYTES DIFFER FROM WHAT THE CARD MADE");
}

/// Receives `count` buffers and asks `isRight` about each that came through.
template <class IsRight>
Tally receive(RawStream& stream, uint32_t count, IsRight isRight) {
    Tally tally;
    uint32_t last = 0;
    tally.bufferBytes = stream.frameSizeBytes();
    auto begin = std::chrono::steady_clock::now();
    for (uint32_t i = 0; i < count; ++i) {
        wire::LockBufferReply reply = {};
        if (stream.lock(reply, 3000) != ERROR_SUCCESS) {
            ++tally.failed;
            break;
        }
        const uint8_t* bytes = stream.bytes(reply);
        if (reply.dmaStatus != DMA_STATUS_GOOD || !bytes) {
            ++tally.failed;
        } else {
            const auto now = std::chrono::steady_clock::now();
            if (tally.frames++ == 0) begin = now;
            tally.seconds = std::chrono::duration<double>(now - begin).count();
            if (!isRight(bytes, reply.frameWord0)) ++tally.wrong;
            if (last != 0 && reply.frameWord0 > last + 1) tally.missed += reply.frameWord0 - last - 1;
            last = reply.frameWord0;
        }
        stream.unlock(reply.bufferId);
    }
    return tally;
}

Tally receiveVideo(RawClient& client, const PictureFormat& format, uint32_t count, const std::string& bitmap) {
    RawStream stream(client, 0, format.selector);
    if (const DWORD error = stream.start()) {
        std::printf("  video       cannot start: error %lu, card's result %u\n", error, stream.driverResult());
        return {};
    }
    std::vector<uint8_t> expected(frameSizeBytes(format));
    PictureSource source;
    source.prepare(format, expected.data(), expected.size(), 1);
    bool saved = bitmap.empty();
    Tally tally = receive(stream, count, [&](const uint8_t* bytes, uint32_t number) {
        if (!saved && number % format.framesPerSecond >= format.framesPerSecond / 2u) // not in a flash
            saved = writeBitmap(bitmap, weave(bytes, format).data(), format.width, format.height,
                                rawLineBytes(format.selector, format.width));
        return std::memcmp(bytes, source.advance(number), expected.size()) == 0;
    });
    if (!saved) {
        std::printf("  %s could not be written\n", bitmap.c_str());
        ++tally.wrong;
    }
    return tally;
}

Tally receiveAudio(RawClient& client, uint32_t framesPerSecond, uint32_t count) {
    RawStream stream(client, 1, 1);
    if (const DWORD error = stream.start()) {
        std::printf("  audio       cannot start: error %lu, card's result %u\n", error, stream.driverResult());
        return {};
    }
    std::vector<uint8_t> expected(size_t{samplesPerBlock(framesPerSecond)} * sampleFrameBytes(1));
    return receive(stream, count, [&](const uint8_t* bytes, uint32_t number) {
        soundBlock(number, framesPerSecond, 1, expected.data());
        return stream.frameSizeBytes() == expected.size() && std::memcmp(bytes, expected.data(), expected.size()) == 0;
    });
}

bool probeCard(const std::wstring& path, const std::string& bitmap) {
    RawClient client(path);
    if (client.openError() != 0) {
        std::printf("  cannot be opened: error %lu\n", client.openError());
        return false;
    }
    wire::SlotInfoReply slot = {};
    const wire::SlotInfoRequest zero = {};
    if (client.call(wire::kGetSlotInfo, zero, slot) != 0 || client.openSession() != 0) {
        std::printf("  does not answer\n");
        return false;
    }
    std::printf("  slot        %u, \"%ls\"\n", slot.slotValue, reinterpret_cast<const wchar_t*>(slot.description));
    const Input input = readInput(client);
    if (input.present)
        std::printf("  input       %ux%u%s, %u frames/s, video mode %u, %s\n", input.width, input.height,
                    input.interlaced ? " interlaced" : " progressive", input.rate, input.mode,
                    input.audio ? "embedded audio" : "no audio");
    else
        std::printf("  input       no signal\n");
    wire::GetConverterReply converter = {};
    client.call(wire::kGetConverter, client.header(), converter);
    printConverter(converter.converter);
    if (!input.present) return true;

    PictureFormat format = {uint16_t(input.width), uint16_t(input.height), input.interlaced,   TARNIS_OUTPUT_YUV422_8,
                            uint8_t(input.rate),   PictureKind::Bars,      converter.converter};
    const Tally video = receiveVideo(client, format, input.rate, "");
    printTally("4:2:2 8 bit", video);
    format.selector = TARNIS_OUTPUT_RGB24;
    const Tally rgb = receiveVideo(client, format, input.rate, bitmap);
    printTally("RGB24", rgb);
    bool good = video.good() && rgb.good();
    if (input.audio) {
        const Tally audio = receiveAudio(client, input.rate, input.rate);
        printTally("audio", audio);
        good = good && audio.good();
    }
    return good;
}

void printLogTail(size_t lines) {
    const std::vector<LogEntry> log = CardControl(0).log();
    const size_t first = log.size() > lines ? log.size() - lines : 0;
    std::printf("\nThe last %zu of %zu requests that card 0 received:\n", log.size() - first, log.size());
    std::printf("  %6s  %-22s %-10s %-8s %s\n", "no.", "request", "status", "result", "bytes");
    for (size_t i = first; i < log.size(); ++i) {
        const LogEntry& entry = log[i];
        std::printf("  %6llu  %-22s 0x%08X %-8u ", static_cast<unsigned long long>(entry.sequence),
                    wire::requestName(entry.code), entry.status, entry.result);
        for (uint32_t b = 0; b < entry.byteCount && b < 16; ++b)
            std::printf("%02x ", entry.bytes[b]);
        std::printf("%s\n", entry.byteCount > 16 ? "..." : "");
    }
}

} // namespace

int main(int argc, char** argv) {
    std::string bitmap;
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        if (word == "--bitmap" && i + 1 < argc) {
            bitmap = argv[++i];
            continue;
        }
        std::printf("usage: kestraprobe [--bitmap FILE.bmp]\n"
                    "Lists the cards, shows their inputs, receives a second of each format and compares every byte.\n"
                    "  --bitmap FILE.bmp  keeps one RGB24 frame of the first card\n");
        return word == "--help" ? 0 : 2;
    }
    std::setvbuf(stdout, nullptr, _IONBF, 0);
    const std::vector<std::wstring> cards = interfacePaths(asGuid<GUID>(kCardInterface));
    std::printf("%zu Kestra card%s\n", cards.size(), cards.size() == 1 ? "" : "s");
    bool good = !cards.empty();
    for (size_t i = 0; i < cards.size(); ++i) {
        std::printf("\nCard %zu\n  path        %ls\n", i, cards[i].c_str());
        good = probeCard(cards[i], i == 0 ? bitmap : std::string()) && good;
    }
    try {
        printLogTail(12);
    } catch (const ControlError&) {
        std::printf("\n(a real card keeps no log of its requests)\n");
    }
    std::printf("\n%s\n", good ? "Everything came through." : "Something is wrong: see above.");
    return good ? 0 : 1;
}
