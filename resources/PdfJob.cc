#include "resources/PdfJob.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "KxHostPlatform.h"
#include "KxResMgr2.h"
#include "Misc.h"
#include "frame/UniqueFd.h"
#include "resources/ChildWatch.h"
#include "resources/Conversion.h"
#include "resources/EncoderLog.h"
#include "resources/MediaCatalog.h"
#include "resources/ResourceUse.h"
#include "resources/RunnerLog.h"
#include "resources/SubtitleText.h"

namespace runner {
namespace {

// Removes the renderer's scratch folder when it goes.
class ScratchFolder {
 public:
  explicit ScratchFolder(const std::string& path) : m_path(path) {}
  ~ScratchFolder() {
    if (myremove(m_path.c_str()) != 0)
      KX_RUNNER_LOG("remove gs tmp folder %s fail\n", m_path.c_str());
  }
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;

 private:
  const std::string& m_path;
};

constexpr const char* kRenderer = "/usr/local/sbin/gs";
constexpr mode_t kScratchMode = 0700;

// The renderer takes "%" for the start of a page number.
std::string withPercentDoubled(const std::string& text) {
  std::string result;
  for (const char c : text) result += c == '%' ? std::string("%%") : std::string(1, c);
  return result;
}

std::string scratchBeside(const std::string& pagePath) {
  std::string unique;
  miscGenUniqueFileName(unique);
  const std::string album = ".album/";
  return pagePath.substr(0, pagePath.size() - album.size()) + ".gstmp." + unique;
}

// Why a file cannot be read at all; empty when it can.
std::string faultOfFile(const std::string& path) {
  const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat info;
  if (!file || fstat(file.get(), &info) != 0)
    return std::string("the source cannot be read: ") + strerror(errno);
  if (!S_ISREG(info.st_mode)) return "the source is no file";
  return info.st_size == 0 ? "the source is empty" : "";
}

const char* faultOfCount(int pages) {
  switch (pages) {
  case KX_PDF_ENCRYPTED:
    return "the PDF is encrypted and cannot be opened without its password";
  case KX_PDF_DAMAGED:
    return "the file is no PDF or is damaged beyond repair";
  default:
    return "the PDF has no pages";
  }
}

// True when a picture was written to its end.
bool isWholeJpeg(const OutputFolder& folder, const std::string& name) {
  const UniqueFd file(
      openat(folder.fd(), name.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  struct stat info;
  if (!file || fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode)) return false;
  std::array<char, 2> first = {};
  std::array<char, 2> last = {};
  return info.st_size >= 4 && pread(file.get(), first.data(), first.size(), 0) == 2 &&
         pread(file.get(), last.data(), last.size(), info.st_size - 2) == 2 &&
         std::string_view(first.data(), first.size()) == "\xff\xd8" &&
         std::string_view(last.data(), last.size()) == "\xff\xd9";
}

}  // namespace

PdfJob::PdfJob(JobRun& run)
    : m_run(run), m_pagePath(pageFolder(run.source(), run.job().dst)),
      m_scratch(scratchBeside(m_pagePath)) {}

bool PdfJob::run() {
  if (openFolder() && countPages() && workOnCpu()) return true;
  discardPages();
  if (!m_run.mustEnd()) KX_RUNNER_LOG("status != 0, update db status as ERROR\n");
  return false;
}

std::string PdfJob::pageName(int page) const {
  return withoutExtension(m_run.source().name) + "-" + std::to_string(page) + ".jpg";
}

bool PdfJob::openFolder() {
  const SourceName place = splitSource(m_pagePath);
  m_isNewFolder = access(m_pagePath.c_str(), F_OK) != 0;
  m_pages = OutputFolder::make(place.folder, place.name + "/");
  if (!m_pages.valid()) {
    const std::string reason = strerror(errno);
    KX_RUNNER_LOG("can not create PDF transcode foloder %s\n", m_pagePath.c_str());
    return m_run.fail("cannot create the folder " + m_pagePath + ": " + reason);
  }
  KX_RUNNER_LOG("pdfDstPath=%s, gsTmp=%s\n", m_pagePath.c_str(), m_scratch.c_str());
  return true;
}

bool PdfJob::countPages() {
  const SourceName& source = m_run.source();
  m_pageCount = kxPdfGetPageNumber(source.path());
  KX_RUNNER_LOG("%s%s total pages: %d\n", source.folder.c_str(), source.name.c_str(), m_pageCount);
  if (m_pageCount > 0) return true;
  KX_RUNNER_LOG("%s%s total pages <= 0\n", source.folder.c_str(), source.name.c_str());
  const std::string fault = faultOfFile(source.path());
  return m_run.fail(fault.empty() ? faultOfCount(m_pageCount) : fault);
}

bool PdfJob::workOnCpu() {
  const std::vector<KxResource2> resources = resourcesToTry(5);
  const auto cpu = std::ranges::find(resources, RES2_SW_CPU, &KxResource2::resType);
  if (cpu == resources.end()) {
    KX_RUNNER_LOG("can not find appropriate cpu resource for PDF transcode\n");
    return m_run.fail("there is no CPU resource");
  }
  const Registration registration(m_run, {*cpu}, registrationInfo(m_run, 0, 0));
  if (!registration.valid()) return m_run.fail(cpu->id + ": cannot be used");
  return render() && publishPages();
}

std::vector<std::string> PdfJob::command() const {
  const std::string base = m_pagePath + withoutExtension(m_run.source().name);
  return {miscSystemPath(kRenderer),
          "-sDEVICE=jpeg",
          "-dNOPAUSE",
          "-dBATCH",
          "-dSAFER",
          "-r144",
          "-dFirstPage=1",
          "-dLastPage=" + std::to_string(m_pageCount),
          "-sOutputFile=" + withPercentDoubled(base) + "-%d.jpg",
          m_run.source().path()};
}

bool PdfJob::render() {
  if (encodingOf(m_run.source().path() + m_pagePath) != kUtf8)
    return m_run.fail("the renderer only finds documents whose names are UTF-8");
  const std::string fault = runRenderer();
  if (fault.empty()) return true;
  const SourceName& source = m_run.source();
  KX_RUNNER_LOG("gs transcode pdf %s%s fail\n", source.folder.c_str(), source.name.c_str());
  return m_run.fail(fault);
}

std::string PdfJob::runRenderer() {
  const ScratchFolder scratch(m_scratch);
  if (mymkdir(m_scratch.c_str(), kScratchMode) != 0) return "cannot create the folder " + m_scratch;
  ChildProcess::Options options;
  options.stderrFile = m_scratch + "/gs.log";
  options.extraEnv = {"TMPDIR=" + m_scratch};
  ChildProcess child = startReadChild(command(), options);
  if (!child.valid()) return "the renderer could not be started";
  m_hasRendered = true;
  std::string buffered;
  const ChildEnd end = followPrinter(m_run, child, [&](std::string_view text) {
    buffered += text;
    handleOutput(buffered);
  });
  if (end.ok()) return "";
  if (end.kind == ChildEnd::Kind::Stalled) return "the renderer made no progress";
  const std::string line = m_complaint.empty() ? complaintOf(options.stderrFile) : m_complaint;
  return "the renderer failed" + (line.empty() ? "" : ": " + line);
}

// Takes the whole lines out of what was read so far.
void PdfJob::handleOutput(std::string& buffered) {
  size_t end = 0;
  while ((end = buffered.find('\n')) != std::string::npos) {
    int page = 0;
    if (sscanf(buffered.c_str(), "Page %d", &page) == 1) {
      const int percent = static_cast<int>(int64_t{page} * 100 / m_pageCount);
      m_run.showProgress(percent);
      KX_RUNNER_LOG("curPage=%d, unitProgress=%d\n", page, percent);
    }
    noteComplaint(buffered.substr(0, end));
    buffered.erase(0, end + 1);
  }
  constexpr size_t kLongestLine = 65536;
  if (buffered.size() > kLongestLine) buffered.clear();
}

// The renderer complains on its standard output, among the page numbers. The last complaint
// is the one that it gave up with.
void PdfJob::noteComplaint(const std::string& line) {
  static const std::string kMark = "Error: ";
  const size_t at = line.find(kMark);
  if (at != std::string::npos) m_complaint = oneLine(line.substr(at + kMark.size()));
}

bool PdfJob::publishPages() {
  for (int page = 1; page <= m_pageCount; ++page) {
    if (m_run.mustEnd()) {
      KX_RUNNER_LOG("someone stop the transcode unit, so we stop updating the media database\n");
      return m_run.fail("was stopped");
    }
    if (!publishPage(page)) return false;
  }
  return true;
}

bool PdfJob::publishPage(int page) {
  const std::string path = m_pages.pathOf(pageName(page));
  if (!m_pages.find(pageName(page))) KX_RUNNER_LOG("jpg %s do not exist\n", path.c_str());
  if (!isWholeJpeg(m_pages, pageName(page))) {
    return m_run.fail("page " + std::to_string(page) + " was not rendered" +
                      (m_complaint.empty() ? "" : ": " + m_complaint));
  }
  // Pages are what the job is about: a library that hangs is told of no more of them.
  if (m_libraryAnswers && !addToCatalog(m_run, path, m_pagePath)) {
    m_libraryAnswers = false;
    m_run.remark("the media library does not answer, it knows the pages before " +
                 std::to_string(page));
  }
  const int percent = static_cast<int>(int64_t{page} * 100 / m_pageCount);
  m_run.showProgress(percent);
  KX_RUNNER_LOG("update unit progress=%d\n", percent);
  return true;
}

// Pages of an unfinished run go; a folder that was there before keeps those that are whole.
void PdfJob::discardPages() {
  if (!m_pages.valid() || (!m_isNewFolder && !m_hasRendered)) return;
  for (int page = 1; page <= m_pageCount; ++page)
    if (m_isNewFolder || !isWholeJpeg(m_pages, pageName(page))) m_pages.remove(pageName(page));
  if (m_isNewFolder) rmdir(m_pagePath.c_str());
}

}  // namespace runner
