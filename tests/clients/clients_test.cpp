// Every client profile on the registered module and the simulated card: what it lists, which formats it reaches with
// the card's own pictures in them, and what it meets without a signal, when the card is pulled, when the format changes
// and when another application has the card. The answers are the table in docs/clients.md, which must be as they say.
#include "tests/clients/clients_fixture.h"
#include "tests/support/own_dialogs.h"

#include <algorithm>
#include <cctype>
#include <thread>

namespace kestra::test {
namespace {

constexpr CLSID kAudioFilter = {0x47BAFEE0, 0x4F9B, 0x4115, {0xAA, 0x9F, 0x89, 0x64, 0xA2, 0x3B, 0x53, 0xE9}};
constexpr simcard::Signal kOtherSignal = {1, 0, 1, 7, 0, 0, 640, 480, 0, 60, 1, 0};
constexpr const char* kFormats[] = {"YUY2", "RGB24", "UYVY", "RGB32"};

using Maker = std::unique_ptr<Client> (*)();
constexpr Maker kClients[] = {makeObs, makeVlc, makeGStreamer, makeChromium, makeMpcHc, makeAmCap, makeOpenCv};

/// "MPC-HC" as the name of a test.
std::string identifier(std::string name) {
    std::erase_if(name, [](char c) { return !std::isalnum(static_cast<unsigned char>(c)); });
    return name;
}

std::string joined(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words)
        text += (text.empty() ? "" : ", ") + word;
    return text.empty() ? "none" : text;
}

/// @return how many of the frames are byte for byte what the card sent
size_t matching(const std::vector<Client::Frame>& frames, const std::string& format) {
    SentFrames sent(format, kSignal);
    return static_cast<size_t>(std::count_if(frames.begin(), frames.end(), [&](const Client::Frame& frame) {
        return sent.numberOf(frame.bytes).has_value();
    }));
}

/// One row of the table.
struct Answers {
    std::string listed, offered, reached, noSignal, pulled, changed, inUse;
};

class ClientRow : public ClientsTest, public testing::WithParamInterface<Maker> {
protected:
    Answers ask(Maker make) {
        Answers answers;
        const auto client = make();
        m_card.setSignal(kSignal);
        const auto devices = client->listDevices();
        answers.listed = std::find(devices.begin(), devices.end(), kDevice) != devices.end() ? "yes" : "no";
        const auto offered = client->listFormats(kDevice);
        answers.offered = joined(offered);
        std::vector<std::string> reached;
        for (const char* format : kFormats) {
            if (std::find(offered.begin(), offered.end(), format) == offered.end()) continue;
            if (attempt(*client, format) == "runs") {
                const auto frames = client->frames();
                const size_t good = matching(frames, format);
                EXPECT_EQ(good, frames.size())
                    << client->name() << ", " << format << ": a frame that the card did not send; frames of "
                    << frames.front().bytes.size() << " bytes, type " << client->type().text();
                if (good > 0 && good == frames.size()) reached.push_back(format);
            }
            client->close();
        }
        answers.reached = joined(reached);
        if (offered.empty()) return answers;
        const std::string format = offered.front();
        answers.inUse = whileInUse(*client, format);
        answers.pulled = whilePulled(*client, format);
        answers.changed = whileChanged(*client, format);
        const simcard::CardControl other{1}; // there are two, and a filter takes the first that has a signal
        m_card.setSignal({});
        other.setSignal({});
        answers.noSignal = client->listFormats(kDevice).empty() ? "no formats; " : "formats; ";
        answers.noSignal += attempt(*client, format);
        client->close();
        other.reset();
        return answers;
    }

private:
    /// Another application runs on the card.
    std::string whileInUse(Client& client, const std::string& format) {
        const auto other = makeObs();
        EXPECT_EQ(attempt(*other, "YUY2"), "runs");
        std::string answer = attempt(client, format);
        client.close();
        if (client.leftActive()) answer += ", graph left active";
        const size_t before = other->received();
        EXPECT_TRUE(waitUntil([&] { return other->received() > before + 2; }))
            << "the first application lost its picture";
        other->close();
        return answer;
    }
    std::string whilePulled(Client& client, const std::string& format) {
        EXPECT_EQ(attempt(client, format), "runs");
        client.events();
        m_card.unplug();
        const size_t before = client.received();
        m_card.plug();
        m_card.setSignal(kSignal);
        const bool again = waitUntil([&] { return client.received() > before + 3; }, std::chrono::seconds(8));
        const auto events = client.events();
        std::string answer = again ? "pauses, goes on by itself" : "stands still";
        const bool told = std::find(events.begin(), events.end(), EC_DEVICE_LOST) != events.end();
        if (told) answer += client.readsEvents() ? "; is told" : "; does not look";
        client.close();
        return answer;
    }
    std::string whileChanged(Client& client, const std::string& format) {
        EXPECT_EQ(attempt(client, format), "runs");
        client.events();
        m_card.setSignal(kOtherSignal);
        const bool told = waitUntil(
            [&] {
                const auto events = client.events();
                return std::find(events.begin(), events.end(), EC_DEVICE_LOST) != events.end();
            },
            std::chrono::seconds(5));
        const size_t before = client.received();
        const bool comes = waitUntil([&] { return client.received() > before + 3; }, std::chrono::milliseconds(500));
        client.close();
        const std::string again = attempt(client, format);
        client.close();
        m_card.setSignal(kSignal);
        return std::string(comes ? "frames of the old size" : "no picture") +
               (told ? ", EC_DEVICE_LOST" : ", no event") +
               (again == "runs" ? "; opened again: runs" : "; opened again: " + again);
    }
};

/// This process's dialog window, null if none is visible.
HWND visibleDialog() {
    return findOwnDialog(IsWindowVisible);
}

std::string rowOf(const Client& client, const Answers& answers) {
    return std::string("| ") + client.name() + " | " + answers.listed + " | " + answers.offered + " | " +
           answers.reached + " | " + answers.noSignal + " | " + answers.pulled + " | " + answers.changed + " | " +
           answers.inUse + " |";
}

TEST_P(ClientRow, IsWhatTheDocumentationSays) {
    const std::string row = rowOf(*GetParam()(), ask(GetParam()));
    std::printf("%s\n", row.c_str());
    EXPECT_EQ(documentedRow(std::string("| ") + GetParam()()->name() + " | "), row)
        << "docs/clients.md, table of the client profiles";
}
INSTANTIATE_TEST_SUITE_P(Clients, ClientRow, testing::ValuesIn(kClients),
                         [](const auto& client) { return identifier(client.param()->name()); });

// What several clients share.

TEST_F(ClientsTest, AClientThatSetsNoFormatGetsWhatThePreviousOneChose) {
    const auto vlc = makeVlc();
    ASSERT_EQ(attempt(*vlc, "RGB32"), "runs");
    vlc->close();
    const auto gstreamer = makeGStreamer();
    EXPECT_EQ(joined(gstreamer->listFormats(kDevice)), "YUY2, RGB24");
    ComRef<IBaseFilter> filter;
    ASSERT_EQ(s_module->create(kVideoFilter, IID_IBaseFilter, reinterpret_cast<void**>(filter.out())), S_OK);
    ComRef<IEnumMediaTypes> types;
    ASSERT_EQ(onlyPin(filter.get())->EnumMediaTypes(types.out()), S_OK);
    AM_MEDIA_TYPE* type = nullptr;
    ASSERT_EQ(types->Next(1, &type, nullptr), S_OK);
    EXPECT_EQ(formatName(*Type::taken(type)), "RGB32");
}

/// OBS's "Configure Video" and its like.
TEST_F(ClientsTest, ThePropertyPagesOpenWhileAClientRunsAndItsPictureGoesOn) {
    for (const Maker make : {makeObs, makeMpcHc, makeAmCap}) {
        const auto client = make();
        SCOPED_TRACE(client->name());
        ASSERT_EQ(attempt(*client, "YUY2"), "runs");
        std::thread user([&] {
            HWND frame = nullptr;
            EXPECT_TRUE(waitUntil([&] { return (frame = visibleDialog()) != nullptr; }, std::chrono::seconds(30)));
            const size_t before = client->received();
            EXPECT_TRUE(waitUntil([&] { return client->received() > before + 10; })) << "the picture stands still";
            EXPECT_TRUE(IsWindowVisible(frame));
            EXPECT_TRUE(GetWindow(frame, GW_CHILD)) << "an empty frame";
            PostMessageW(frame, WM_COMMAND, MAKEWPARAM(IDCANCEL, BN_CLICKED), 0);
        });
        EXPECT_EQ(client->showProperties(), S_OK) << client->failedAt();
        user.join();
        client->close();
    }
}

TEST_F(ClientsTest, TheFirstStampOfARunIsZeroWhichFFmpegTakesForNone) {
    const auto obs = makeObs();
    ASSERT_EQ(attempt(*obs, "YUY2"), "runs");
    EXPECT_EQ(obs->frames().at(0).start, 0);
    obs->close();
}

/// A tee that copies wants a second buffer while it holds the first, and the sound pin has one: it waits. A graph that
/// stops such a tee before the source waits, too; the source's own Stop takes the buffers away and sets it free.
TEST_F(ClientsTest, TheSourcesStopAloneFreesATeeThatWaitsForASecondSoundBuffer) {
    ComRef<IBaseFilter> source;
    ASSERT_EQ(s_module->create(kAudioFilter, IID_IBaseFilter, reinterpret_cast<void**>(source.out())), S_OK);
    ComRef<IGraphBuilder> graph;
    ComRef<ICaptureGraphBuilder2> builder;
    ASSERT_EQ(CoCreateInstance(CLSID_FilterGraph, nullptr, CLSCTX_INPROC_SERVER, IID_IGraphBuilder,
                               reinterpret_cast<void**>(graph.out())),
              S_OK);
    ASSERT_EQ(CoCreateInstance(CLSID_CaptureGraphBuilder2, nullptr, CLSCTX_INPROC_SERVER, IID_ICaptureGraphBuilder2,
                               reinterpret_cast<void**>(builder.out())),
              S_OK);
    const ComRef<Sink> sink(new Sink);
    ASSERT_EQ(builder->SetFiltergraph(graph.get()), S_OK);
    ASSERT_EQ(graph->AddFilter(source.get(), L"Source"), S_OK);
    ASSERT_EQ(graph->AddFilter(sink.get(), L"Receiver"), S_OK);
    ASSERT_EQ(builder->RenderStream(&PIN_CATEGORY_CAPTURE, &MEDIATYPE_Audio, source.get(), nullptr, sink.get()), S_OK);
    ComRef<IPin> peer;
    ASSERT_EQ(onlyPin(source.get())->ConnectedTo(peer.out()), S_OK);
    ComRef<IMemAllocator> buffers;
    ASSERT_EQ(query<IMemInputPin>(peer.get(), IID_IMemInputPin)->GetAllocator(buffers.out()), S_OK);
    const auto control = query<IMediaControl>(graph.get(), IID_IMediaControl);
    ASSERT_TRUE(SUCCEEDED(control->Run()));
    // Stuck: the only buffer has been in use for longer than ten blocks last. A tee that does not copy delivers.
    auto busySince = std::chrono::steady_clock::now();
    EXPECT_TRUE(waitUntil([&] {
        ComRef<IMediaSample> free;
        const auto now = std::chrono::steady_clock::now();
        if (buffers->GetBuffer(free.out(), nullptr, nullptr, AM_GBF_NOWAIT) == S_OK) busySince = now;
        return now - busySince > std::chrono::milliseconds(500) || sink->samples().size() > 10;
    }));
    const auto began = std::chrono::steady_clock::now();
    EXPECT_EQ(source->Stop(), S_OK);
    EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(2));
    EXPECT_TRUE(SUCCEEDED(control->Stop()));
}

} // namespace
} // namespace kestra::test
