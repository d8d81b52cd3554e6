#include "Outputs.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <set>

#include <nlohmann/json.hpp>
#include <vexlor/HostSeams.h>

extern char** environ;

namespace fbmsim {
namespace {

bool hasControl(std::string const& s) { return printable(s) != s; }

// A string by gnuplot's rules: inside single quotes nothing is special but the quote, doubled.
std::string gnuplotQuoted(std::string const& s) {
    std::string out = "'";
    for (char c : s) {
        out += c;
        if (c == '\'') out += '\'';
    }
    return out + "'";
}

std::string findInPath(char const* program) {
    char const* path = std::getenv("PATH");
    std::string dirs = path ? path : "/usr/bin:/bin";
    size_t start = 0;
    while (start <= dirs.size()) {
        size_t const end = std::min(dirs.find(':', start), dirs.size());
        std::string dir = dirs.substr(start, end - start);
        std::string const candidate = (dir.empty() ? "." : dir) + "/" + program;
        struct stat st{};
        if (stat(candidate.c_str(), &st) == 0 && S_ISREG(st.st_mode) && access(candidate.c_str(), X_OK) == 0) {
            return candidate;
        }
        start = end + 1;
    }
    return {};
}

// A temporary file beside `path` (same directory, so the final rename cannot cross devices).
bool makeTempBeside(std::string const& path, char const* suffix, std::string& out, std::string& error) {
    size_t const slash = path.rfind('/');
    std::string const dir = slash == std::string::npos ? "." : path.substr(0, slash == 0 ? 1 : slash);
    std::string const base = slash == std::string::npos ? path : path.substr(slash + 1);
    std::string pattern = dir + "/." + base + suffix + ".XXXXXX";
    int const fd = mkstemp(pattern.data());
    if (fd < 0) {
        error = path + ": cannot be created: " + std::strerror(errno);
        return false;
    }
    // mkstemp makes it private; the final file gets the mode any new file of the user's gets.
    mode_t const mask = umask(0);
    umask(mask);
    fchmod(fd, 0666 & ~mask);
    ::close(fd);
    out = pattern;
    return true;
}

}  // namespace

bool OutputFile::open(std::string const& path, std::string& error) {
    mPath = path;
    struct stat st{};
    if (stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
        error = path + ": is a directory";
        return false;
    }
    errno = 0;
    mOut.open(path, std::ios::out | std::ios::trunc);
    if (!mOut) {
        error = path + ": cannot be created: " + std::strerror(errno ? errno : EIO);
        return false;
    }
    return true;
}

bool OutputFile::close(std::string& error) {
    errno = 0;
    mOut.flush();
    bool const flushed = static_cast<bool>(mOut);
    int const flushErrno = errno;
    mOut.close();
    if (flushed && mOut) return true;
    error = mPath + ": could not be written: " + std::strerror(flushErrno ? flushErrno : errno ? errno : EIO);
    return false;
}

bool TraceWriter::open(std::string const& path, std::string& error) {
    if (!mFile.open(path, error)) return false;
    mFile.out() << "{\"displayTimeUnit\":\"ns\",\"traceEvents\":[\n";
    return true;
}

void TraceWriter::start() {
    mStarted = true;
    vexlor::host::TraceRecorder::setSink([this](vexlor::host::TraceEvent const& e) {
        if (mFirst) mT0 = e.timeNs;
        auto& out = mFile.out();
        if (!mFirst) out << ",\n";
        mFirst = false;
        char ts[32];
        std::snprintf(ts, sizeof ts, "%.3f", static_cast<double>(e.timeNs - mT0) / 1000.0);
        // A counter track (a pool's occupancy, the ready list's length) is a "C" event whose
        // argument is the track's value.
        out << "{\"ph\":\"" << (e.counter ? "C" : e.begin ? "B" : "E") << "\",\"pid\":1,\"tid\":" << e.tid
            << ",\"ts\":" << ts;
        if (e.counter) out << ",\"args\":{\"value\":" << e.value << "}";
        if (e.begin || e.counter) {
            // Names carry stream names, which may hold any character; a cut UTF-8 sequence is
            // replaced rather than written invalid.
            out << ",\"name\":"
                << nlohmann::json(e.name).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
        }
        out << "}";
    });
}

bool TraceWriter::finish(std::string& error) {
    if (mStarted) vexlor::host::TraceRecorder::setSink(nullptr);
    mStarted = false;
    mFile.out() << "\n]}\n";
    return mFile.close(error);
}

TraceWriter::~TraceWriter() {
    if (mStarted) vexlor::host::TraceRecorder::setSink(nullptr);
}

void writeSeries(RunReport const& r, std::ostream& out) {
    std::set<std::string> names;
    for (auto const& row : r.series)
        for (auto const& [name, v] : row.pools) names.insert(name);
    out << "frame\tseconds\treadyList\tresidentMb\theapMb";
    for (auto const& raw : names) {
        std::string const n = printable(raw);
        out << "\t" << n << ".allocated\t" << n << ".inUse\t" << n << ".available";
    }
    out << "\n";
    for (auto const& row : r.series) {
        out << row.frame << "\t" << row.seconds << "\t" << row.readyList << "\t" << row.residentMb << "\t"
            << static_cast<double>(row.heapBytes) / (1 << 20);
        for (auto const& n : names) {
            auto it = row.pools.find(n);
            int64_t const a = it == row.pools.end() ? 0 : it->second.first;
            int64_t const u = it == row.pools.end() ? 0 : it->second.second;
            out << "\t" << a << "\t" << u << "\t" << (a - u);
        }
        out << "\n";
    }
}

std::string reportJson(RunReport const& r) {
    using nlohmann::json;
    auto latency = [](Histogram const& h) {
        return json{{"count", h.count()}, {"medianUs", h.quantile(0.5) / 1000.0},
                    {"p99Us", h.quantile(0.99) / 1000.0}, {"maxUs", h.max() / 1000.0}};
    };
    json j;
    j["scenario"] = r.scenario;
    j["frames"] = r.frames;
    j["fps"] = r.fps;
    j["seed"] = r.seed;
    j["resultThreads"] = r.resultThreads;
    j["seconds"] = r.seconds;
    j["framesPerSecond"] = r.seconds > 0 ? r.frames / r.seconds : 0.0;
    j["frameCounts"] = {{"completed", r.completed}, {"destroyed", r.destroyed},
                        {"withoutTimestamp", r.noTimestamp}, {"keptNothing", r.untracked}};
    j["streams"] = json::array();
    for (auto const& st : r.streams) {
        j["streams"].push_back({{"name", st.name}, {"id", st.id}, {"source", sourceName(st.source)},
                                {"maxBuffers", st.maxBuffers}, {"requests", st.requests}, {"buffers", st.buffers},
                                {"failures", st.failures}, {"timeouts", st.timeouts},
                                {"slowWaitsAfterWarmup", st.slowWaits}, {"latency", latency(st.latency)}});
    }
    j["runtimeAllocations"] = r.runtimeAllocations;
    j["acquireTimeouts"] = r.acquireTimeouts;
    j["historySets"] = {{"selections", r.selections},         {"selected", r.selected},
                        {"keptForProcessing", r.keptForProcessing}, {"returnedKept", r.returnedKept},
                        {"releasedBySelector", r.releasedBySelector}, {"releasedAfterProcessing", r.processedReleased},
                        {"cloned", r.cloned},                 {"releasedUnderPressure", r.releasedUnderPressure}};
    j["latencyBySource"] = json::object();
    for (auto const& [source, h] : r.latency) j["latencyBySource"][sourceName(source)] = latency(h);
    j["memory"] = {{"pipelinePeakBytes", r.peakBytes}, {"peakResidentMb", r.peakResidentMb}, {"heaps", json::array()}};
    for (auto const& m : r.memory) {
        j["memory"]["heaps"].push_back({{"heapName", m.heapName}, {"kind", m.kind}, {"streams", m.streams},
                                        {"heapBytes", m.heapBytes}, {"maxBuffers", m.maxBuffers},
                                        {"peakInUse", m.peakInUse}, {"peakHeaps", m.peakHeaps},
                                        {"peakBytes", m.peakBytes}});
    }
    j["warmupFrames"] = r.warmupFrames;
    j["leakFree"] = r.leakFree;
    j["leakCheck"] = r.leakText;
    return j.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
}

std::string processJson(ProcessReport const& process) {
    nlohmann::json j;
    j["pipelines"] = nlohmann::json::array();
    for (auto const& r : process.pipelines) j["pipelines"].push_back(nlohmann::json::parse(reportJson(r)));
    j["processPeakBytes"] = process.peakBytes;
    j["leakFree"] = process.leakFree;
    return j.dump(2) + "\n";
}

bool PlotWriter::prepare(std::string const& pngPath, std::string const& seriesPath, std::string& error) {
    if (hasControl(pngPath)) {
        error = "the file name holds a control character";
        return false;
    }
    mGnuplot = findInPath("gnuplot");
    if (mGnuplot.empty()) {
        error = "gnuplot is not installed (scripts/ensure-deps.sh sim)";
        return false;
    }
    struct stat st{};
    if (stat(pngPath.c_str(), &st) == 0 && !S_ISREG(st.st_mode)) {
        error = pngPath + (S_ISDIR(st.st_mode) ? ": is a directory" : ": is not a regular file");
        return false;
    }
    mPng = pngPath;
    if (!makeTempBeside(pngPath, "", mTempPng, error)) return false;
    if (seriesPath.empty()) {
        if (!makeTempBeside(pngPath, ".tsv", mTempSeries, error)) return false;
        mSeries = mTempSeries;
    } else {
        mSeries = seriesPath;
    }
    return true;
}

bool PlotWriter::render(RunReport const& r, std::string& error) {
    std::set<std::string> names;
    int64_t mostHeaps = 1, mostSets = 1;
    for (auto const& row : r.series) {
        for (auto const& [name, v] : row.pools) {
            names.insert(name);
            mostHeaps = std::max({mostHeaps, v.first, v.second});
        }
        mostSets = std::max(mostSets, static_cast<int64_t>(row.readyList));
    }
    // A pool is shown by the streams that draw from it; heaps and sets count in whole numbers.
    auto streamsOf = [&](std::string const& pool) {
        for (auto const& m : r.memory) {
            if (m.heapName != pool || m.streams.empty()) continue;
            std::string text;
            for (auto const& s : m.streams) text += (text.empty() ? "" : "+") + s;
            return text;
        }
        return pool;
    };
    auto wholeTics = [](int64_t most) {
        return "set ytics " + std::to_string(std::max<int64_t>(1, (most + 4) / 5)) + "\nset format y '%.0f'\n";
    };
    std::string const data = gnuplotQuoted(mSeries);
    std::string gp = "set datafile separator '\\t'\n";
    gp += "set key outside right\nset offsets 0, 0, 1, 0\nset yrange [0:*]\n";
    gp += "set multiplot layout 3,1 title " +
          gnuplotQuoted("fbm-sim: " + printable(r.scenario) + ", " + std::to_string(r.frames) + " frames") + "\n";
    gp += "set title 'heaps in use per pool, by its streams (dashed: allocated)'\nset xlabel 'frame'\nset ylabel 'heaps'\n";
    gp += wholeTics(mostHeaps);
    gp += "plot ";
    int col = 6, i = 0;
    for (auto const& n : names) {
        if (i) gp += ", ";
        gp += data + " using 1:" + std::to_string(col + 1) + " with lines lw 2 lc " + std::to_string(i + 1) +
              " title " + gnuplotQuoted(printable(streamsOf(n)) + " in use") + ", '' using 1:" + std::to_string(col) +
              " with lines dt 2 lc " + std::to_string(i + 1) + " notitle";
        col += 3;
        ++i;
    }
    if (names.empty()) gp += "0 notitle";
    gp += "\nset title 'history sets on the ready list'\nset ylabel 'sets'\n" + wholeTics(mostSets);
    gp += "plot " + data + " using 1:3 with lines lw 2 title 'ready list'\n";
    gp += "set title 'bytes of all heaps alive (MiB)'\nset ylabel 'MiB'\nset ytics autofreq\nset format y '%g'\n";
    gp += "plot " + data + " using 1:5 with lines lw 2 title 'heaps alive'\nunset multiplot\n";

    return renderScript(gp, 1100, error);
}

std::string PlotWriter::quoted(std::string const& text) { return gnuplotQuoted(printable(text)); }

bool PlotWriter::renderScript(std::string const& body, int height, std::string& error) {
    std::string const gp = "set terminal pngcairo size 1200," + std::to_string(height) + " noenhanced\n" +
                           "set output " + gnuplotQuoted(mTempPng) + "\n" + body;
    // gnuplot reads the script on its standard input: no shell, no script file.
    int fds[2];
    if (pipe(fds) != 0) {
        error = std::string("cannot run gnuplot: ") + std::strerror(errno);
        return false;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[0], STDIN_FILENO);
    posix_spawn_file_actions_addclose(&actions, fds[0]);
    posix_spawn_file_actions_addclose(&actions, fds[1]);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    char* argv[] = {const_cast<char*>(mGnuplot.c_str()), nullptr};
    pid_t pid = -1;
    int const spawned = posix_spawn(&pid, mGnuplot.c_str(), &actions, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(fds[0]);
    bool written = spawned == 0;
    for (size_t at = 0; written && at < gp.size();) {
        ssize_t const n = ::write(fds[1], gp.data() + at, gp.size() - at);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) written = false;
        else at += static_cast<size_t>(n);
    }
    ::close(fds[1]);
    int status = 0;
    if (spawned == 0) {
        while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
    }
    if (!written || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        error = mPng + ": gnuplot could not draw the plot";
        return false;
    }
    if (std::rename(mTempPng.c_str(), mPng.c_str()) != 0) {
        error = mPng + ": could not be written: " + std::strerror(errno);
        return false;
    }
    mTempPng.clear();
    return true;
}

PlotWriter::~PlotWriter() {
    if (!mTempPng.empty()) std::remove(mTempPng.c_str());
    if (!mTempSeries.empty()) std::remove(mTempSeries.c_str());
}

}  // namespace fbmsim
