// One run: what happens to each frame on the grabbing thread, and how the run is ended.
#include "capture/capture_run.h"

#include "capture/capture_filter.h"
#include "capture/trace.h"
#include "protocol/frame_rate.h"

#include <map>

namespace kestra {
namespace {

constexpr REFERENCE_TIME kSecond = 10'000'000;

std::mutex g_mutex; // guards the table
std::map<uint64_t, std::weak_ptr<CaptureRun>> g_runs;
uint64_t g_lastNumber = 0;

} // namespace

int32_t framesPerSecond(const TarnisCameraStatus& status) noexcept {
    const uint32_t perSecond = framesOfRate(reportedRate(status), status.interlaced == 1);
    return perSecond == 0 ? 25 : static_cast<int32_t>(perSecond);
}

CaptureRun::CaptureRun(const FrameTexts& texts, Receiver receiver, State state)
    : m_texts(texts), m_state(state), m_receiver(std::make_shared<const Receiver>(std::move(receiver))) {}

CaptureRun::~CaptureRun() {
    const std::lock_guard lock(g_mutex);
    g_runs.erase(m_number);
}

uint64_t CaptureRun::enlist(const std::shared_ptr<CaptureRun>& run) {
    const std::lock_guard lock(g_mutex);
    g_runs.emplace(g_lastNumber + 1, run);
    return run->m_number = ++g_lastNumber;
}

void CaptureRun::onFrame(uint64_t number, const TarnisFrameInfo* frame) noexcept {
    try {
        std::shared_ptr<CaptureRun> run;
        {
            const std::lock_guard lock(g_mutex);
            const auto found = g_runs.find(number);
            if (found != g_runs.end()) run = found->second.lock();
        }
        if (run) run->frameArrived(*frame);
    } catch (...) { // the system refused a lock: this frame is lost
    }
}

void CaptureRun::setState(State state) {
    {
        const std::lock_guard lock(m_mutex);
        m_state = state;
    }
    m_changed.notify_all();
}

void CaptureRun::end() {
    std::shared_ptr<const Receiver> last; // released without the lock
    setState(State::Stopped);
    const std::lock_guard lock(m_mutex);
    last.swap(m_receiver);
}

bool CaptureRun::hasEnded() {
    const std::lock_guard lock(m_mutex);
    return !m_receiver;
}

std::shared_ptr<const CaptureRun::Receiver> CaptureRun::activeReceiver() {
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [this] { return m_state != State::Starting || !m_receiver; });
    return m_state == State::Active ? m_receiver : nullptr;
}

void CaptureRun::frameArrived(const TarnisFrameInfo& frame) {
    trace(m_texts.start);
    const std::shared_ptr<const Receiver> receiver = activeReceiver();
    if (!receiver) return trace(m_texts.notActive);
    switch (frame.dmaStatus) {
    case DMA_STATUS_GOOD:
        break;
    case DMA_STATUS_DICONNECTED:
        receiver->pin->EndOfStream();
        inputLost(receiver->filter);
        return trace(m_texts.disconnected);
    case DMA_STATUS_FRAME_DROPED:
        return trace(m_texts.dropped);
    case DMA_STATUS_FIFO_OVERRUN:
        return trace(m_texts.overrun);
    case DMA_STATUS_ABORTED:
        return trace(m_texts.aborted);
    default:
        return;
    }
    if (!frame.lpRawBuffer) return trace(m_texts.noFrame);
    deliver(*receiver, frame);
}

void CaptureRun::deliver(const Receiver& receiver, const TarnisFrameInfo& frame) {
    const int32_t perSecond = rate;
    REFERENCE_TIME start = m_delivered * kSecond / perSecond, stop = start + kSecond / perSecond;
    ComRef<IMediaSample> sample;
    if (FAILED(receiver.allocator->GetBuffer(sample.out(), nullptr, nullptr, 0)) || !sample)
        return trace(m_texts.noBuffer);
    if (!fill(*sample.get(), frame)) return;
    sample->SetTime(&start, &stop);
    sample->SetSyncPoint(TRUE);
    const HRESULT hr = receiver.input->Receive(sample.get());
    if (hr == S_OK) {
        ++m_delivered;
    } else {
        receiver.filter.storeDeliveryResult(hr); // see docs/compatibility.md
        trace(m_texts.notDelivered);
        if (!m_texts.notDeliveredIsDone) return;
    }
    trace(m_texts.done);
}

} // namespace kestra
