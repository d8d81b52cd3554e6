#pragma once
// Runs the built simulator as a user does, without a shell: an argument vector, its standard
// output and error together, its exit status, and a time limit after which it is killed; and a
// fresh folder for what a run reads and writes.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

extern char** environ;

namespace simtest {

struct SimRun {
    int exitCode = -1;  // -1: killed by a signal (or by the time limit)
    bool timedOut = false;
    std::string out;  // stdout and stderr
};

struct SimSpawn {
    std::vector<std::string> args;  // after the program
    std::vector<std::string> env;   // NAME=value entries that replace or add to the test's
    std::chrono::seconds limit{120};
    bool noProgress = true;
};

// coreutils' timeout ends a run that outlives its limit with SIGKILL, and env adds the run's own
// variables: what a user's shell would do, with no shell to read the arguments.
inline SimRun runSim(SimSpawn const& how) {
    std::vector<std::string> argv{"/usr/bin/timeout", "-s", "KILL", std::to_string(how.limit.count()), "/usr/bin/env"};
    argv.insert(argv.end(), how.env.begin(), how.env.end());
    argv.emplace_back(FBM_SIM_PATH);
    if (how.noProgress) argv.emplace_back("--no-progress");
    argv.insert(argv.end(), how.args.begin(), how.args.end());
    std::vector<char*> cargv;
    for (auto& a : argv) cargv.push_back(a.data());
    cargv.push_back(nullptr);

    SimRun r;
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return r;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, fds[1], STDERR_FILENO);
    pid_t pid = -1;
    int const spawned = posix_spawn(&pid, cargv[0], &actions, nullptr, cargv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(fds[1]);
    if (spawned != 0) {
        close(fds[0]);
        r.out = std::string("cannot run ") + cargv[0] + ": " + std::strerror(spawned);
        return r;
    }
    std::array<char, 4096> buf;
    for (;;) {
        ssize_t const n = read(fds[0], buf.data(), buf.size());
        if (n > 0) r.out.append(buf.data(), static_cast<size_t>(n));
        else if (n == 0 || errno != EINTR) break;
    }
    close(fds[0]);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    // Past its limit timeout kills the run and then itself, or exits with 128 + SIGKILL.
    r.timedOut = (WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) ||
                 (WIFEXITED(status) && WEXITSTATUS(status) == 128 + SIGKILL);
    r.exitCode = WIFEXITED(status) && !r.timedOut ? WEXITSTATUS(status) : -1;
    return r;
}

inline bool has(SimRun const& r, std::string const& text) { return r.out.find(text) != std::string::npos; }

// A file's whole text (empty when it cannot be read).
inline std::string slurp(std::string const& path) {
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

inline SimRun runSim(std::vector<std::string> args) { 
    SimSpawn how;
    how.args = std::move(args);
    return runSim(how);
}

// A fresh directory per test, so what a run leaves behind can be listed.
struct TempDir {
    std::string path;
    TempDir() {
        std::string pattern = ::testing::TempDir() + "fbm-sim-XXXXXX";
        path = mkdtemp(pattern.data()) ? pattern : "";
    }
    ~TempDir() {
        std::error_code ec;
        if (!path.empty()) std::filesystem::remove_all(path, ec);
    }
    std::string operator/(std::string const& name) const { return path + "/" + name; }
    std::set<std::string> names() const {
        std::set<std::string> out;
        std::error_code ec;
        for (auto const& e : std::filesystem::directory_iterator(path, ec)) out.insert(e.path().filename());
        return out;
    }
    std::string write(std::string const& name, std::string const& text) const {
        std::ofstream(*this / name) << text;
        return *this / name;
    }
};

// The scenario files shipped with the simulator.
inline std::vector<std::string> shippedScenarios() {
    std::vector<std::string> out;
    std::error_code ec;
    for (auto const& e : std::filesystem::directory_iterator(FBM_SCENARIO_DIR, ec))
        if (e.path().extension() == ".json") out.push_back(e.path().string());
    return out;
}

}  // namespace simtest
