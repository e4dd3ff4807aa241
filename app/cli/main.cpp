// velphone-cli: the phone in a terminal, over the same core as the window.
// Commands come from the prompt, a script file or standard input; the
// status and line texts are printed as they change.
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <condition_variable>
#include <algorithm>
#include <mutex>
#include <thread>

#include "app/cli/console.h"
#include "app/cli/wav_file.h"

namespace {

using velphone::Account;

std::atomic<bool> interrupted{false};

extern "C" void onInterrupt(int) { interrupted = true; }

const char* kHelp =
    "velphone-cli: the Velmora phone in a terminal.\n"
    "\n"
    "usage: velphone-cli [options]\n"
    "\n"
    "Account (stored in the data folder; without these the stored account is used):\n"
    "  --user NAME           user name (required to start)\n"
    "  --password TEXT       password\n"
    "  --domain DOMAIN       registrar's domain; none: peer to peer, no registration\n"
    "  --auth-user NAME      authentication name, when not the user name\n"
    "  --proxy HOST[:PORT]   outbound proxy\n"
    "  --transport udp|tcp|tls  transport to the registrar (default udp; tls: port 5061)\n"
    "  --voicemail NUMBER    the voicemail number\n"
    "  --stun HOST[:PORT]    STUN server asked for our public address (port 3478 by default)\n"
    "Phone:\n"
    "  --data DIR            data folder (default: the platform's, e.g. ~/.local/share/velmora-phone)\n"
    "  --bind ADDRESS        local address to use (default 0.0.0.0)\n"
    "  --port N              SIP port, UDP and TCP (default 5060; 0: any free port)\n"
    "  --play FILE.wav       the microphone is this file (8000 Hz mono 16-bit), looped\n"
    "  --record-heard FILE   what the loudspeaker plays is written to this WAV file at exit\n"
    "  --script FILE         run the commands in FILE, then quit\n"
    "  --srtp off|offered|required  encrypted calls (SRTP); kept in the settings\n"
    "  --ice on|off          ICE for the calls' media, with the STUN server above; kept in the settings\n"
    "  --turn IP[:PORT]      TURN relay for ICE (port 3478 by default), with --turn-user and --turn-password\n"
    "  --auto-answer         answer incoming calls at once\n"
    "  --help                this text\n"
    "\n"
    "Commands: dial NUMBER, answer [LINE], reject [LINE], hangup [LINE], hold [LINE], resume [LINE],\n"
    "transfer TARGET [LINE], dtmf DIGITS [LINE], record on|off, mute mic|speaker on|off,\n"
    "audiotest on|off, message TARGET TEXT, contacts [list|add NAME NUMBER|edit N NAME NUMBER|delete N],\n"
    "recent, voicemail, dnd on|off, autoanswer on|off, level 0-100, siplog on|off, status,\n"
    "wait SECONDS, wait-for TEXT [within SECONDS], quit. LINE is 1 or 2.\n"
    "Without --play and --record-heard the sound goes through the system's sound device.\n";

struct Options {
    std::map<std::string, std::string> values;
    bool autoAnswer = false;
};

// Options take one value each, except the flags.
bool parse(int argc, char** argv, Options& options, std::string& error) {
    static const char* withValue[] = {"--user",  "--password", "--domain", "--auth-user", "--proxy",
                                      "--transport", "--voicemail", "--stun", "--data", "--bind", "--port",
                                      "--play", "--record-heard", "--script", "--srtp",
                                      "--ice", "--turn", "--turn-user", "--turn-password"};
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            options.values["--help"] = "1";
            continue;
        }
        if (arg == "--auto-answer") {
            options.autoAnswer = true;
            continue;
        }
        const bool known = std::any_of(std::begin(withValue), std::end(withValue), [&](const char* o) { return arg == o; });
        if (!known) {
            error = "unknown option " + arg + " (see --help)";
            return false;
        }
        if (i + 1 >= argc) {
            error = arg + " needs a value";
            return false;
        }
        options.values[arg] = argv[++i];
    }
    if (options.values.count("--port")) {
        char* end = nullptr;
        const long port = std::strtol(options.values["--port"].c_str(), &end, 10);
        if (*end != '\0' || port < 0 || port > 65535) {
            error = "--port needs a number from 0 to 65535";
            return false;
        }
    }
    return true;
}

