// Opening and running one shared-mode audio stream, and the endpoint listing.
#define WIN32_LEAN_AND_MEAN
#define NOMINMAX
#include <windows.h>

#include <audioclient.h>
#include <mmdeviceapi.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <optional>
#include <utility>

#include "engine/audio/format_converter.h"
#include "engine/audio/mix_format.h"
#include "engine/audio/wasapi_audio_device.h"
#include "engine/audio/wasapi_stream.h"

namespace kelsoftphone {

namespace {

// The failure codes this file tells apart, spelled out rather than through
// the headers' casting macros, which our warnings refuse.
constexpr HRESULT kDeviceInvalidated = static_cast<HRESULT>(0x88890004u);
constexpr HRESULT kBufferEmpty = 0x08890001;  // AUDCLNT_S_BUFFER_EMPTY

// The endpoint's display name (PKEY_Device_FriendlyName), defined here so no
// GUID library is needed.
const PROPERTYKEY kFriendlyName{{0xa45c254e, 0xdf1c, 0x4efd, {0x80, 0x20, 0x67, 0xd1, 0x46, 0xa8, 0x50, 0xe0}}, 14};

bool bad(HRESULT hr) { return hr < 0; }

template <typename T>
class ComPtr {
public:
    ComPtr() = default;
    ~ComPtr() { reset(); }
    ComPtr(const ComPtr&) = delete;
    ComPtr& operator=(const ComPtr&) = delete;
    ComPtr(ComPtr&& other) noexcept : p_(std::exchange(other.p_, nullptr)) {}
    ComPtr& operator=(ComPtr&& other) noexcept {
        if (this != &other) {
            reset();
            p_ = std::exchange(other.p_, nullptr);
        }
        return *this;
    }
    void reset() {
        if (p_) std::exchange(p_, nullptr)->Release();
    }
    T* get() const { return p_; }
    T* operator->() const { return p_; }
    T** put() {
        reset();
        return &p_;
    }
    void** putVoid() { return reinterpret_cast<void**>(put()); }
    explicit operator bool() const { return p_ != nullptr; }

private:
    T* p_ = nullptr;
};

struct TaskMemFree {
    void operator()(void* p) const { CoTaskMemFree(p); }
};

std::string codeText(HRESULT hr) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08X", static_cast<unsigned>(hr));
    return text;
}

std::nullptr_t fail(std::string* error, const char* step, HRESULT hr) {
    if (error) *error = step + codeText(hr);
    return nullptr;
}

std::wstring widen(const std::string& text) {
    if (text.empty()) return {};
    const int size = static_cast<int>(text.size());
    const int length = MultiByteToWideChar(CP_UTF8, 0, text.data(), size, nullptr, 0);
    std::wstring wide(static_cast<size_t>(std::max(length, 0)), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text.data(), size, wide.data(), length);
    return wide;
}

std::string narrow(const wchar_t* wide) {
    const int length = WideCharToMultiByte(CP_UTF8, 0, wide, -1, nullptr, 0, nullptr, nullptr);
    if (length <= 1) return {};
    std::string text(static_cast<size_t>(length), '\0');
    WideCharToMultiByte(CP_UTF8, 0, wide, -1, text.data(), length, nullptr, nullptr);
    text.pop_back();  // the terminator the call counted
    return text;
}

std::string friendlyName(IMMDevice* device) {
    ComPtr<IPropertyStore> store;
    if (bad(device->OpenPropertyStore(STGM_READ, store.put()))) return "?";
    PROPVARIANT value;
    PropVariantInit(&value);
    std::string name = "?";
    if (!bad(store->GetValue(kFriendlyName, &value)) && value.vt == VT_LPWSTR && value.pwszVal) name = narrow(value.pwszVal);
    PropVariantClear(&value);
    return name;
}

std::wstring endpointId(IMMDevice* device) {
    LPWSTR id = nullptr;
    if (bad(device->GetId(&id)) || !id) return {};
    std::wstring copy = id;
    CoTaskMemFree(id);
    return copy;
}

// Calls `visit` with each active endpoint of `flow`.
template <typename Visit>
void forEachActiveEndpoint(IMMDeviceEnumerator* enumerator, EDataFlow flow, Visit&& visit) {
    ComPtr<IMMDeviceCollection> endpoints;
    UINT count = 0;
    if (bad(enumerator->EnumAudioEndpoints(flow, DEVICE_STATE_ACTIVE, endpoints.put())) || bad(endpoints->GetCount(&count)))
        return;
    for (UINT i = 0; i < count; ++i) {
        ComPtr<IMMDevice> device;
        if (!bad(endpoints->Item(i, device.put()))) visit(device.get());
    }
}

// Settings may hold the friendly name the listing shows rather than the id.
HRESULT endpointNamed(IMMDeviceEnumerator* enumerator, EDataFlow flow, const std::string& name, ComPtr<IMMDevice>& found) {
    forEachActiveEndpoint(enumerator, flow, [&](IMMDevice* device) {
        if (!found && friendlyName(device) == name) {
            device->AddRef();
            *found.put() = device;
        }
    });
    return found ? S_OK : HRESULT_FROM_WIN32(ERROR_NOT_FOUND);
}

// The extensible sub-formats share one GUID but for their first field,
// which holds the plain format tag.
MixFormatFields fieldsOf(const WAVEFORMATEX& mix) {
    MixFormatFields fields{mix.wFormatTag, mix.wBitsPerSample, mix.nChannels, mix.nSamplesPerSec};
    if (mix.wFormatTag == WAVE_FORMAT_EXTENSIBLE && mix.cbSize >= sizeof(WAVEFORMATEXTENSIBLE) - sizeof(WAVEFORMATEX)) {
        GUID sub;
        std::memcpy(&sub, &reinterpret_cast<const WAVEFORMATEXTENSIBLE&>(mix).SubFormat, sizeof sub);
        const GUID base{0, 0x0000, 0x0010, {0x80, 0x00, 0x00, 0xaa, 0x00, 0x38, 0x9b, 0x71}};
        if (std::memcmp(&sub.Data2, &base.Data2, sizeof(GUID) - sizeof(sub.Data1)) == 0) {
            if (sub.Data1 == kWaveFormatIeeeFloat) fields.subFormat = MixFormatFields::SubFormat::IeeeFloat;
            if (sub.Data1 == kWaveFormatPcm) fields.subFormat = MixFormatFields::SubFormat::Pcm;
        }
    }
    return fields;
}

// Milliseconds to a tenth, without a trailing ".0".
std::string msText(uint64_t frames, uint32_t rate) {
    const uint64_t tenths = rate ? (frames * 10000 + rate / 2) / rate : 0;
    std::string text = std::to_string(tenths / 10);
    if (tenths % 10) text += "." + std::to_string(tenths % 10);
    return text;
}

}  // namespace

