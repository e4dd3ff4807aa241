// The process-wide list of codecs we can run, in order of preference.
#pragma once

#include <functional>
#include <memory>
#include <string_view>
#include <vector>

#include "media/codec/audio_codec.h"

namespace kelsip {

class CodecRegistry {
public:
    using Factory = std::function<std::unique_ptr<AudioCodec>()>;

    [[nodiscard]] static CodecRegistry& instance();

    CodecRegistry(const CodecRegistry&) = delete;
    CodecRegistry& operator=(const CodecRegistry&) = delete;

    // A new codec of the first entry of that name (ignoring case); empty when none.
    [[nodiscard]] std::unique_ptr<AudioCodec> create(std::string_view name) const;
    // What offers list and answers are matched against, in registration order.
    [[nodiscard]] const std::vector<CodecInfo>& codecs() const { return infos_; }

private:
    CodecRegistry();
    void add(CodecInfo info, Factory factory);

    std::vector<CodecInfo> infos_;
    std::vector<Factory> factories_;
};

}  // namespace kelsip