// Commands from a script or standard input, each run on the core's thread
// in turn; "wait" and "wait-for" hold the reader, not the phone.
void readCommands(std::istream& in, velphone::Console& console, velphone::PhoneCore& core, std::atomic<int>& exitCode) {
    std::string line;
    // wait-for looks at what was printed since the last command was given,
    // so an earlier call's "Talking" does not answer for the next one.
    size_t mark = 0;
    for (;;) {
        if (!std::getline(in, line)) break;
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.rfind("wait-for ", 0) == 0) {
            std::string text = line.substr(9);
            int seconds = 30;
            if (const auto within = text.rfind(" within "); within != std::string::npos) {
                seconds = std::atoi(text.c_str() + within + 8);
                text.resize(within);
            }
            if (!console.waitFor(text, mark, std::chrono::seconds(seconds))) {
                console.print("wait-for timed out: " + text);
                exitCode = 1;
                break;
            }
            continue;
        }
        if (line.rfind("wait ", 0) == 0) {
            const double seconds = std::atof(line.c_str() + 5);
            console.pause(std::chrono::milliseconds(static_cast<int64_t>(seconds * 1000)));
            if (console.quitting()) break;
            continue;
        }
        // Shared with the task: after Ctrl+C the reader may leave before it ran.
        struct Run {
            std::mutex mutex;
            std::condition_variable ran;
            bool finished = false;
            bool more = true;
        };
        auto run = std::make_shared<Run>();
        mark = console.printed();
        console.post([run, line, &core, &console] {
            const bool more = velphone::runCommand(core, console, line);
            const std::lock_guard lock(run->mutex);
            run->more = more;
            run->finished = true;
            run->ran.notify_one();
        });
        std::unique_lock lock(run->mutex);
        while (!run->ran.wait_for(lock, std::chrono::milliseconds(100), [&] { return run->finished; })) {
            if (console.quitting()) return;
        }
        const bool more = run->more;
        if (!more) break;
    }
    console.quit();
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    std::string error;
    if (!parse(argc, argv, options, error)) {
        std::fprintf(stderr, "velphone-cli: %s\n", error.c_str());
        return 2;
    }
    auto& v = options.values;
    if (v.count("--help")) {
        std::fputs(kHelp, stdout);
        return 0;
    }

    velphone::EngineSetup setup;
    if (v.count("--bind")) setup.bindAddress = v["--bind"];
    if (v.count("--port")) setup.sipPort = std::atoi(v["--port"].c_str());
    std::vector<int16_t> playing, heard;
    std::atomic<size_t> playAt{0};
    std::mutex heardMutex;
    if (v.count("--play")) {
        auto samples = velphone::readWav8k(v["--play"], &error);
        if (!samples) {
            std::fprintf(stderr, "velphone-cli: %s\n", error.c_str());
            return 2;
        }
        playing = std::move(*samples);
        setup.virtualDevice = true;
        setup.microphone = [&](int16_t* buffer, size_t count) {
            for (size_t i = 0; i < count; ++i) buffer[i] = playing[playAt++ % playing.size()];
        };
    }
    if (v.count("--record-heard")) {
        setup.virtualDevice = true;
        setup.loudspeaker = [&](const int16_t* samples, size_t count) {
            const std::lock_guard lock(heardMutex);
            heard.insert(heard.end(), samples, samples + count);
        };
    }
    std::ifstream script;
    if (v.count("--script")) {
        script.open(v["--script"]);
        if (!script) {
            std::fprintf(stderr, "velphone-cli: cannot read the script %s\n", v["--script"].c_str());
            return 2;
        }
    }

    velphone::Console console;
    velphone::PhoneCore core(console, velphone::Stores(v.count("--data") ? std::filesystem::path(v["--data"])
                                                                         : velphone::Stores::defaultFolder()),
                             setup);
    console.attach(core);
    if (!core.load(&error)) {
        std::fprintf(stderr, "velphone-cli: cannot use the data folder: %s\n", error.c_str());
        return 1;
    }
    Account account = core.account();
    const std::pair<const char*, std::string Account::*> fields[] = {
        {"--user", &Account::user},   {"--password", &Account::password},   {"--domain", &Account::domain},
        {"--auth-user", &Account::authUser}, {"--proxy", &Account::proxy}, {"--transport", &Account::transport},
        {"--voicemail", &Account::voicemail}, {"--stun", &Account::stun}};
    for (const auto& [option, field] : fields) {
        if (v.count(option)) account.*field = v[option];
    }
    if (options.autoAnswer) core.setAutoAnswer(true);
    if (v.count("--srtp") && !core.setSrtp(v["--srtp"])) {
        std::fprintf(stderr, "velphone-cli: --srtp needs off, offered or required\n");
        return 2;
    }
    if (v.count("--ice") || v.count("--turn")) {
        if (v.count("--ice") && v["--ice"] != "on" && v["--ice"] != "off") {
            std::fprintf(stderr, "velphone-cli: --ice needs on or off\n");
            return 2;
        }
        const velphone::Settings& now = core.settings();
        const bool on = v.count("--ice") ? v["--ice"] == "on" : now.ice;
        core.setIce(on, v.count("--turn") ? v["--turn"] : now.turnServer,
                    v.count("--turn-user") ? v["--turn-user"] : now.turnUser,
                    v.count("--turn-password") ? v["--turn-password"] : now.turnPassword);
    }
    if (!core.start(account)) {
        std::fprintf(stderr, "velphone-cli: %s\n", core.statusText().c_str());
        return 1;
    }
    console.changed();

    std::signal(SIGINT, onInterrupt);
    std::atomic<int> exitCode{0};
    const bool interactive = !v.count("--script");
    std::thread reader([&] { readCommands(interactive ? std::cin : script, console, core, exitCode); });
    console.run(interrupted);
    console.quit();
    if (interrupted) console.print("interrupted: un-registering");
    core.exit();
    if (v.count("--record-heard")) {
        const std::lock_guard lock(heardMutex);
        if (!velphone::writeWav8k(v["--record-heard"], heard, &error)) {
            std::fprintf(stderr, "velphone-cli: %s\n", error.c_str());
            exitCode = 1;
        }
    }
    // A reader blocked on the terminal cannot be woken portably; the
    // process ends around it.
    if (interactive) {
        reader.detach();
    } else {
        reader.join();
    }
    std::fflush(stdout);
    return exitCode;
}
