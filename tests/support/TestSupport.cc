#include "tests/support/TestSupport.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "Misc.h"
#include "frame/ChildProcess.h"
#include "host/HostLog.h"

namespace fs = std::filesystem;

namespace kxtest {
namespace {
std::mutex gLinesMutex;
std::vector<RecordingLog::Line> gLines;
}  // namespace

RecordingLog::RecordingLog() {
  clear();
  kxhost::setLogSink([](const kxhost::LogRecord& record) {
    std::lock_guard<std::mutex> lock(gLinesMutex);
    gLines.push_back({record.level, record.source, record.func, record.text});
  });
}

RecordingLog::~RecordingLog() {
  kxhost::setLogSink({});
}

std::vector<RecordingLog::Line> RecordingLog::lines() const {
  std::lock_guard<std::mutex> lock(gLinesMutex);
  return gLines;
}

std::vector<std::string> RecordingLog::texts() const {
  std::vector<std::string> result;
  for (const Line& line : lines()) result.push_back(line.text);
  return result;
}

bool RecordingLog::has(const std::string& text) const {
  return count(text) > 0;
}

bool RecordingLog::has(int level, const std::string& source, const std::string& text) const {
  const auto all = lines();
  return std::any_of(all.begin(), all.end(), [&](const Line& line) {
    return line.level == level && line.source == source && line.text == text;
  });
}

bool RecordingLog::hasPart(const std::string& part) const {
  const auto all = texts();
  return std::any_of(all.begin(), all.end(),
                     [&](const std::string& text) { return text.find(part) != std::string::npos; });
}

size_t RecordingLog::count(const std::string& text) const {
  const auto all = texts();
  return static_cast<size_t>(std::count(all.begin(), all.end(), text));
}

void RecordingLog::clear() {
  std::lock_guard<std::mutex> lock(gLinesMutex);
  gLines.clear();
}

TempDir::TempDir() {
  std::string pattern = (fs::temp_directory_path() / "kxtest.XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  m_path = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  fs::remove_all(m_path, ignored);
}

PrivateRoot::PrivateRoot() {
  miscSetSystemRoot(m_dir.path().string());
}

PrivateRoot::~PrivateRoot() {
  miscSetSystemRoot("");
}

std::string PrivateRoot::file(const std::string& fixedPath) const {
  std::string path = m_dir.path().string() + fixedPath;
  fs::create_directories(fs::path(path).parent_path());
  return path;
}

void PrivateRoot::write(const std::string& fixedPath, const std::string& text) const {
  writeFile(file(fixedPath), text);
}

void PrivateRoot::script(const std::string& fixedPath, const std::string& body) const {
  write(fixedPath, "#!/bin/sh\n" + body);
  fs::permissions(file(fixedPath), fs::perms(0755));
}

void PrivateRoot::install(const std::string& tool) const {
  fs::copy_file(std::string(KX_BUILD_DIR) + "/tools/" + tool,
                file("/usr/local/medialibrary/bin/" + tool), fs::copy_options::overwrite_existing);
}

void writeFile(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
  if (!out) throw std::runtime_error("cannot write " + path);
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) return condition();
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

std::optional<std::string> run(const std::vector<std::string>& argv) {
  ChildProcess::Options options;
  options.captureStdout = true;
  ChildProcess child = ChildProcess::spawn(argv, options);
  if (!child.valid()) return std::nullopt;
  std::string out;
  char buffer[4096];
  ssize_t count;
  while ((count = read(child.stdoutFd(), buffer, sizeof buffer)) > 0)
    out.append(buffer, static_cast<size_t>(count));
  const int status = child.wait();
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return std::nullopt;
  return out;
}

std::vector<std::string> childPrograms() {
  std::vector<std::string> names;
  std::error_code ended;  // threads come and go
  for (const auto& task : fs::directory_iterator("/proc/self/task", ended)) {
    std::ifstream list(task.path() / "children");
    for (int pid = 0; list >> pid;)
      names.push_back(readFile("/proc/" + std::to_string(pid) + "/comm"));
  }
  return names;
}

std::vector<std::string> quietFfmpeg(const std::vector<std::string>& arguments) {
  std::vector<std::string> argv = {"ffmpeg", "-nostdin", "-v", "error", "-y"};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  return argv;
}

void makeClip(const std::string& path, int width, int height, double seconds,
              const std::vector<std::string>& extraArgs) {
  const std::string duration = std::to_string(seconds);
  std::vector<std::string> argv = quietFfmpeg(
      {"-f", "lavfi", "-i",
       "testsrc2=size=" + std::to_string(width) + "x" + std::to_string(height) +
           ":rate=25:duration=" + duration,
       "-f", "lavfi", "-i", "sine=frequency=440:sample_rate=44100:duration=" + duration, "-pix_fmt",
       "yuv420p", "-c:v", "libx264", "-preset", "ultrafast", "-c:a", "aac"});
  argv.insert(argv.end(), extraArgs.begin(), extraArgs.end());
  argv.push_back(path);
  if (!run(argv)) throw std::runtime_error("ffmpeg cannot make " + path);
}

std::string emptyPdf(int pages) {
  std::string kids;
  for (int page = 0; page < pages; ++page) kids += std::to_string(3 + page) + " 0 R ";
  std::vector<std::string> objects = {"<< /Type /Catalog /Pages 2 0 R >>",
                                      "<< /Type /Pages /Kids [" + kids + "] /Count " +
                                          std::to_string(pages) + " >>"};
  for (int page = 0; page < pages; ++page)
    objects.emplace_back("<< /Type /Page /Parent 2 0 R /MediaBox [0 0 72 72] >>");
  std::string text = "%PDF-1.4\n";
  std::string table = "0000000000 65535 f \n";
  for (size_t i = 0; i < objects.size(); ++i) {
    std::string offset = std::to_string(text.size());
    table += offset.insert(0, 10 - offset.size(), '0') + " 00000 n \n";
    text += std::to_string(i + 1) + " 0 obj\n" + objects[i] + "\nendobj\n";
  }
  const std::string start = std::to_string(text.size());
  const std::string size = std::to_string(objects.size() + 1);
  return text + "xref\n0 " + size + "\n" + table + "trailer\n<< /Size " + size +
         " /Root 1 0 R >>\nstartxref\n" + start + "\n%%EOF\n";
}

std::optional<std::string> mediaDir() {
  const char* dir = getenv("KX_MEDIA_DIR");
  if (dir == nullptr || *dir == '\0') return std::nullopt;
  return dir;
}

}  // namespace kxtest