const char* toString(WasapiDirection direction) { return direction == WasapiDirection::Playout ? "playout" : "capture"; }

struct WasapiStream::State {
    WasapiDirection direction = WasapiDirection::Playout;
    ComPtr<IAudioClient> client;
    ComPtr<IAudioRenderClient> render;
    ComPtr<IAudioCaptureClient> capture;
    HANDLE bufferEvent = nullptr;
    UINT32 bufferFrames = 0;
    std::optional<RenderConverter> toCard;
    std::optional<CaptureConverter> fromCard;
    std::string description;
    bool started = false;
    bool firstPacket = true;

    ~State() {
        if (started) client->Stop();
        render.reset();
        capture.reset();
        client.reset();  // before the event it signals goes
        if (bufferEvent) CloseHandle(bufferEvent);
    }

    HRESULT fill(const PlayoutFunction& playout) {
        UINT32 padding = 0;
        HRESULT hr = client->GetCurrentPadding(&padding);
        if (bad(hr) || padding >= bufferFrames) return hr;
        const UINT32 free = bufferFrames - padding;
        BYTE* data = nullptr;
        hr = render->GetBuffer(free, &data);
        if (bad(hr)) return hr;
        toCard->fill(data, free, playout);
        return render->ReleaseBuffer(free, 0);
    }

    HRESULT drain(const CaptureFunction& deliver, std::atomic<int64_t>& glitches) {
        for (;;) {
            UINT32 packet = 0;
            HRESULT hr = capture->GetNextPacketSize(&packet);
            if (bad(hr) || packet == 0) return hr;
            BYTE* data = nullptr;
            UINT32 frames = 0;
            DWORD flags = 0;
            hr = capture->GetBuffer(&data, &frames, &flags, nullptr, nullptr);
            if (bad(hr) || hr == kBufferEmpty) return bad(hr) ? hr : S_OK;
            // The first packet after start may carry the flag for the start
            // itself; only later ones mean sound was lost.
            if ((flags & AUDCLNT_BUFFERFLAGS_DATA_DISCONTINUITY) && !firstPacket) ++glitches;
            firstPacket = false;
            fromCard->push((flags & AUDCLNT_BUFFERFLAGS_SILENT) ? nullptr : data, frames, deliver);
            hr = capture->ReleaseBuffer(frames);
            if (bad(hr)) return hr;
        }
    }
};

