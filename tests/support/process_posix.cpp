// Child processes with fork and exec, a process group each, always reaped.
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <sstream>
#include <thread>

#include "support/process.h"
#include "support/temp_dir.h"

namespace kelsip::test {

struct Process::State {
    pid_t pid = -1;
    std::optional<int> exit;
    ProcessOptions options;
};

Process::Process() : state_(std::make_unique<State>()) {}
Process::~Process() { stop(); }

bool Process::supported() { return true; }

std::string Process::findProgram(std::string_view name) {
    const std::string n(name);
    if (n.find('/') != std::string::npos) return ::access(n.c_str(), X_OK) == 0 ? n : std::string();
    std::istringstream folders(std::string(std::getenv("PATH") != nullptr ? std::getenv("PATH") : "") +
                               ":/usr/local/sbin:/usr/sbin:/sbin");
    for (std::string folder; std::getline(folders, folder, ':');) {
        if (!folder.empty() && ::access((folder + "/" + n).c_str(), X_OK) == 0) return folder + "/" + n;
    }
    return {};
}

bool Process::start(const ProcessOptions& options, std::string* error) {
    stop();
    state_->options = options;
    state_->exit.reset();
    const std::string program = findProgram(options.program);
    if (program.empty()) {
        *error = options.program + " not found";
        return false;
    }
    // Built before the fork: between fork and exec only system calls.
    std::vector<std::string> args{program};
    args.insert(args.end(), options.arguments.begin(), options.arguments.end());
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    const std::string log = options.logFile.empty() ? "/dev/null" : options.logFile.string();
    const std::string folder = options.workingDirectory.string();
    const pid_t parent = ::getpid();
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::setpgid(0, 0);
        ::prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (::getppid() != parent) ::_exit(127);
        sigset_t none;
        sigemptyset(&none);
        ::sigprocmask(SIG_SETMASK, &none, nullptr);
        ::signal(SIGPIPE, SIG_DFL);
        // None of the test's sockets leak into the peer.
        ::close_range(3, ~0U, 0);
        const int in = ::open("/dev/null", O_RDONLY);
        const int out = ::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        if (in >= 0 && out >= 0 && ::dup2(in, 0) >= 0 && ::dup2(out, 1) >= 0 && ::dup2(out, 2) >= 0 &&
            (folder.empty() || ::chdir(folder.c_str()) == 0)) {
            ::execv(program.c_str(), argv.data());
        }
        ::_exit(127);
    }
    if (pid < 0) {
        *error = "cannot fork for " + program;
        return false;
    }
    ::setpgid(pid, pid);  // also from here, so that an early stop() finds the group
    state_->pid = pid;
    return true;
}

std::optional<int> Process::exitCode() {
    int status = 0;
    if (!state_->exit && state_->pid > 0 && ::waitpid(state_->pid, &status, WNOHANG) == state_->pid) {
        state_->exit = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
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

bool Process::interrupt() { return state_->pid > 0 && isRunning() && ::kill(state_->pid, SIGINT) == 0; }

void Process::stop() {
    if (state_->pid <= 0) return;
    if (isRunning()) {
        ::kill(-state_->pid, SIGTERM);
        if (!waitForExit(state_->options.stopGrace)) ::kill(-state_->pid, SIGKILL);
        while (isRunning()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    // Helpers that outlived the program (Kamailio's children) are in its
    // group; no other process gets that number while the group has members.
    ::kill(-state_->pid, SIGKILL);
    state_->pid = -1;
}

std::string Process::log() const {
    return state_->options.logFile.empty() ? std::string() : readTextFile(state_->options.logFile);
}

std::shared_ptr<const void> lowerDescriptorLimit(unsigned limit) {
    static const int guard = 0;
    rlimit old{};
    if (::getrlimit(RLIMIT_NOFILE, &old) != 0) return nullptr;
    const rlimit lowered{limit < old.rlim_max ? limit : old.rlim_max, old.rlim_max};
    if (::setrlimit(RLIMIT_NOFILE, &lowered) != 0) return nullptr;
    return {&guard, [old](const void*) { ::setrlimit(RLIMIT_NOFILE, &old); }};
}

}  // namespace kelsip::test
