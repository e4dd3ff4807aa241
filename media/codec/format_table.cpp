// The media format table rows (RFC 3551 static types, then the common
// dynamic ones) and the lookups by payload type, name and fmtp.
#include "media/codec/format_table.h"

#include "sip/syntax/text.h"

namespace kelsip {

namespace {

struct Row {
    const char* name;
    int32_t payloadType;
    MediaKind kind;
    uint32_t clock;
    uint32_t channels;
    uint32_t frameUs;
    uint32_t ptime;
    uint32_t bitrate;
    uint32_t frameBytes;
    uint32_t bitsPerSample;
};

constexpr MediaKind A = MediaKind::Audio;
constexpr MediaKind V = MediaKind::Video;

// G722's clock stays 8000 although it samples at 16 kHz: RFC 3551 fixed the
// RTP clock at 8000 for compatibility, and peers count timestamps so.
constexpr Row kRows[] = {
    {"PCMU", 0, A, 8000, 1, 0, 20, 64000, 0, 8},
    {"GSM", 3, A, 8000, 1, 20000, 20, 13200, 33, 0},
    {"G723", 4, A, 8000, 1, 30000, 30, 6300, 24, 0},
    {"DVI4", 5, A, 8000, 1, 0, 20, 32000, 0, 4},
    {"DVI4", 6, A, 16000, 1, 0, 20, 64000, 0, 4},
    {"LPC", 7, A, 8000, 1, 20000, 20, 2400, 0, 0},
    {"PCMA", 8, A, 8000, 1, 0, 20, 64000, 0, 8},
    {"G722", 9, A, 8000, 1, 0, 20, 64000, 0, 8},
    {"L16", 10, A, 44100, 2, 0, 20, 1411200, 0, 16},
    {"L16", 11, A, 44100, 1, 0, 20, 705600, 0, 16},
    {"QCELP", 12, A, 8000, 1, 20000, 20, 0, 0, 0},
    {"CN", 13, A, 8000, 1, 0, 20, 0, 0, 0},
    {"MPA", 14, A, 90000, 1, 0, 0, 0, 0, 0},
    {"G728", 15, A, 8000, 1, 2500, 20, 16000, 5, 0},
    {"DVI4", 16, A, 11025, 1, 0, 20, 44100, 0, 4},
    {"DVI4", 17, A, 22050, 1, 0, 20, 88200, 0, 4},
    {"G729", 18, A, 8000, 1, 10000, 20, 8000, 10, 0},
    {"CelB", 25, V, 90000, 1, 0, 0, 0, 0, 0},
    {"JPEG", 26, V, 90000, 1, 0, 0, 0, 0, 0},
    {"nv", 28, V, 90000, 1, 0, 0, 0, 0, 0},
    {"H261", 31, V, 90000, 1, 0, 0, 0, 0, 0},
    {"MPV", 32, V, 90000, 1, 0, 0, 0, 0, 0},
    {"MP2T", 33, MediaKind::Both, 90000, 1, 0, 0, 0, 0, 0},
    {"H263", 34, V, 90000, 1, 0, 0, 0, 0, 0},
    // Dynamic payload types only.
    {"G726-16", -1, A, 8000, 1, 0, 20, 16000, 0, 2},
    {"G726-24", -1, A, 8000, 1, 0, 20, 24000, 0, 3},
    {"G726-32", -1, A, 8000, 1, 0, 20, 32000, 0, 4},
    {"G726-40", -1, A, 8000, 1, 0, 20, 40000, 0, 5},
    {"AAL2-G726-32", -1, A, 8000, 1, 0, 20, 32000, 0, 4},
    {"G729D", -1, A, 8000, 1, 10000, 20, 6400, 8, 0},
    {"G729E", -1, A, 8000, 1, 10000, 20, 11800, 15, 0},
    {"GSM-EFR", -1, A, 8000, 1, 20000, 20, 12200, 31, 0},
    {"iLBC", -1, A, 8000, 1, 30000, 30, 13330, 50, 0},
    {"speex", -1, A, 8000, 1, 20000, 20, 0, 0, 0},
    {"speex", -1, A, 16000, 1, 20000, 20, 0, 0, 0},
    {"speex", -1, A, 32000, 1, 20000, 20, 0, 0, 0},
    {"opus", -1, A, 48000, 2, 20000, 20, 0, 0, 0},
    {"AMR", -1, A, 8000, 1, 20000, 20, 0, 0, 0},
    {"AMR-WB", -1, A, 16000, 1, 20000, 20, 0, 0, 0},
    {"G7221", -1, A, 16000, 1, 20000, 20, 24000, 60, 0},
    {"L8", -1, A, 8000, 1, 0, 20, 64000, 0, 8},
    {"L16", -1, A, 8000, 1, 0, 20, 128000, 0, 16},
    {"L16", -1, A, 16000, 1, 0, 20, 256000, 0, 16},
    {"telephone-event", -1, A, 8000, 1, 0, 50, 0, 4, 0},
    {"CN", -1, A, 16000, 1, 0, 20, 0, 0, 0},
    {"red", -1, A, 8000, 1, 0, 20, 0, 0, 0},
    {"H263-1998", -1, V, 90000, 1, 0, 0, 0, 0, 0},
    {"H263-2000", -1, V, 90000, 1, 0, 0, 0, 0, 0},
    {"H264", -1, V, 90000, 1, 0, 0, 0, 0, 0},
    {"H265", -1, V, 90000, 1, 0, 0, 0, 0, 0},
    {"MP4V-ES", -1, V, 90000, 1, 0, 0, 0, 0, 0},
    {"VP8", -1, V, 90000, 1, 0, 0, 0, 0, 0},
    {"VP9", -1, V, 90000, 1, 0, 0, 0, 0, 0},
    {"theora", -1, V, 90000, 1, 0, 0, 0, 0, 0},
};

// Names peers still send for formats that were renamed.
std::string_view currentName(std::string_view name) {
    if (text::iequals(name, "G721")) return "G726-32";
    if (text::iequals(name, "G723-24")) return "G726-24";
    if (text::iequals(name, "G723-40")) return "G726-40";
    // G.729 Annex A decodes as G.729 and shares its parameters.
    if (text::iequals(name, "G729A")) return "G729";
    return name;
}

// The value of one parameter in a ';' list, names ignoring case.
std::optional<std::string_view> fmtpValue(std::string_view fmtp, std::string_view wanted) {
    while (!fmtp.empty()) {
        const size_t semicolon = fmtp.find(';');
        const std::string_view piece = fmtp.substr(0, semicolon);
        fmtp = semicolon == std::string_view::npos ? std::string_view() : fmtp.substr(semicolon + 1);
        const size_t eq = piece.find('=');
        if (eq == std::string_view::npos) continue;
        if (text::iequals(text::trim(piece.substr(0, eq)), wanted)) return text::trim(piece.substr(eq + 1));
    }
    return std::nullopt;
}

void setFrame(CodecInfo& info, uint32_t frameUs, uint32_t ptime, uint32_t bitrate, uint32_t frameBytes) {
    info.frameDurationUs = frameUs;
    info.ptimeMs = ptime;
    info.bitrate = bitrate;
    info.frameBytes = frameBytes;
}

}  // namespace

const std::vector<CodecInfo>& mediaFormatTable() {
    static const std::vector<CodecInfo> table = [] {
        std::vector<CodecInfo> rows;
        rows.reserve(std::size(kRows));
        for (const Row& r : kRows) {
            rows.push_back(CodecInfo{r.name, r.payloadType, r.kind, r.clock, r.channels, r.frameUs, r.ptime,
                                     r.bitrate, r.frameBytes, r.bitsPerSample, {}});
        }
        return rows;
    }();
    return table;
}

std::optional<CodecInfo> lookupByPayloadType(int payloadType) {
    if (payloadType < 0) return std::nullopt;
    for (const CodecInfo& row : mediaFormatTable()) {
        if (row.payloadType == payloadType) return row;
    }
    return std::nullopt;
}

std::optional<CodecInfo> lookupByName(std::string_view name, uint32_t clockRate, uint32_t channels) {
    const std::string_view wanted = currentName(name);
    for (const CodecInfo& row : mediaFormatTable()) {
        if (!text::iequals(row.name, wanted)) continue;
        if (clockRate != 0 && row.clockRate != clockRate) continue;
        if (channels != 0 && row.channels != channels) continue;
        return row;
    }
    return std::nullopt;
}

void applyFmtp(CodecInfo& info, std::string_view fmtp) {
    if (text::iequals(info.name, "iLBC")) {
        const auto mode = fmtpValue(fmtp, "mode");
        if (mode == "20") setFrame(info, 20000, 20, 15200, 38);
        else if (mode == "30") setFrame(info, 30000, 30, 13330, 50);
    } else if (text::iequals(info.name, "G723")) {
        const auto bitrate = fmtpValue(fmtp, "bitrate");
        if (bitrate == "5.3") {
            info.bitrate = 5300;
            info.frameBytes = 20;
        } else if (bitrate == "6.3") {
            info.bitrate = 6300;
            info.frameBytes = 24;
        }
    }
}

}  // namespace kelsip