WasapiStream::WasapiStream(std::unique_ptr<State> state) : state_(std::move(state)) {}
WasapiStream::~WasapiStream() = default;

const std::string& WasapiStream::description() const { return state_->description; }

std::unique_ptr<WasapiStream> WasapiStream::open(const WasapiStreamRequest& request, std::string* error) {
    auto state = std::make_unique<State>();
    state->direction = request.direction;
    const bool playout = request.direction == WasapiDirection::Playout;
    const EDataFlow flow = playout ? eRender : eCapture;
    const int bufferMs = std::clamp(request.bufferMs, 1, 1000);

    ComPtr<IMMDeviceEnumerator> enumerator;
    HRESULT hr = CoCreateInstance(__uuidof(MMDeviceEnumerator), nullptr, CLSCTX_ALL, __uuidof(IMMDeviceEnumerator),
                                  enumerator.putVoid());
    if (bad(hr)) return fail(error, "MMDeviceEnumerator: ", hr);

    ComPtr<IMMDevice> device;
    if (request.endpoint.empty()) {
        hr = enumerator->GetDefaultAudioEndpoint(flow, eCommunications, device.put());
        if (bad(hr)) return fail(error, "GetDefaultAudioEndpoint: ", hr);
    } else {
        hr = enumerator->GetDevice(widen(request.endpoint).c_str(), device.put());
        if (bad(hr) && !bad(endpointNamed(enumerator.get(), flow, request.endpoint, device))) hr = S_OK;
        if (bad(hr)) return fail(error, "GetDevice: ", hr);
    }
    const std::string name = friendlyName(device.get());

    ComPtr<IAudioClient3> client3;
    hr = device->Activate(__uuidof(IAudioClient3), CLSCTX_ALL, nullptr, client3.putVoid());
    if (bad(hr)) {
        client3.reset();
        hr = device->Activate(__uuidof(IAudioClient), CLSCTX_ALL, nullptr, state->client.putVoid());
    } else {
        hr = client3->QueryInterface(__uuidof(IAudioClient), state->client.putVoid());
    }
    if (bad(hr)) return fail(error, "Activate IAudioClient: ", hr);
    IAudioClient* client = state->client.get();

    WAVEFORMATEX* rawMix = nullptr;
    hr = client->GetMixFormat(&rawMix);
    if (bad(hr)) return fail(error, "GetMixFormat: ", hr);
    const std::unique_ptr<WAVEFORMATEX, TaskMemFree> mix(rawMix);
    const std::optional<StreamFormat> format = streamFormatOf(fieldsOf(*mix), error);
    if (!format) return nullptr;

    // Marked as a call, the stream gets the echo cancellation and noise
    // suppression the driver offers for communications.
    bool communications = false;
    ComPtr<IAudioClient2> client2;
    if (!bad(client->QueryInterface(__uuidof(IAudioClient2), client2.putVoid()))) {
        AudioClientProperties properties{};
        properties.cbSize = sizeof properties;
        properties.eCategory = AudioCategory_Communications;
        communications = !bad(client2->SetClientProperties(&properties));
    }

    bool lowLatency = false;
    uint32_t periodFrames = 0;
    if (client3) {
        EnginePeriods periods;
        if (!bad(client3->GetSharedModeEnginePeriod(mix.get(), &periods.defaultFrames, &periods.fundamentalFrames,
                                                    &periods.minFrames, &periods.maxFrames))) {
            const uint32_t period = lowLatencyPeriodFrames(bufferMs, format->rate, periods);
            if (!bad(client3->InitializeSharedAudioStream(AUDCLNT_STREAMFLAGS_EVENTCALLBACK, period, mix.get(), nullptr))) {
                lowLatency = true;
                periodFrames = period;
            }
        }
    }
    if (!lowLatency) {
        // Twice the requested time: the engine reads one period while we write the next.
        hr = client->Initialize(AUDCLNT_SHAREMODE_SHARED, AUDCLNT_STREAMFLAGS_EVENTCALLBACK, REFERENCE_TIME{bufferMs} * 20000,
                                0, mix.get(), nullptr);
        if (bad(hr)) return fail(error, "IAudioClient::Initialize: ", hr);
        REFERENCE_TIME defaultPeriod = 0, minimumPeriod = 0;
        if (!bad(client->GetDevicePeriod(&defaultPeriod, &minimumPeriod)))
            periodFrames = static_cast<uint32_t>(static_cast<uint64_t>(defaultPeriod) * format->rate / 10000000);
    }

    hr = client->GetBufferSize(&state->bufferFrames);
    if (bad(hr)) return fail(error, "GetBufferSize: ", hr);
    state->bufferEvent = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    if (!state->bufferEvent) return fail(error, "CreateEvent: ", HRESULT_FROM_WIN32(GetLastError()));
    hr = client->SetEventHandle(state->bufferEvent);
    if (bad(hr)) return fail(error, "SetEventHandle: ", hr);
    if (playout) {
        hr = client->GetService(__uuidof(IAudioRenderClient), state->render.putVoid());
        if (bad(hr)) return fail(error, "IAudioRenderClient: ", hr);
        state->toCard = RenderConverter::create(*format, request.mediaRate);
    } else {
        hr = client->GetService(__uuidof(IAudioCaptureClient), state->capture.putVoid());
        if (bad(hr)) return fail(error, "IAudioCaptureClient: ", hr);
        state->fromCard = CaptureConverter::create(*format, request.mediaRate);
    }
    if (!state->toCard && !state->fromCard) {
        if (error) *error = "no converter between the mix format and " + std::to_string(request.mediaRate) + " Hz";
        return nullptr;
    }

    state->description = std::string(toString(request.direction)) + " \"" + name + "\" " + std::to_string(format->rate) +
                         " Hz x" + std::to_string(format->channels) + " " + toString(format->kind) + ", period " +
                         msText(periodFrames, format->rate) + " ms, buffer " + msText(state->bufferFrames, format->rate) +
                         " ms" + (lowLatency ? " (IAudioClient3)" : "") + (communications ? ", communications category" : "");
    return std::unique_ptr<WasapiStream>(new WasapiStream(std::move(state)));
}

