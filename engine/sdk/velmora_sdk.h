/* The engine's flat interface for C and for other languages' foreign
 * function interfaces: an opaque handle, plain integers and NUL-terminated
 * UTF-8 texts, and one callback that receives every event as a flat record.
 * No C++ exception ever leaves these functions. */
#ifndef VELMORA_SDK_H
#define VELMORA_SDK_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define VELMORA_SDK_VERSION "5.0.0"

/* Event codes (velmora_event.type). */
enum {
    VELMORA_EVENT_REGISTRATION = 1,  /* line = account line, a = state, b = SIP status, s1 = reason */
    VELMORA_EVENT_INCOMING_CALL = 2, /* line, s1 = remote address, s2 = display name */
    VELMORA_EVENT_CALL_STATE = 3,    /* line, a = call state, b = SIP status, c = 1 if incoming,
                                        s1 = remote address, s2 = reason */
    VELMORA_EVENT_CALL_MEDIA = 4,    /* line, c = VELMORA_MEDIA_* flags, s1 = codec or error */
    VELMORA_EVENT_DTMF = 5,          /* line, ch = digit */
    VELMORA_EVENT_MESSAGE = 6,       /* s1 = sender, s2 = body, s3 = content type */
    VELMORA_EVENT_STACK_RESERVED = 7,
    VELMORA_EVENT_SUBSCRIPTION = 8,  /* a = 1 when active, b = SIP status, c = subscription,
                                        s1 = event package, s2 = target, s3 = state */
    VELMORA_EVENT_TRANSFER = 9,      /* line, b = SIP status of the transferred call */
    VELMORA_EVENT_AUDIO_STATE = 10,  /* a = 1 started, 0 stopped; s1 = device description */
    VELMORA_EVENT_AUDIO_ERROR = 11,  /* s1 = error text */
    VELMORA_EVENT_VOICEMAIL = 12,    /* c bit 0 = messages waiting, a = new, b = old, s1 = account */
    VELMORA_EVENT_RECORDING = 13     /* a = 1 on success, s1 = file path */
};

/* Registration states (a of event 1). */
enum {
    VELMORA_REG_UNREGISTERED = 0,
    VELMORA_REG_REGISTERING = 1,
    VELMORA_REG_REGISTERED = 2,
    VELMORA_REG_UNREGISTERING = 3,
    VELMORA_REG_FAILED = 4
};

/* Call states (a of event 3). */
enum {
    VELMORA_CALL_CALLING = 1,
    VELMORA_CALL_PROCEEDING = 2,
    VELMORA_CALL_RINGING = 3,
    VELMORA_CALL_INCOMING = 4,
    VELMORA_CALL_CONNECTED = 5,
    VELMORA_CALL_ON_HOLD = 6,
    VELMORA_CALL_HELD_BY_PEER = 7,
    VELMORA_CALL_DISCONNECTING = 8,
    VELMORA_CALL_TERMINATED = 9
};

/* Media flags (c of event 4). */
enum { VELMORA_MEDIA_SECURE = 1, VELMORA_MEDIA_RUNNING = 2, VELMORA_MEDIA_FAILED = 4 };

/* Account transports (velmora_start). */
enum { VELMORA_TRANSPORT_UDP = 1, VELMORA_TRANSPORT_TCP = 2, VELMORA_TRANSPORT_TLS = 3 };

/* The texts are valid only during the callback and never null ("" when
 * unused); copy what you keep. */
typedef struct velmora_event {
    int32_t type;
    int32_t line; /* -1 when the event concerns no line */
    int32_t a;
    int32_t b;
    int32_t c;
    char ch;
    const char* s1;
    const char* s2;
    const char* s3;
} velmora_event;

/* Runs on an engine thread: keep it short, hand work to your own thread. */
typedef void (*velmora_event_callback)(const velmora_event* event, void* context);
/* The virtual sound device: fill `count` microphone samples (8000 Hz,
 * 16-bit mono), and receive `count` loudspeaker samples. */
typedef void (*velmora_sample_source)(int16_t* buffer, size_t count, void* context);
typedef void (*velmora_sample_sink)(const int16_t* samples, size_t count, void* context);
/* level: 2 information, 3 warning, 4 error; component: "Softphone", "transport", ... */
typedef void (*velmora_log_callback)(int level, const char* component, const char* text, void* context);

