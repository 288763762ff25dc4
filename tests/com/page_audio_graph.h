// The audio filter in the system's graph, beside a receiver of ours.
#pragma once

#include "tests/com/sink_filter.h"

#include "tests/com/com_module.h"

#include <kestra_interfaces.h>
#include <mmreg.h>

namespace kestra::test {

struct AudioGraph {
    explicit AudioGraph(const ComModule& module) {
        module.create(CLSID_KestraAudioCapture, IID_IBaseFilter, reinterpret_cast<void**>(filter.out()));
        pin = onlyPin(filter.get());
        CoCreateInstance(CLSID_FilterGraph, nullptr, CLSCTX_INPROC_SERVER, IID_IGraphBuilder,
                         reinterpret_cast<void**>(graph.out()));
        if (!isMade()) return;
        graph->AddFilter(filter.get(), L"Audio");
        graph->AddFilter(sink.get(), L"Sink");
    }
    bool isMade() const { return filter && pin && graph; }
    bool connect() const { return graph->ConnectDirect(pin.get(), &sink->pin, nullptr) == S_OK; }
    /// Bits a sample of what the pin offers now.
    int bits() const {
        const auto config = query<IAMStreamConfig>(pin.get(), IID_IAMStreamConfig);
        AM_MEDIA_TYPE* type = nullptr;
        if (!config || FAILED(config->GetFormat(&type))) return 0;
        const int found = reinterpret_cast<WAVEFORMATEX*>(type->pbFormat)->wBitsPerSample;
        DeleteMediaType(type);
        return found;
    }
    ComRef<SinkFilter> sink = SinkFilter::create();
    ComRef<IBaseFilter> filter;
    ComRef<IPin> pin;
    ComRef<IGraphBuilder> graph;
};

} // namespace kestra::test
