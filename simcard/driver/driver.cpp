// Kernel driver of the simulated card: requests in, frames out. Requests arrive on the system's dispatch thread; one
// thread per card paces the frames; cancels come from anywhere. Three locks per card, always taken in this order:
// `naming` while it comes, goes or refuses to be opened, `dma` for as long as a frame is written (or the memory it goes
// to is given up), `state` around every call of the model. What the model completes goes back to the system with
// neither of the latter held: the system completes under a lock of its own, which it also holds while it calls a cancel
// routine, and that takes both.
#include "protocol/card_interface.h"
#include "simcard/driver/system.h"
#include "simcard/model/card.h"
#include "simcard/model/picture.h"
#include "simcard/model/sound.h"

#include <cstring>
#include <new>

namespace kestra::simcard {

namespace {

const GUID kInterface = asGuid<GUID>(kCardInterface);
constexpr uint32_t kLargestFrame = 256u << 20;
constexpr ULONG kTag = 0x6B73654B; // the bytes read Kesk

struct Extension;

class Host final : public CardHost {
public:
    void complete(void* token, uint32_t status, uint32_t replySize) override;
    void signalEvent(uint32_t client, uint64_t handle) override;
    uint64_t now100ns() override;
    /// Takes the oldest completed request that the system has not been given back; null if there is none.
    IRP* takeCompleted() noexcept;
    Extension* extension = nullptr;

private:
    IRP *m_first = nullptr, *m_last = nullptr;
};

struct Extension {
    bool control;
    DEVICE_OBJECT* lower;
    uint32_t number;
    UNICODE_STRING link;
    uint32_t refusal;  ///< status that openings get; kStatusSuccess: they come in
    HANDLE standIn[2]; ///< what the link leads to meanwhile
    WCHAR physicalName[128];
    Lock naming, dma, state;
    Host host;
    Card* card;
    uint8_t* frame;
    uint32_t frameCapacity;
    PictureSource picture; // draws in `frame`
    uint8_t* block;        ///< sound
    uint32_t blockCapacity;
    uint8_t* script; ///< of a replay
    HANDLE thread;
    void* threadObject;
    volatile LONG stopping;
    bool started;
};

Lock g_lock; // guards g_cards
Extension* g_cards[kMaxCards];
DEVICE_OBJECT* g_control;

void* allocate(size_t size) {
    void* memory = ExAllocatePoolWithTag(NonPagedPool, size, kTag);
    if (memory) std::memset(memory, 0, size);
    return memory;
}

NTSTATUS finish(IRP* irp, NTSTATUS status, ULONG_PTR information = 0) {
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = information;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

HANDLE openClient(uint32_t processId) {
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, nullptr, 0, nullptr, nullptr);
    CLIENT_ID id = {reinterpret_cast<HANDLE>(uintptr_t(processId)), nullptr};
    HANDLE process = nullptr;
    return NT_SUCCESS(g_system.openProcess(&process, 0x1FFFFF, &attributes, &id)) ? process : nullptr;
}

void Host::complete(void* token, uint32_t status, uint32_t replySize) {
    IRP* irp = static_cast<IRP*>(token);
    IoSetCancelRoutine(irp, nullptr);
    irp->IoStatus.Status = NTSTATUS(status);
    irp->IoStatus.Information = replySize;
    // Without a reply the client keeps its memory: Wine would give back the image of it that came with the request,
    // over the frames written since.
    if (replySize == 0 && irp->MdlAddress) irp->Flags |= IRP_WRITE_OPERATION;
    irp->Tail.Overlay.DriverContext[0] = nullptr; // the link to the next
    if (m_last)
        m_last->Tail.Overlay.DriverContext[0] = irp;
    else
        m_first = irp;
    m_last = irp;
}

IRP* Host::takeCompleted() noexcept {
    IRP* irp = m_first;
    if (!irp) return nullptr;
    m_first = static_cast<IRP*>(irp->Tail.Overlay.DriverContext[0]);
    if (!m_first) m_last = nullptr;
    return irp;
}

/// Declared before the locks of a scope that calls the model: gives back, once they are released, what was completed.
class Completions {
public:
    explicit Completions(Extension& x) noexcept : m_extension(x) {}
    ~Completions() {
        while (IRP* irp = next())
            IoCompleteRequest(irp, IO_NO_INCREMENT);
    }
    Completions(const Completions&) = delete;
    Completions& operator=(const Completions&) = delete;

private:
    IRP* next() noexcept {
        Locked state(m_extension.state);
        return m_extension.host.takeCompleted();
    }
    Extension& m_extension;
};

void Host::signalEvent(uint32_t client, uint64_t handle) {
    HANDLE process = openClient(extension->card->processOf(client));
    if (!process) return;
    HANDLE event = nullptr;
    if (NT_SUCCESS(g_system.duplicate(process, reinterpret_cast<HANDLE>(uintptr_t(handle)), HANDLE(-1), &event, 0, 0,
                                      2 /* same access */))) {
        g_system.setEvent(event, nullptr);
        g_system.close(event);
    }
    g_system.close(process);
}

uint64_t Host::now100ns() {
    LARGE_INTEGER counter, frequency;
    g_system.queryCounter(&counter, &frequency);
    const uint64_t whole = uint64_t(counter.QuadPart) / uint64_t(frequency.QuadPart);
    const uint64_t rest = uint64_t(counter.QuadPart) % uint64_t(frequency.QuadPart);
    return whole * 10000000 + rest * 10000000 / uint64_t(frequency.QuadPart);
}

void forgetRefusal(Extension& x) {
    x.refusal = kStatusSuccess;
    for (HANDLE& standIn : x.standIn) {
        if (standIn) g_system.close(standIn);
        standIn = nullptr;
    }
}

/// Makes something that nobody can open for reading and writing, as the system answers with this status.
/// @return its name; null: there is no such thing
const WCHAR* makeStandIn(Extension& x, uint32_t status) {
    static WCHAR pipe[] = L"\\Device\\NamedPipe\\kestrasim0", slot[] = L"\\Device\\MailSlot\\kestrasim0";
    const bool isPipe = status == kStatusAccessDenied;
    if (!isPipe && status != kStatusSharingViolation) return nullptr;
    WCHAR* const text = isPipe ? pipe : slot;
    text[(isPipe ? sizeof pipe : sizeof slot) / sizeof(WCHAR) - 2] = WCHAR(L'0' + x.number);
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, text);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, 0, nullptr, nullptr);
    IO_STATUS_BLOCK io = {};
    LARGE_INTEGER patience;
    patience.QuadPart = -1;
    if (isPipe) // that only brings in
        return NT_SUCCESS(g_system.createPipe(&x.standIn[0], GENERIC_READ | SYNCHRONIZE, &attributes, &io,
                                              FILE_SHARE_WRITE, FILE_OPEN_IF, 0, 0, 0, 0, 1, 1, 1, &patience))
                   ? text
                   : nullptr;
    // With a writer that wants to be the only one.
    return NT_SUCCESS(g_system.createMailslot(&x.standIn[0], GENERIC_READ | SYNCHRONIZE, &attributes, &io, 0, 0, 0,
                                              &patience)) &&
                   NT_SUCCESS(g_system.openFile(&x.standIn[1], GENERIC_WRITE, &attributes, &io, FILE_SHARE_READ, 0))
               ? text
               : nullptr;
}

