/* Two phones through the flat interface, in plain C: Bob waits for calls
 * and answers them; Alice (registered first when an account is given)
 * calls Bob directly, talks for two seconds with a tone as her voice,
 * and hangs up. Prints every event; exit status 0 when the call connected,
 * Bob heard Alice and both saw it end.
 *
 *   velmora_sdk_example [domain user password]
 */
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "velmora_sdk.h"

typedef struct phone {
    const char* name;
    velmora_engine* engine;
    atomic_int registered;
    atomic_int incoming; /* the line of a call offered to us */
    atomic_int connected;
    atomic_int ended;
    atomic_long heard;   /* loudspeaker samples louder than a whisper */
    long spoken;         /* microphone samples so far (audio thread only) */
} phone;

static void on_event(const velmora_event* e, void* context) {
    phone* p = (phone*)context;
    printf("%-5s event %2d line %d a=%d b=%d c=%d s1=\"%s\" s2=\"%s\"\n", p->name, (int)e->type, (int)e->line,
           (int)e->a, (int)e->b, (int)e->c, e->s1, e->s2);
    fflush(stdout);
    switch (e->type) {
        case VELMORA_EVENT_REGISTRATION:
            if (e->a == VELMORA_REG_REGISTERED) atomic_store(&p->registered, 1);
            if (e->a == VELMORA_REG_FAILED) atomic_store(&p->registered, -1);
            break;
        case VELMORA_EVENT_INCOMING_CALL: atomic_store(&p->incoming, e->line); break;
        case VELMORA_EVENT_CALL_STATE:
            if (e->a == VELMORA_CALL_CONNECTED) atomic_store(&p->connected, 1);
            if (e->a == VELMORA_CALL_TERMINATED) atomic_store(&p->ended, 1);
            break;
        default: break;
    }
}

/* Alice's microphone: a 400 Hz triangle wave (20 samples a period). */
static void speak(int16_t* buffer, size_t count, void* context) {
    phone* p = (phone*)context;
    for (size_t i = 0; i < count; ++i, ++p->spoken) {
        const long phase = p->spoken % 20;
        buffer[i] = (int16_t)(phase < 10 ? -8000 + phase * 1600 : 8000 - (phase - 10) * 1600);
    }
}

/* Bob's loudspeaker. */
static void listen(const int16_t* samples, size_t count, void* context) {
    phone* p = (phone*)context;
    long loud = 0;
    for (size_t i = 0; i < count; ++i) {
        if (abs(samples[i]) > 1000) ++loud;
    }
    atomic_fetch_add(&p->heard, loud);
}

/* With VELMORA_LOG set in the environment: the stack's log lines. */
static void print_log(int level, const char* component, const char* text, void* context) {
    (void)context;
    printf("log %d [%s] %s\n", level, component, text);
}

/* Polls `flag` every 10 ms until it is non-zero or `ms` have passed. */
static int wait_for(atomic_int* flag, int ms) {
    for (int waited = 0; atomic_load(flag) == 0 && waited < ms; waited += 10) velmora_sleep(10);
    return atomic_load(flag);
}

int main(int argc, char** argv) {
    phone alice = {"alice", NULL, 0, 0, 0, 0, 0, 0};
    phone bob = {"bob", NULL, 0, 0, 0, 0, 0, 0};
    velmora_config config;
    velmora_config_init(&config);
    config.bind_address = "127.0.0.1";
    config.sip_port = 0; /* the system chooses */

    printf("Velmora SDK %s\n", velmora_version());
    if (getenv("VELMORA_LOG")) velmora_set_log(print_log, NULL, 2);
    alice.engine = velmora_create_virtual(&config, on_event, &alice, speak, NULL, &alice);
    bob.engine = velmora_create_virtual(&config, on_event, &bob, NULL, listen, &bob);
    const char* domain = argc > 3 ? argv[1] : "";
    const char* user = argc > 3 ? argv[2] : "alice";
    const char* password = argc > 3 ? argv[3] : "";
    int ok = alice.engine && bob.engine &&
             velmora_start(alice.engine, user, password, domain, "", "", "", "", VELMORA_TRANSPORT_UDP) &&
             velmora_start(bob.engine, "bob", "", "", "", "", "", "", VELMORA_TRANSPORT_UDP);
    if (ok && domain[0] != '\0') ok = wait_for(&alice.registered, 10000) == 1;

    char bob_address[256] = "";
    if (ok) ok = velmora_local_address(bob.engine, bob_address, sizeof bob_address) > 0;
    if (ok) {
        printf("alice calls %s\n", bob_address);
        ok = velmora_call(alice.engine, bob_address) > 0;
    }
    if (ok) ok = wait_for(&bob.incoming, 5000) > 0 && velmora_answer(bob.engine, atomic_load(&bob.incoming));
    if (ok) ok = wait_for(&alice.connected, 5000) == 1;
    if (ok) {
        velmora_sleep(2000); /* the conversation */
        ok = velmora_hangup(alice.engine, 0);
    }
    if (ok) ok = wait_for(&alice.ended, 5000) && wait_for(&bob.ended, 5000);
    const long heard = atomic_load(&bob.heard);
    printf("bob heard %ld loud samples\n", heard);

    velmora_destroy(alice.engine);
    velmora_destroy(bob.engine);
    if (!ok || heard < 4000) {
        printf("the call failed\n");
        return 1;
    }
    printf("the call worked\n");
    return 0;
}