WasapiStream::End WasapiStream::pump(void* stopEvent, const CaptureFunction& capture, const PlayoutFunction& playout,
                                     std::atomic<int64_t>& glitches, std::string* error) {
    State& s = *state_;
    HRESULT hr = s.client->Start();
    if (!bad(hr)) {
        s.started = true;
        const HANDLE events[2] = {stopEvent, s.bufferEvent};
        for (;;) {
            // Stop first in the array: it wins when both are signalled.
            const DWORD woke = WaitForMultipleObjects(2, events, FALSE, 100);
            if (woke == WAIT_OBJECT_0) return End::Stopped;
            if (woke == WAIT_FAILED) {
                hr = HRESULT_FROM_WIN32(GetLastError());
                break;
            }
            // A time-out services the stream too: a lost endpoint then shows
            // in the next call even when its event has stopped coming.
            hr = s.direction == WasapiDirection::Playout ? s.fill(playout) : s.drain(capture, glitches);
            if (bad(hr)) break;
        }
    }
    if (error) *error = (s.started ? "" : "IAudioClient::Start: ") + codeText(hr);
    return hr == kDeviceInvalidated ? End::DeviceRemoved : End::Failed;
}

std::vector<std::string> listWasapiAudioDevices() {
    const HRESULT joined = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    std::vector<std::string> lines;
    {
        ComPtr<IMMDeviceEnumerator> enumerator;
        const HRESULT hr = CoCreateInstance(__uuidof(MMDeviceEnumerator), nullptr, CLSCTX_ALL, __uuidof(IMMDeviceEnumerator),
                                            enumerator.putVoid());
        for (const auto& [flow, title] : {std::pair{eRender, "playout:"}, std::pair{eCapture, "capture:"}}) {
            lines.emplace_back(title);
            if (bad(hr)) continue;
            std::wstring defaultId;
            ComPtr<IMMDevice> defaultDevice;
            if (!bad(enumerator->GetDefaultAudioEndpoint(flow, eCommunications, defaultDevice.put())))
                defaultId = endpointId(defaultDevice.get());
            forEachActiveEndpoint(enumerator.get(), flow, [&](IMMDevice* device) {
                const bool isDefault = !defaultId.empty() && endpointId(device) == defaultId;
                lines.push_back("  " + friendlyName(device) + (isDefault ? "  [default communications]" : ""));
            });
        }
    }
    // Only a call that joined the apartment (S_OK or S_FALSE) is undone.
    if (!bad(joined)) CoUninitialize();
    return lines;
}

}  // namespace kelsoftphone
