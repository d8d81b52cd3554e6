#pragma once
// The files a run writes. Each is checked before the run starts, so a bad path costs nothing and
// exits 2; every write and close is checked after it, so a full device is reported, not hidden.
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>

#include "Simulation.h"

namespace fbmsim {

// A file opened (created or truncated) before the run and written during or after it.
class OutputFile {
public:
    // False with a reason when the path cannot be written: a directory, a missing directory, no
    // permission.
    bool open(std::string const& path, std::string& error);
    std::ostream& out() { return mOut; }
    std::string const& path() const { return mPath; }
    bool isOpen() const { return mOut.is_open(); }
    // Flushes and closes; false when any write failed (a full device).
    bool close(std::string& error);

private:
    std::string mPath;
    std::ofstream mOut;
};

// The run's trace, streamed to its file as the events come: memory stays flat however long the
// run. Every string is escaped by the JSON rules.
class TraceWriter {
public:
    bool open(std::string const& path, std::string& error);
    void start();  // events from now on go to the file
    bool finish(std::string& error);
    ~TraceWriter();

private:
    OutputFile mFile;
    bool mStarted = false;
    bool mFirst = true;
    int64_t mT0 = 0;
};

void writeSeries(RunReport const& report, std::ostream& out);

// The whole report as JSON text, for scripts: counts, latencies and memory.
std::string reportJson(RunReport const& report);
// Several pipelines: {"pipelines": [report...], "processPeakBytes": ..., "leakFree": ...}.
std::string processJson(ProcessReport const& process);

// A PNG drawn by gnuplot. The picture is drawn into a temporary file beside the target and moved
// over it only when gnuplot succeeded: a failed plot leaves nothing behind.
class PlotWriter {
public:
    // Checks gnuplot is installed and the target can be written; `seriesPath` empty: the series
    // goes to a temporary file removed afterwards.
    bool prepare(std::string const& pngPath, std::string const& seriesPath, std::string& error);
    std::string const& seriesPath() const { return mSeries; }
    bool render(RunReport const& report, std::string& error);
    // Any plot: `body` reads the series file (dataQuoted()) and is drawn into the target.
    bool renderScript(std::string const& body, int height, std::string& error);
    std::string dataQuoted() const { return quoted(mSeries); }
    static std::string quoted(std::string const& text);  // a gnuplot string, control characters replaced
    ~PlotWriter();

private:
    std::string mPng;
    std::string mTempPng;
    std::string mSeries;
    std::string mTempSeries;  // ours to remove
    std::string mGnuplot;
};

}  // namespace fbmsim
