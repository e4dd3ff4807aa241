// How well a recording holds a spoken sentence: prints the match (0 to 1)
// and exits 0 when it is at least the threshold. For the demo's check of
// what each phone heard.
//
//   speech_match HEARD.wav SPOKEN.wav [THRESHOLD]
#include <cstdio>
#include <cstdlib>

#include "support/speech.h"
#include "support/wav.h"

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: speech_match HEARD.wav SPOKEN.wav [THRESHOLD]\n");
        return 2;
    }
    const auto heard = kelsip::test::readWav(argv[1]);
    const auto spoken = kelsip::test::readWav(argv[2]);
    if (!heard || !spoken || spoken->samples.size() < 16000) {
        std::fprintf(stderr, "speech_match: cannot read %s or %s (mono 16-bit WAV, 2 s or more)\n", argv[1], argv[2]);
        return 2;
    }
    const double threshold = argc > 3 ? std::atof(argv[3]) : 0.8;
    const double match = kelsip::test::voiceMatch(heard->samples, spoken->samples);
    std::printf("%.3f\n", match);
    return match >= threshold ? 0 : 1;
}
