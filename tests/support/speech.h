// Speech for the audio checks: a sentence spoken by espeak-ng at 8000 Hz,
// and how well a recording holds it.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace kelsip::test {

// `sentence` spoken at 8000 Hz mono (espeak-ng, then sox); where programs
// cannot be started (Windows), a tune of short tones picked by `seed` that
// is just as distinct. Empty, with the reason on standard error, when the
// programs failed.
[[nodiscard]] std::vector<int16_t> speech(const std::filesystem::path& dir, const std::string& sentence, unsigned seed);

// How well the last six seconds of `heard` hold `voice`: the best
// normalised correlation of any of five quarter-second stretches of it
// (0 to 1). The playout buffer may stretch or shorten a pause now and then,
// so one long stretch could be cut by an edit that is no fault.
[[nodiscard]] double voiceMatch(const std::vector<int16_t>& heard, const std::vector<int16_t>& voice);

}  // namespace kelsip::test