/* The settings a program usually changes; velmora_config_init fills the
 * defaults. Texts are copied by velmora_create. */
typedef struct velmora_config {
    uint32_t size;              /* sizeof(velmora_config), set by velmora_config_init */
    const char* bind_address;   /* "0.0.0.0" */
    uint16_t sip_port;          /* 5060; 0 lets the system choose */
    int32_t enable_udp;         /* 1 */
    int32_t enable_tcp;         /* 1 */
    const char* user_agent;     /* "Velmora Networks SIP SDK v5.0" */
    const char* display_name;   /* "" */
    int32_t register_expires;   /* 3600 s */
    int32_t session_expires;    /* 1800 s */
    int32_t dtmf_method;        /* 0 RFC 4733 events, 1 SIP INFO */
    uint16_t rtp_port_min;      /* 10000 */
    uint16_t rtp_port_max;      /* 15000 */
    const char* dns_servers;    /* "host[:port]" separated by commas; "" = the system's */
    int32_t audio_buffer_ms;    /* 20 */
    /* Added later; a caller built against the shorter record gets the defaults. */
    const char* tls_ca_file;    /* "": servers' certificates checked against the system's CAs only */
    int32_t srtp_policy;        /* 0 off, 1 offered (best effort), 2 required */
    int32_t ice;                /* 1: ICE for the calls' media (STUN server from the account, TURN below) */
    const char* turn_server;    /* "ip[:port]"; "": no relay */
    const char* turn_user;
    const char* turn_password;
} velmora_config;

typedef struct velmora_engine velmora_engine;

const char* velmora_version(void);
/* Waits on the calling thread: plain C has no portable sleep of its own. */
void velmora_sleep(int milliseconds);
void velmora_config_init(velmora_config* config);
/* Log lines of the whole stack at `level` and above (2 information). A null
 * callback writes nothing. Global: affects every engine. */
void velmora_set_log(velmora_log_callback callback, void* context, int level);

/* On the system's sound device. Null config: the defaults. */
velmora_engine* velmora_create(const velmora_config* config, velmora_event_callback callback, void* context);
/* On a virtual sound device fed by `source` and played into `sink` (either
 * may be null: silence, nowhere), both called with `audio_context`. */
velmora_engine* velmora_create_virtual(const velmora_config* config, velmora_event_callback callback, void* context,
                                       velmora_sample_source source, velmora_sample_sink sink, void* audio_context);
/* Un-registers (waiting up to 3 s), finishes a recording and frees the engine. */
void velmora_destroy(velmora_engine* engine);

/* 1 on success, 0 on failure (or a null handle). An empty domain runs peer
 * to peer without registering. */
int velmora_start(velmora_engine* engine, const char* user, const char* password, const char* domain,
                  const char* auth_user, const char* proxy, const char* stun, const char* voicemail, int transport);
int velmora_stop(velmora_engine* engine);

/* Calls: `line` is the call's number from events 2 and 3 or velmora_call;
 * a line below 1 means the call at hand. velmora_call returns the new
 * call's line, or 0. */
int velmora_call(velmora_engine* engine, const char* number);
int velmora_answer(velmora_engine* engine, int line);
int velmora_reject(velmora_engine* engine, int line); /* 486 Busy Here */
int velmora_hangup(velmora_engine* engine, int line);
int velmora_hold(velmora_engine* engine, int line);
int velmora_resume(velmora_engine* engine, int line);
int velmora_send_dtmf(velmora_engine* engine, int line, char digit);
int velmora_transfer(velmora_engine* engine, int line, const char* target);
/* A page-mode message; returns its number, or 0. */
int velmora_send_message(velmora_engine* engine, const char* target, const char* body, const char* content_type);

int velmora_mute_microphone(velmora_engine* engine, int on);
int velmora_mute_speaker(velmora_engine* engine, int on);
/* 0..100, 50 is unity gain. */
int velmora_set_microphone_level(velmora_engine* engine, int level);
int velmora_audio_test(velmora_engine* engine, int on);

int velmora_start_recording(velmora_engine* engine, const char* path);
int velmora_stop_recording(velmora_engine* engine);
int velmora_subscribe_voicemail(velmora_engine* engine);

/* The account's address, NUL-terminated into `buffer`; returns its length,
 * or 0 before start or when it does not fit. */
int velmora_local_address(velmora_engine* engine, char* buffer, size_t size);

#ifdef __cplusplus
}
#endif

#endif