/// Wine opens a file whatever a driver answers, so an opening is refused by leading the card's name elsewhere, or by
/// taking it away: the interface stays listed.
void nameCard(Extension& x, uint32_t refusal) {
    if (refusal == x.refusal) return;
    forgetRefusal(x);
    IoDeleteSymbolicLink(&x.link);
    x.refusal = refusal;
    const WCHAR* target = refusal == kStatusSuccess ? x.physicalName : makeStandIn(x, refusal);
    if (!target) return;
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, target);
    IoCreateSymbolicLink(&x.link, &name);
}

void updateLink(Extension& x) {
    Locked naming(x.naming);
    uint32_t refusal = kStatusSuccess;
    {
        Locked state(x.state);
        if (!x.card->plugged()) return;
        refusal = x.card->openRefusal();
    }
    nameCard(x, refusal);
}

void setPlugged(Extension& x, bool plugged) {
    Locked naming(x.naming);
    // The interface goes first: nobody opens a card that is about to answer "not connected". The system takes back only
    // what has its name.
    if (!plugged) {
        nameCard(x, kStatusSuccess);
        IoSetDeviceInterfaceState(&x.link, FALSE);
    }
    bool comes = false;
    {
        const Completions completions(x);
        Locked dma(x.dma);
        Locked state(x.state);
        comes = plugged && !x.card->plugged();
        x.card->setPlugged(plugged);
    }
    if (comes) IoSetDeviceInterfaceState(&x.link, TRUE);
}

