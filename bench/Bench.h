#pragma once

#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

namespace kxbench {

// A folder for one run, removed with everything in it.
class Folder {
 public:
  Folder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "kxbench.XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    m_path = pattern;
  }
  ~Folder() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
  }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;

  const std::filesystem::path& path() const { return m_path; }
  std::string operator/(const std::string& name) const { return (m_path / name).string(); }

 private:
  std::filesystem::path m_path;
};

template <class Work>
double seconds(const Work& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Median of several runs, in seconds.
template <class Work>
double medianSeconds(int runs, const Work& work) {
  std::vector<double> all;
  all.reserve(static_cast<size_t>(runs));
  for (int i = 0; i < runs; ++i) all.push_back(seconds(work));
  std::sort(all.begin(), all.end());
  return all[all.size() / 2];
}

// The table of figures.
class Report {
 public:
  Report() { printf("%-44s %12s %12s %7s  %s\n", "", "ours", "limit", "ratio", "required"); }

  // A rate per second: the more the better. @p least of 0: nothing is required.
  void rate(const std::string& what, double ours, double limit, double least) {
    row(what, ours, limit, "/s");
    verdict(least <= 0 ? "" : ">= " + text(least, "/s"), least <= 0 || ours >= least);
  }
  // A time in milliseconds: the less the better. @p most of 0: nothing is required.
  void time(const std::string& what, double ours, double limit, double most) {
    row(what, ours, limit, " ms");
    verdict(most <= 0 ? "" : "<= " + text(most, " ms"), most <= 0 || ours <= most);
  }
  int exitStatus() const { return m_missed ? 1 : 0; }

 private:
  static std::string text(double value, const char* unit) {
    char buffer[64];
    snprintf(buffer, sizeof buffer, value >= 1000 ? "%.0f%s" : "%.2f%s", value, unit);
    return buffer;
  }
  static void row(const std::string& what, double ours, double limit, const char* unit) {
    printf("%-44s %12s %12s %7.2f  ", what.c_str(), text(ours, unit).c_str(),
           text(limit, unit).c_str(), ours / limit);
  }
  void verdict(const std::string& requirement, bool met) {
    printf("%s%s\n", requirement.c_str(), met ? "" : "  MISSED");
    m_missed |= !met;
    fflush(stdout);
  }

  bool m_missed = false;
};

}  // namespace kxbench
