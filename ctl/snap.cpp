// snap: one picture, decoded by the product's decoder.
#include "ctl/cards.h"
#include "ctl/console.h"
#include "ctl/grab_session.h"
#include "ctl/json.h"
#include "ctl/output_file.h"
#include "ctl/picture_file.h"
#include "ctl/signal_text.h"
#include "ctl/text.h"
#include "ctl/verbs.h"
#include "decode/decode.h"
#include "protocol/raw_frame.h"

#include <vector>

namespace kestra::ctl {

namespace {

struct RawFrame {
    TarnisCameraData camera{};
    std::vector<uint8_t> bytes;
    uint32_t sizeBytes = 0;
};

RawFrame grabFrame(OpenCard& card, uint32_t depth) {
    const TarnisCameraStatus status = cameraStatus(card);
    RawFrame frame;
    frame.camera.outputSelector = depth == 10 ? TARNIS_OUTPUT_YUV422_10 : TARNIS_OUTPUT_YUV422_8;
    frame.bytes.resize(rawFrameBytes(frame.camera.outputSelector, status.width, status.height));
    const uint32_t code = card.ask("a picture", frame, [](TARNIS_HANDLE handle, RawFrame& result) {
        return TARNIS_SnapFrames(handle, 0, &result.camera, result.bytes.data(),
                                 static_cast<uint32_t>(result.bytes.size()), &result.sizeBytes);
    });
    const TarnisCameraStatus& taken = frame.camera.status;
    const bool fits = rawFrameBytes(frame.camera.outputSelector, taken.width, taken.height) == frame.sizeBytes &&
                      frame.sizeBytes == frame.bytes.size();
    if (code == TARNIS_SUCCESS && fits) return frame;
    needSignal(card); // it went, or changed, meanwhile
    if (code != TARNIS_SUCCESS) card.fail("a picture", code);
    throw Failure(ExitCode::Failure, "the signal changed while the picture was taken", "try again");
}

/// A single picture needs the channel, but no frames.
class NoFrames final : public FrameReceiver {
    void receive(int, const TarnisFrameInfo&, int64_t) noexcept override {}
};

std::vector<uint8_t> pngOf(const RawFrame& frame, uint32_t depth) {
    const TarnisCameraStatus& status = frame.camera.status;
    if (depth == 10) return pngOfRgb16(rgb16OfRaw10(status, frame.bytes), status.width, status.height);
    auto stride = static_cast<int32_t>(rgbLineBytes(status.width));
    std::vector<uint8_t> bgr(size_t(stride) * status.height);
    if (TARNIS_Decode(&frame.camera, frame.bytes.data(), bgr.data(), &stride, 2, nullptr, nullptr) != TARNIS_SUCCESS)
        throw Failure(ExitCode::Failure, "the picture cannot be decoded", "there may not be enough memory");
    return pngOfBgr(bgr, status.width, status.height);
}

} // namespace

ExitCode runSnap(const Options& options, Console& console) {
    const Options::Snap& snap = options.snap;
    if (snap.raw && snap.file == "-")
        throw Failure(ExitCode::Usage, "--raw has no name for its file beside the standard output",
                      "name a file in place of -");
    NoFrames none;
    OpenCard card(chooseCard(options.card));
    needSignal(card);
    const GrabSession session(card, false, none, console);
    const RawFrame frame = grabFrame(card, snap.depth);
    const std::vector<uint8_t> png = pngOf(frame, snap.depth);
    writeFile(snap.file, png.data(), png.size());
    const std::string rawFile = snap.raw ? withEnding(snap.file, ".raw") : "";
    if (snap.raw) writeFile(rawFile, frame.bytes.data(), frame.bytes.size());
    if (snap.file == "-") return ExitCode::Done;
    if (options.json) {
        Json json = jsonOf("snap");
        json.update({{"card", card.entry().number}, {"file", snap.file}, {"depth", snap.depth}});
        json["rawFile"] = snap.raw ? Json(rawFile) : Json(nullptr);
        json["signal"] = signalJson(frame.camera.status);
        console.write(jsonLine(json));
    } else {
        console.write(format("%s: %s in %u bits, %s\n", snap.file.c_str(), signalName(frame.camera.status).c_str(),
                             snap.depth == 10 ? 16u : 8u, byteCount(png.size()).c_str()));
        if (snap.raw)
            console.write(format("%s: the raw frame, %s\n", rawFile.c_str(), byteCount(frame.bytes.size()).c_str()));
    }
    return ExitCode::Done;
}

} // namespace kestra::ctl
