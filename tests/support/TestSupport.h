#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace kxtest {

// Records the service log while it lives.
class RecordingLog {
 public:
  struct Line {
    int level;
    std::string source;
    std::string func;
    std::string text;
  };

  RecordingLog();
  ~RecordingLog();
  RecordingLog(const RecordingLog&) = delete;
  RecordingLog& operator=(const RecordingLog&) = delete;

  std::vector<Line> lines() const;
  std::vector<std::string> texts() const;
  // True when a message with exactly this text was logged.
  bool has(const std::string& text) const;
  bool has(int level, const std::string& source, const std::string& text) const;
  bool hasPart(const std::string& part) const;
  size_t count(const std::string& text) const;
  void clear();
};

// A folder of its own for one test, removed with everything in it.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::filesystem::path& path() const { return m_path; }
  // Absolute path of an entry of the folder.
  std::string operator/(const std::string& name) const { return (m_path / name).string(); }

 private:
  std::filesystem::path m_path;
};

// A private system root (miscSetSystemRoot) with configuration files and helper programs;
// the earlier root is restored when it goes.
class PrivateRoot {
 public:
  PrivateRoot();
  ~PrivateRoot();
  PrivateRoot(const PrivateRoot&) = delete;
  PrivateRoot& operator=(const PrivateRoot&) = delete;

  // Path of a fixed system path below the root, with its parent folders made.
  std::string file(const std::string& fixedPath) const;
  void write(const std::string& fixedPath, const std::string& text) const;
  // An executable shell script at a fixed path.
  void script(const std::string& fixedPath, const std::string& body) const;
  // A program of the build, as it is shipped, at its fixed path.
  void install(const std::string& tool) const;
  std::string path() const { return m_dir.path().string(); }

 private:
  TempDir m_dir;
};

void writeFile(const std::string& path, const std::string& text);
std::string readFile(const std::string& path);

// Polls a condition until it holds or the deadline passes.
bool waitUntil(const std::function<bool()>& condition,
               std::chrono::milliseconds limit = std::chrono::seconds(20));

// Runs a program and returns its standard output; nothing when it fails.
std::optional<std::string> run(const std::vector<std::string>& argv);

// Names of the programs that this process has started and that still run.
std::vector<std::string> childPrograms();

// The command of an ffmpeg that asks nothing, writes over what is there and speaks of errors only.
std::vector<std::string> quietFfmpeg(const std::vector<std::string>& arguments = {});

// Makes a clip with ffmpeg's test sources: H.264 and AAC in MP4 unless the extra output
// arguments say otherwise. Throws when ffmpeg fails.
void makeClip(const std::string& path, int width = 320, int height = 240, double seconds = 1.0,
              const std::vector<std::string>& extraArgs = {});

// A document of empty pages of 72 by 72 points, with a right cross-reference table.
std::string emptyPdf(int pages);

// Folder of real media files, when the environment names one (KX_MEDIA_DIR).
std::optional<std::string> mediaDir();

}  // namespace kxtest
