// The window phone's command line and the URLs it dials.
#include "app/win/command_line.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>

#include "app/core/phone_core.h"

namespace velphone {
namespace {

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

// "%40" and the like, as browsers hand URLs over; a broken escape stays as it is.
std::string percentDecoded(const std::string& text) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size() && std::isxdigit(static_cast<unsigned char>(text[i + 1])) &&
            std::isxdigit(static_cast<unsigned char>(text[i + 2]))) {
            out += static_cast<char>(std::strtol(text.substr(i + 1, 2).c_str(), nullptr, 16));
            i += 2;
        } else {
            out += text[i];
        }
    }
    return out;
}

}  // namespace

std::string dialFromUrl(const std::string& url) {
    const size_t colon = url.find(':');
    if (colon == std::string::npos) return {};
    const std::string scheme = lower(url.substr(0, colon));
    std::string rest = url.substr(colon + 1);
    if (scheme == "sip" || scheme == "sips") {
        // Headers after "?" are not ours to send; URI parameters stay.
        rest = percentDecoded(rest.substr(0, rest.find('?')));
        if (rest.empty() || rest.find_first_of(" \t\r\n") != std::string::npos) return {};
        return scheme + ":" + rest;
    }
    if (scheme == "tel") {
        // A tel URI's parameters (";phone-context=...") and its visual
        // separators ("-", ".", "(", ")") go.
        std::string number = percentDecoded(rest.substr(0, rest.find(';')));
        std::erase_if(number, [](char c) { return c == '-' || c == '.'; });
        return dialable(number);
    }
    if (scheme == "callto") {
        while (!rest.empty() && rest.front() == '/') rest.erase(0, 1);
        rest = percentDecoded(rest);
        while (!rest.empty() && rest.back() == '/') rest.pop_back();
        return dialable(rest);
    }
    return {};
}

std::optional<WindowOptions> parseWindowArguments(const std::vector<std::string>& args, std::string* error) {
    WindowOptions options;
    const auto fail = [&](const std::string& reason) -> std::optional<WindowOptions> {
        if (error) *error = reason;
        return std::nullopt;
    };
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (arg == "--minimized" || arg == "--exit") {
            (arg == "--exit" ? options.exitRunning : options.minimized) = true;
            continue;
        }
        if (arg.rfind("--", 0) == 0) {
            std::string* target = arg == "--data"            ? &options.dataFolder
                                  : arg == "--play"          ? &options.play
                                  : arg == "--record-heard"  ? &options.recordHeard
                                  : arg == "--bind"          ? &options.bind
                                                             : nullptr;
            if (!target && arg != "--port") return fail("unknown option " + arg);
            if (i + 1 >= args.size()) return fail(arg + " needs a value");
            const std::string& value = args[++i];
            if (target) {
                *target = value;
                continue;
            }
            char* end = nullptr;
            const long port = std::strtol(value.c_str(), &end, 10);
            if (value.empty() || *end || port < 0 || port > 65535) return fail("--port needs a port number");
            options.port = static_cast<int>(port);
            continue;
        }
        // A URL from a link, or a number typed into Run.
        std::string target = dialFromUrl(arg);
        if (target.empty() && arg.find(':') == std::string::npos) target = dialable(arg);
        if (target.empty()) return fail("nothing to dial in " + arg);
        options.dial = target;
    }
    return options;
}

}  // namespace velphone