// Frames.

PictureFormat pictureFormat(const FrameJob& job) {
    return {job.signal.width,
            job.signal.height,
            job.signal.interlaced != 0,
            uint8_t(job.selector),
            uint8_t(job.signal.nominalFrameRate()),
            static_cast<PictureKind>(job.picture),
            job.converter};
}

/// Makes sure that there are `bytes` of scratch memory; its contents are lost.
bool reserve(uint8_t*& memory, uint32_t& capacity, uint32_t bytes) {
    if (capacity >= bytes) return true;
    if (memory) ExFreePoolWithTag(memory, kTag);
    capacity = 0;
    memory = bytes <= kLargestFrame ? static_cast<uint8_t*>(allocate(bytes)) : nullptr;
    if (memory) capacity = bytes;
    return memory != nullptr;
}

/// The bytes of the job's picture or sound in the card's own memory; null if there is not enough.
const uint8_t* makeFrame(Extension& x, const FrameJob& job) {
    if (job.port == 1) {
        if (!reserve(x.block, x.blockCapacity, job.bytes)) return nullptr;
        soundBlock(job.frameNumber, job.signal.nominalFrameRate(), job.selector, x.block);
        return x.block;
    }
    const PictureFormat format = pictureFormat(job);
    if (x.frameCapacity >= job.bytes && sameContent(x.picture.format(), format))
        return x.picture.advance(job.frameNumber);
    if (!reserve(x.frame, x.frameCapacity, job.bytes)) return nullptr;
    return x.picture.prepare(format, x.frame, x.frameCapacity, job.frameNumber) ? x.frame : nullptr;
}

/// Of a byte in every so many, so that it costs nothing.
uint32_t sumOf(const uint8_t* bytes, uint32_t count) {
    uint32_t sum = 0;
    for (uint32_t i = 0; i < count; i += 1 + count / 64)
        sum += bytes[i];
    return sum;
}

bool writeFrame(Extension& x, FrameJob& job) {
    const uint8_t* bytes = makeFrame(x, job);
    if (!bytes) return false;
    job.sourceSum = sumOf(bytes, job.bytes);
    if (job.snap) {
        std::memcpy(job.target, bytes, job.bytes);
        return true;
    }
    HANDLE process = openClient(job.processId);
    if (!process) return false;
    SIZE_T written = 0;
    const NTSTATUS status =
        g_system.writeMemory(process, reinterpret_cast<void*>(uintptr_t(job.address)), bytes, job.bytes, &written);
    g_system.close(process);
    return NT_SUCCESS(status) && written == job.bytes;
}

void oneFrame(Extension& x) {
    {
        const Completions completions(x);
        Locked state(x.state);
        x.card->tick();
    }
    for (;;) {
        const Completions completions(x);
        Locked dma(x.dma);
        FrameJob job;
        {
            Locked state(x.state);
            if (!x.card->beginFrame(job)) return;
        }
        const bool written = writeFrame(x, job);
        Locked state(x.state);
        x.card->endFrame(job, written);
    }
}

