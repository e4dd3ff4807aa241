// Two engines through the flat C interface on virtual sound devices, peer
// to peer on loopback: a spoken sentence goes in on each side and is found
// in what the other side plays; the call's recording holds both voices
// although the recording phone's loudspeaker is muted; digits, a message,
// the events' fields, and a rejected call.
#include <gtest/gtest.h>

#include <mutex>

#include "support/sdk_phone.h"
#include "support/speech.h"
#include "support/temp_dir.h"
#include "support/wait.h"
#include "support/wav.h"

namespace {

using namespace std::chrono_literals;
using kelsip::test::Event;
using kelsip::test::Phone;
using kelsip::test::waitFor;

TEST(VelmoraSdk, TwoPhonesTalkPeerToPeerThroughTheFlatInterface) {
    EXPECT_STREQ(velmora_version(), "5.0.0");
    kelsip::test::TempDir dir;
    Phone alice(kelsip::test::speech(dir.path(), "The quick brown fox jumps over the lazy dog near the river bank.", 1));
    Phone bob(kelsip::test::speech(dir.path(), "Seven wise owls count to nine while the kettle sings in the kitchen.", 2));
    ASSERT_GT(alice.voice.size(), 16000U);
    ASSERT_GT(bob.voice.size(), 16000U);
    ASSERT_TRUE(velmora_start(alice.engine, "alice", "", "", "", "", "", "", VELMORA_TRANSPORT_UDP));
    ASSERT_TRUE(velmora_start(bob.engine, "bob", "", "", "", "", "", "", VELMORA_TRANSPORT_UDP));

    const int line = velmora_call(alice.engine, bob.address().c_str());
    ASSERT_GT(line, 0);
    const auto offered = bob.waitEvent(VELMORA_EVENT_INCOMING_CALL);
    ASSERT_TRUE(offered);
    EXPECT_EQ(offered->s1.rfind("sip:alice@127.0.0.1:", 0), 0U) << offered->s1;
    const std::string recording = (dir.path() / "bob.wav").string();
    ASSERT_TRUE(velmora_start_recording(bob.engine, recording.c_str()));
    ASSERT_TRUE(velmora_mute_speaker(bob.engine, 1));
    ASSERT_TRUE(velmora_answer(bob.engine, offered->line));

    const auto connected = [](const Event& e) { return e.a == VELMORA_CALL_CONNECTED; };
    const auto bobTalking = bob.waitEvent(VELMORA_EVENT_CALL_STATE, connected);
    ASSERT_TRUE(bobTalking);
    EXPECT_EQ(bobTalking->b, 200);
    EXPECT_EQ(bobTalking->c, 1) << "bob's call is incoming";
    ASSERT_TRUE(alice.waitEvent(VELMORA_EVENT_CALL_STATE, connected));
    const auto media = alice.waitEvent(VELMORA_EVENT_CALL_MEDIA);
    ASSERT_TRUE(media);
    EXPECT_EQ(media->line, line);
    EXPECT_EQ(media->c & VELMORA_MEDIA_RUNNING, VELMORA_MEDIA_RUNNING);
    EXPECT_EQ(media->s1, "PCMU/8000");
    const auto audio = alice.waitEvent(VELMORA_EVENT_AUDIO_STATE);
    ASSERT_TRUE(audio);
    EXPECT_EQ(audio->a, 1);
    EXPECT_EQ(audio->s1, "virtual (no hardware)");

    // Long enough for both sentences to have crossed whole.
    const size_t start = alice.heardSamples();
    ASSERT_TRUE(waitFor([&] { return alice.heardSamples() > start + std::max(alice.voice.size(), bob.voice.size()) + 16000; }, 30s));
    ASSERT_TRUE(velmora_send_dtmf(alice.engine, line, '5'));
    const auto digit = bob.waitEvent(VELMORA_EVENT_DTMF);
    ASSERT_TRUE(digit);
    EXPECT_EQ(digit->ch, '5');
    ASSERT_GT(velmora_send_message(alice.engine, bob.address().c_str(), "lunch?", ""), 0);
    const auto message = bob.waitEvent(VELMORA_EVENT_MESSAGE);
    ASSERT_TRUE(message);
    EXPECT_EQ(message->line, -1);
    EXPECT_EQ(message->s2, "lunch?");
    EXPECT_EQ(message->s3, "text/plain");

    ASSERT_TRUE(velmora_hangup(bob.engine, 0));
    const auto ended = [](const Event& e) { return e.a == VELMORA_CALL_TERMINATED; };
    ASSERT_TRUE(alice.waitEvent(VELMORA_EVENT_CALL_STATE, ended));
    ASSERT_TRUE(bob.waitEvent(VELMORA_EVENT_CALL_STATE, ended));
    ASSERT_TRUE(velmora_stop_recording(bob.engine));
    const auto saved = bob.waitEvent(VELMORA_EVENT_RECORDING);
    ASSERT_TRUE(saved);
    EXPECT_EQ(saved->a, 1);
    EXPECT_EQ(saved->s1, recording);

    // Each heard the other; bob's muted loudspeaker played nothing.
    EXPECT_GT(kelsip::test::voiceMatch(alice.heardSoFar(), bob.voice), 0.95) << "alice did not hear bob";
    EXPECT_EQ(kelsip::test::rms(bob.heardSoFar()), 0.0) << "a muted loudspeaker played";
    const auto file = kelsip::test::readWav(recording);
    ASSERT_TRUE(file);
    EXPECT_GT(kelsip::test::voiceMatch(file->samples, bob.voice), 0.5) << "the recording lacks bob's own voice";
    EXPECT_GT(kelsip::test::voiceMatch(file->samples, alice.voice), 0.5) << "the recording lacks alice's voice";

    // A rejected call ends with 486 on the caller's side.
    const int second = velmora_call(alice.engine, bob.address().c_str());
    ASSERT_GT(second, 0);
    const auto ringing = bob.waitEvent(VELMORA_EVENT_INCOMING_CALL, [&](const Event& e) { return e.line != offered->line; });
    ASSERT_TRUE(ringing);
    ASSERT_TRUE(velmora_reject(bob.engine, ringing->line));
    const auto refused = alice.waitEvent(VELMORA_EVENT_CALL_STATE,
                                         [&](const Event& e) { return e.line == second && e.a == VELMORA_CALL_TERMINATED; });
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->b, 486);
}

TEST(VelmoraSdk, ANullHandleIsRefusedEverywhere) {
    char buffer[8];
    EXPECT_EQ(velmora_start(nullptr, "a", "", "", "", "", "", "", 1), 0);
    EXPECT_EQ(velmora_call(nullptr, "bob"), 0);
    EXPECT_EQ(velmora_answer(nullptr, 1) + velmora_hangup(nullptr, 1) + velmora_hold(nullptr, 1) +
                  velmora_mute_microphone(nullptr, 1) + velmora_start_recording(nullptr, "x.wav") +
                  velmora_local_address(nullptr, buffer, sizeof buffer),
              0);
    velmora_destroy(nullptr);
}

}  // namespace
