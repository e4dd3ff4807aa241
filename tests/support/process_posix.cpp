// Child processes with fork and exec: a process group each, output to a log
// file, stopped with SIGTERM then SIGKILL and always reaped; they also get
// SIGTERM when the test process dies first.
#include "support/process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "support/temp_dir.h"

extern char** environ;

namespace kelsip::test {

struct Process::State {
    pid_t pid = -1;
    std::optional<int> exit;
    ProcessOptions options;
    bool groupCleared = true;  // no helper of ours can be left in the group
};

namespace {

int decodeStatus(int status) {
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return 255;
}

std::vector<std::string> mergedEnvironment(const std::vector<std::string>& overrides) {
    std::vector<std::string> merged;
    auto nameOf = [](std::string_view entry) { return entry.substr(0, entry.find('=')); };
    for (char** e = environ; e != nullptr && *e != nullptr; ++e) {
        const std::string_view entry(*e);
        bool replaced = false;
        for (const std::string& o : overrides) replaced = replaced || nameOf(o) == nameOf(entry);
        if (!replaced) merged.emplace_back(entry);
    }
    merged.insert(merged.end(), overrides.begin(), overrides.end());
    return merged;
}

std::vector<char*> pointers(std::vector<std::string>& strings) {
    std::vector<char*> out;
    for (std::string& s : strings) out.push_back(s.data());
    out.push_back(nullptr);
    return out;
}

// Closes descriptors first..last (async-signal-safe: only system calls).
void closeDescriptors(unsigned first, unsigned last, unsigned maxDescriptor) {
    if (first > last) return;
    if (::close_range(first, last, 0) == 0) return;
    // Kernels before 5.9 lack close_range.
    for (unsigned fd = first; fd <= last && fd < maxDescriptor; ++fd) ::close(static_cast<int>(fd));
}

}  // namespace

Process::Process() : state_(std::make_unique<State>()) {}

Process::~Process() {
    if (state_) stop();
}

Process::Process(Process&&) noexcept = default;

Process& Process::operator=(Process&& other) noexcept {
    if (this != &other) {
        if (state_) stop();
        state_ = std::move(other.state_);
    }
    return *this;
}

bool Process::supported() { return true; }

std::string Process::findProgram(std::string_view name) {
    if (name.find('/') != std::string_view::npos) {
        return ::access(std::string(name).c_str(), X_OK) == 0 ? std::string(name) : std::string();
    }
    std::vector<std::string> folders;
    if (const char* path = std::getenv("PATH")) {
        std::string_view rest(path);
        while (!rest.empty()) {
            const size_t colon = rest.find(':');
            if (colon != 0) folders.emplace_back(rest.substr(0, colon));
            rest.remove_prefix(colon == std::string_view::npos ? rest.size() : colon + 1);
        }
    }
    for (const char* folder : {"/usr/local/sbin", "/usr/local/bin", "/usr/sbin", "/usr/bin", "/sbin", "/bin"}) {
        folders.emplace_back(folder);
    }
    for (const std::string& folder : folders) {
        const std::string candidate = folder + "/" + std::string(name);
        if (::access(candidate.c_str(), X_OK) == 0) return candidate;
    }
    return {};
}

bool Process::start(const ProcessOptions& options, std::string* error) {
    stop();
    state_->options = options;
    state_->exit.reset();
    const std::string program = findProgram(options.program);
    if (program.empty()) {
        if (error != nullptr) *error = options.program + " not found";
        return false;
    }
    // Everything the child needs is built here: between fork and exec it
    // may only make system calls.
    std::vector<std::string> args{program};
    args.insert(args.end(), options.arguments.begin(), options.arguments.end());
    std::vector<std::string> env = mergedEnvironment(options.environment);
    std::vector<char*> argv = pointers(args);
    std::vector<char*> envp = pointers(env);
    const std::string log = options.logFile.empty() ? std::string("/dev/null") : options.logFile.string();
    const std::string folder = options.workingDirectory.string();
    // The child reports a failed exec through this pipe; a successful exec
    // closes it.
    int report[2];
    if (::pipe2(report, O_CLOEXEC) != 0) {
        if (error != nullptr) *error = std::string("cannot start ") + program + ": " + std::strerror(errno);
        return false;
    }
    const pid_t parent = ::getpid();
    const long openMax = ::sysconf(_SC_OPEN_MAX);
    const unsigned maxDescriptor = openMax > 0 && openMax < 1 << 20 ? static_cast<unsigned>(openMax) : 1U << 16;

    const pid_t pid = ::fork();
    if (pid == 0) {
        ::close(report[0]);
        // A group of its own, so that stop() reaches what it forks; and
        // SIGTERM when the test process dies without stopping it (a crash,
        // a sanitizer's abort), so that no peer outlives its test.
        ::setpgid(0, 0);
        ::prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (::getppid() != parent) ::_exit(127);
        // The test's threads may block signals or ignore SIGPIPE; the
        // program starts with the defaults.
        sigset_t none;
        sigemptyset(&none);
        ::sigprocmask(SIG_SETMASK, &none, nullptr);
        for (const int s : {SIGPIPE, SIGTERM, SIGINT, SIGHUP, SIGCHLD, SIGUSR1, SIGUSR2}) ::signal(s, SIG_DFL);
        // Nothing of the test's leaks in: its sockets, or a pipe that
        // someone waits on until every holder has closed it.
        if (report[1] > 3) closeDescriptors(3, static_cast<unsigned>(report[1]) - 1, maxDescriptor);
        closeDescriptors(static_cast<unsigned>(report[1]) + 1, ~0U, maxDescriptor);
        const int in = ::open("/dev/null", O_RDONLY);
        const int out = ::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        int failure = 0;
        if (in < 0 || out < 0 || ::dup2(in, 0) < 0 || ::dup2(out, 1) < 0 || ::dup2(out, 2) < 0 ||
            (!folder.empty() && ::chdir(folder.c_str()) != 0)) {
            failure = errno;
        } else {
            if (in > 2) ::close(in);
            if (out > 2) ::close(out);
            ::execve(program.c_str(), argv.data(), envp.data());
            failure = errno;
        }
        static_cast<void>(::write(report[1], &failure, sizeof failure));
        ::_exit(127);
    }
    ::close(report[1]);
    if (pid < 0) {
        const int failure = errno;
        ::close(report[0]);
        if (error != nullptr) *error = std::string("cannot start ") + program + ": " + std::strerror(failure);
        return false;
    }
    // Also from this side, so that a stop() at once finds the group.
    ::setpgid(pid, pid);
    state_->pid = pid;
    state_->groupCleared = false;

    int failure = 0;
    ssize_t got;
    do {
        got = ::read(report[0], &failure, sizeof failure);
    } while (got < 0 && errno == EINTR);
    ::close(report[0]);
    if (got == static_cast<ssize_t>(sizeof failure)) {
        stop();
        if (error != nullptr) *error = std::string("cannot start ") + program + ": " + std::strerror(failure);
        return false;
    }
    return true;
}

std::optional<int> Process::exitCode() {
    if (state_->exit || state_->pid <= 0) return state_->exit;
    int status = 0;
    pid_t r;
    do {
        r = ::waitpid(state_->pid, &status, WNOHANG);
    } while (r < 0 && errno == EINTR);
    if (r == state_->pid) state_->exit = decodeStatus(status);
    return state_->exit;
}

bool Process::isRunning() { return state_->pid > 0 && !exitCode(); }

std::optional<int> Process::waitForExit(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (isRunning() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return exitCode();
}

void Process::stop() {
    if (state_->pid <= 0) return;
    const pid_t group = state_->pid;
    if (isRunning()) {
        ::kill(-group, SIGTERM);
        if (!waitForExit(state_->options.stopGrace)) {
            ::kill(-group, SIGKILL);
            int status = 0;
            while (::waitpid(state_->pid, &status, 0) < 0 && errno == EINTR) {
            }
            state_->exit = decodeStatus(status);
        }
    }
    // Helpers that outlived the program (Kamailio's children, say) are in its
    // group. The system hands no process that number while the group has
    // members, and pid numbers come round only after thousands of starts, so this
    // reaches our helpers or no one.
    if (!state_->groupCleared) {
        ::kill(-group, SIGKILL);
        state_->groupCleared = true;
    }
}

int Process::pid() const { return state_->pid; }

std::string Process::log() const {
    return state_->options.logFile.empty() ? std::string() : readTextFile(state_->options.logFile);
}

}  // namespace kelsip::test