void NTAPI paceFrames(void* context) {
    Extension& x = *static_cast<Extension*>(context);
    constexpr uint64_t kLongestNap = 20000; // 2 ms: how late a delayed request or a stop may be noticed
    uint64_t due = x.host.now100ns();
    while (!x.stopping) {
        bool unplug, plug, wanted, ready;
        Signal signal;
        Pace pace;
        {
            const Completions completions(x);
            Locked state(x.state);
            x.card->poll();
            unplug = x.card->unplugRequested();
            plug = x.card->plugRequested();
            wanted = x.card->wantsFrames();
            ready = x.card->anyReady() && x.card->allReady();
            signal = x.card->signal();
            pace = x.card->options().pace;
        }
        if (unplug || plug) setPlugged(x, plug);
        const uint64_t now = x.host.now100ns();
        if (!wanted) {
            due = now;
        } else if (pace == Pace::AsTaken ? ready : now >= due) {
            const uint64_t period = 10000000ull * signal.rateDenominator / signal.rateNumerator;
            // After a long stall the clock goes on from now: a card does not catch up on missed frames.
            if (now > due + 8 * period) {
                Locked state(x.state);
                x.card->skip(uint32_t((now - due) / period));
                due = now;
            }
            due += period;
            oneFrame(x);
            continue;
        }
        uint64_t nap = kLongestNap;
        if (wanted && pace == Pace::AsTaken)
            nap = 2000;
        else if (wanted && due - now < nap)
            nap = due - now;
        LARGE_INTEGER interval;
        interval.QuadPart = -int64_t(nap);
        g_system.delay(FALSE, &interval);
    }
    PsTerminateSystemThread(STATUS_SUCCESS);
}

// Requests of clients.

void NTAPI cancelRequest(DEVICE_OBJECT* device, IRP* irp) {
    IoReleaseCancelSpinLock(irp->CancelIrql);
    auto& x = *static_cast<Extension*>(device->DeviceExtension);
    const Completions completions(x);
    Locked dma(x.dma);
    Locked state(x.state);
    x.card->cancel(irp); // false: somebody else is completing it
}

NTSTATUS clientRequest(Extension& x, IRP* irp) {
    IO_STACK_LOCATION* stack = IoGetCurrentIrpStackLocation(irp);
    const auto& control = stack->Parameters.DeviceIoControl;
    Request request = {};
    request.token = irp;
    request.client = uint32_t(uintptr_t(stack->FileObject->FsContext)) - 1;
    request.code = control.IoControlCode;
    request.in = static_cast<uint8_t*>(irp->AssociatedIrp.SystemBuffer);
    request.inSize = request.in ? control.InputBufferLength : 0;
    request.outSize = control.OutputBufferLength;
    if ((request.code & 3) == METHOD_BUFFERED)
        request.out = static_cast<uint8_t*>(irp->AssociatedIrp.SystemBuffer);
    else if (irp->MdlAddress)
        request.out = static_cast<uint8_t*>(MmGetSystemAddressForMdlSafe(irp->MdlAddress, NormalPagePriority));
    if (!request.out) request.outSize = 0;
    // Only these end the use of DMA memory and so wait for a frame that is being written.
    const bool endsDma = request.code == wire::kStopGrabbing || request.code == wire::kChannelAccess ||
                         request.code == wire::kOpenSession || request.code == wire::kPrepare;
    Outcome outcome;
    {
        const Completions completions(x);
        if (endsDma) x.dma.lock();
        x.state.lock();
        // Marked before the model sees it: from then on it may be completed at any moment.
        IoMarkIrpPending(irp);
        outcome = x.card->request(request);
        if (outcome.status == kStatusPending) {
            IoSetCancelRoutine(irp, cancelRequest);
            if (irp->Cancel) x.card->cancel(irp);
        }
        x.state.unlock();
        if (endsDma) x.dma.unlock();
    }
    if (outcome.status != kStatusPending) finish(irp, NTSTATUS(outcome.status), outcome.replySize);
    return STATUS_PENDING;
}

