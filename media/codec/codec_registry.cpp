// The codec registry: PCMU first, then PCMA.
#include "media/codec/codec_registry.h"

#include "media/codec/g711.h"
#include "sip/syntax/text.h"

namespace kelsip {

CodecRegistry& CodecRegistry::instance() {
    static CodecRegistry registry;
    return registry;
}

CodecRegistry::CodecRegistry() {
    // Both are complete after construction and never change, so readers on
    // any thread need no lock.
    add(G711Codec(true).info(), [] { return std::make_unique<G711Codec>(true); });
    add(G711Codec(false).info(), [] { return std::make_unique<G711Codec>(false); });
}

void CodecRegistry::add(CodecInfo info, Factory factory) {
    infos_.push_back(std::move(info));
    factories_.push_back(std::move(factory));
}

std::unique_ptr<AudioCodec> CodecRegistry::create(std::string_view name) const {
    for (size_t i = 0; i < infos_.size(); ++i) {
        if (text::iequals(infos_[i].name, name)) return factories_[i]();
    }
    return nullptr;
}

}  // namespace kelsip
