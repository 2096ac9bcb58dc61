// Timing of code and of whole processes, for the benchmarks.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace qv::bench {

struct Figures {
  double minMs = 0;
  double medianMs = 0;
  double maxMs = 0;
};

// Times `body` `runs` times.
Figures Time(int runs, const std::function<void()>& body);

struct ProcessFigures {
  Figures wall;
  long peakRssKb = 0;  // the largest of the runs
  int exitCode = -1;
};

// Runs a program `runs` times with the environment changes given, its
// output thrown away, and measures wall time and peak resident memory.
ProcessFigures TimeProcess(int runs, const std::string& program, const std::vector<std::string>& args,
                           const std::map<std::string, std::string>& env);

void Print(const std::string& what, const Figures& f);
void Print(const std::string& what, const ProcessFigures& f);

}  // namespace qv::bench