// Requests of the control program.

NTSTATUS controlRequest(IRP* irp) {
    const auto& parameters = IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl;
    auto* buffer = static_cast<uint8_t*>(irp->AssociatedIrp.SystemBuffer);
    const ULONG inSize = parameters.InputBufferLength, outSize = parameters.OutputBufferLength;
    if (!buffer || inSize < sizeof(CardNumber)) return finish(irp, STATUS_INVALID_PARAMETER);
    uint32_t number;
    std::memcpy(&number, buffer, sizeof number);
    Locked cards(g_lock);
    if (number >= kMaxCards || !g_cards[number]) return finish(irp, STATUS_NO_SUCH_DEVICE);
    Extension& x = *g_cards[number];
    const auto has = [&](size_t size) { return inSize == size; };
    if (parameters.IoControlCode == kControlSetPlugged && has(sizeof(SetPlugged))) {
        SetPlugged request;
        std::memcpy(&request, buffer, sizeof request);
        setPlugged(x, request.plugged != 0);
        return finish(irp, STATUS_SUCCESS);
    }
    uint8_t* script = nullptr;
    const ULONG scriptSize = inSize - sizeof(CardNumber);
    if (parameters.IoControlCode == kControlSetReplay && scriptSize != 0) {
        script = static_cast<uint8_t*>(allocate(scriptSize));
        if (!script) return finish(irp, STATUS_INSUFFICIENT_RESOURCES);
        std::memcpy(script, buffer + sizeof(CardNumber), scriptSize);
    }
    bool ok = true;
    ULONG replySize = 0;
    {
        const Completions completions(x);
        Locked dma(x.dma);
        Locked state(x.state);
        switch (parameters.IoControlCode) {
        case kControlGetCards: {
            if (outSize < sizeof(CardState)) return finish(irp, STATUS_BUFFER_TOO_SMALL);
            auto& reply = *reinterpret_cast<CardState*>(buffer);
            std::memset(static_cast<void*>(&reply), 0, sizeof reply);
            reply.card = number;
            x.card->readState(reply);
            const size_t bytes = x.link.Length < sizeof reply.devicePath - 2 ? x.link.Length : 0;
            std::memcpy(reply.devicePath, x.link.Buffer, bytes);
            if (bytes > 4) reply.devicePath[1] = u'\\'; // \??\ for the kernel is \\?\ for a program
            replySize = sizeof reply;
            break;
        }
        case kControlSetSignal:
            ok = has(sizeof(SetSignal)) && x.card->setSignal(reinterpret_cast<SetSignal*>(buffer)->signal);
            break;
        case kControlSetOptions:
            ok = has(sizeof(SetOptions)) && x.card->setOptions(reinterpret_cast<SetOptions*>(buffer)->options);
            break;
        case kControlAddFault:
            ok = has(sizeof(AddFault)) && x.card->addFault(reinterpret_cast<AddFault*>(buffer)->fault);
            break;
        case kControlClearFaults:
            x.card->clearFaults();
            break;
        case kControlReadLog: {
            ok = has(sizeof(LogRequest));
            if (!ok) break;
            LogRequest request;
            std::memcpy(&request, buffer, sizeof request);
            replySize = sizeof(LogEntry) * x.card->readLog(request.firstSequence, reinterpret_cast<LogEntry*>(buffer),
                                                           outSize / sizeof(LogEntry));
            break;
        }
        case kControlClearLog:
            x.card->clearLog();
            break;
        case kControlReset:
            x.card->reset();
            break;
        case kControlSetReplay: {
            ok = x.card->setReplay(script, scriptSize);
            uint8_t* former = x.script;
            x.script = script;
            script = former; // no longer in use
            break;
        }
        case kControlReadReplay:
            if (outSize < sizeof(ReplayReport)) return finish(irp, STATUS_BUFFER_TOO_SMALL);
            x.card->readReplay(*reinterpret_cast<ReplayReport*>(buffer));
            replySize = sizeof(ReplayReport);
            break;
        case kControlReadWrites:
            replySize = sizeof(WrittenFrame) *
                        x.card->readWrites(reinterpret_cast<WrittenFrame*>(buffer), outSize / sizeof(WrittenFrame));
            break;
        default:
            ok = false;
        }
    }
    if (script) ExFreePoolWithTag(script, kTag);
    updateLink(x);
    return finish(irp, ok ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER, replySize);
}

// Entry points of the driver.

NTSTATUS NTAPI dispatchControl(DEVICE_OBJECT* device, IRP* irp) {
    auto& x = *static_cast<Extension*>(device->DeviceExtension);
    return x.control ? controlRequest(irp) : clientRequest(x, irp);
}

NTSTATUS NTAPI dispatchCreate(DEVICE_OBJECT* device, IRP* irp) {
    auto& x = *static_cast<Extension*>(device->DeviceExtension);
    if (x.control) return finish(irp, STATUS_SUCCESS);
    uint32_t client = 0, status;
    {
        Locked state(x.state);
        status = x.card->open(uint32_t(uintptr_t(PsGetCurrentProcessId())), client);
    }
    if (status == kStatusSuccess)
        IoGetCurrentIrpStackLocation(irp)->FileObject->FsContext = reinterpret_cast<void*>(uintptr_t(client + 1));
    return finish(irp, NTSTATUS(status));
}

NTSTATUS NTAPI dispatchClose(DEVICE_OBJECT* device, IRP* irp) {
    auto& x = *static_cast<Extension*>(device->DeviceExtension);
    FILE_OBJECT* file = IoGetCurrentIrpStackLocation(irp)->FileObject;
    if (!x.control && file && file->FsContext) {
        const Completions completions(x);
        Locked dma(x.dma);
        Locked state(x.state);
        x.card->close(uint32_t(uintptr_t(file->FsContext)) - 1);
        file->FsContext = nullptr; // cleanup and close both come here
    }
    return finish(irp, STATUS_SUCCESS);
}

void removeCard(Extension& x) {
    if (x.started) setPlugged(x, false);
    {
        Locked cards(g_lock);
        if (x.number < kMaxCards && g_cards[x.number] == &x) g_cards[x.number] = nullptr;
    }
    x.stopping = 1;
    if (x.threadObject) {
        KeWaitForSingleObject(x.threadObject, Executive, KernelMode, FALSE, nullptr);
        ObDereferenceObject(x.threadObject);
        g_system.close(x.thread);
    }
    forgetRefusal(x);
    if (x.frame) ExFreePoolWithTag(x.frame, kTag);
    if (x.block) ExFreePoolWithTag(x.block, kTag);
    if (x.script) ExFreePoolWithTag(x.script, kTag);
    if (x.card) ExFreePoolWithTag(x.card, kTag);
    x.card = nullptr;
    if (x.link.Buffer) RtlFreeUnicodeString(&x.link);
}

NTSTATUS NTAPI dispatchPnp(DEVICE_OBJECT* device, IRP* irp) {
    auto& x = *static_cast<Extension*>(device->DeviceExtension);
    IO_STACK_LOCATION* stack = IoGetCurrentIrpStackLocation(irp);
    switch (stack->MinorFunction) {
    case IRP_MN_START_DEVICE:
        x.started = true;
        IoSetDeviceInterfaceState(&x.link, TRUE);
        irp->IoStatus.Status = STATUS_SUCCESS;
        break;
    case IRP_MN_QUERY_REMOVE_DEVICE:
        irp->IoStatus.Status = STATUS_SUCCESS;
        break;
    case IRP_MN_REMOVE_DEVICE: {
        removeCard(x);
        DEVICE_OBJECT* lower = x.lower;
        irp->IoStatus.Status = STATUS_SUCCESS;
        IoSkipCurrentIrpStackLocation(irp);
        const NTSTATUS status = IoCallDriver(lower, irp);
        IoDetachDevice(lower);
        IoDeleteDevice(device);
        return status;
    }
    default:
        break;
    }
    IoSkipCurrentIrpStackLocation(irp);
    return IoCallDriver(x.lower, irp);
}

NTSTATUS NTAPI addDevice(DRIVER_OBJECT* driver, DEVICE_OBJECT* physical) {
    DEVICE_OBJECT* device = nullptr;
    NTSTATUS status = IoCreateDevice(driver, sizeof(Extension), nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &device);
    if (!NT_SUCCESS(status)) return status;
    auto* x = new (device->DeviceExtension) Extension();
    x->naming.init();
    x->dma.init();
    x->state.init();
    x->number = kMaxCards;
    {
        Locked cards(g_lock);
        for (uint32_t i = kMaxCards; i-- > 0;)
            if (!g_cards[i]) x->number = i;
    }
    void* memory = x->number < kMaxCards ? allocate(sizeof(Card)) : nullptr;
    if (!memory) {
        IoDeleteDevice(device);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    x->host.extension = x;
    x->card = new (memory) Card(x->host, x->number);
    ULONG nameBytes = 0;
    IoGetDeviceProperty(physical, DevicePropertyPhysicalDeviceObjectName, sizeof x->physicalName, x->physicalName,
                        &nameBytes);
    status = IoRegisterDeviceInterface(physical, &kInterface, nullptr, &x->link);
    if (NT_SUCCESS(status))
        status = PsCreateSystemThread(&x->thread, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr, paceFrames, x);
    if (NT_SUCCESS(status))
        status = ObReferenceObjectByHandle(x->thread, SYNCHRONIZE, nullptr, KernelMode, &x->threadObject, nullptr);
    if (!NT_SUCCESS(status)) {
        removeCard(*x);
        IoDeleteDevice(device);
        return status;
    }
    x->lower = IoAttachDeviceToDeviceStack(device, physical);
    {
        Locked cards(g_lock);
        g_cards[x->number] = x;
    }
    device->Flags &= ~DO_DEVICE_INITIALIZING;
    return STATUS_SUCCESS;
}

void NTAPI unload(DRIVER_OBJECT*) {
    UNICODE_STRING link;
    RtlInitUnicodeString(&link, L"\\DosDevices\\KestraSimControl");
    IoDeleteSymbolicLink(&link);
    if (g_control) IoDeleteDevice(g_control);
    g_control = nullptr;
}

} // namespace
} // namespace kestra::simcard

extern "C" NTSTATUS NTAPI DriverEntry(DRIVER_OBJECT* driver, UNICODE_STRING*) {
    using namespace kestra::simcard;
    if (!g_system.load()) return STATUS_NOT_SUPPORTED;
    g_lock.init();
    driver->MajorFunction[IRP_MJ_CREATE] = dispatchCreate;
    driver->MajorFunction[IRP_MJ_CLEANUP] = dispatchClose;
    driver->MajorFunction[IRP_MJ_CLOSE] = dispatchClose;
    driver->MajorFunction[IRP_MJ_DEVICE_CONTROL] = dispatchControl;
    driver->MajorFunction[IRP_MJ_PNP] = dispatchPnp;
    driver->DriverExtension->AddDevice = addDevice;
    driver->DriverUnload = unload;
    UNICODE_STRING name, link;
    RtlInitUnicodeString(&name, L"\\Device\\KestraSimControl");
    RtlInitUnicodeString(&link, L"\\DosDevices\\KestraSimControl");
    NTSTATUS status = IoCreateDevice(driver, sizeof(Extension), &name, FILE_DEVICE_UNKNOWN, 0, FALSE, &g_control);
    if (!NT_SUCCESS(status)) return status;
    static_cast<Extension*>(g_control->DeviceExtension)->control = true;
    status = IoCreateSymbolicLink(&link, &name);
    if (NT_SUCCESS(status)) g_control->Flags &= ~DO_DEVICE_INITIALIZING;
    return status;
}
