#include <poll.h>
// qpdf's C interface: its C++ headers do not compile as C++20 with every supported compiler.
#include <qpdf/qpdf-c.h>
#include <sys/eventfd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <type_traits>
#include <utility>

#include "KxHostPlatform.h"
#include "frame/Log.h"
#include "frame/StopSignal.h"
#include "frame/UniqueFd.h"

static constexpr const char* kLogSource = "PdfPages";

namespace {

struct DocumentCloser {
  void operator()(qpdf_data document) const { qpdf_cleanup(&document); }
};
using Document = std::unique_ptr<std::remove_pointer_t<qpdf_data>, DocumentCloser>;

// What keeps a document from being read.
struct Fault {
  int result = 0;
  std::string text = "unknown error";
};

int resultOf(qpdf_error_code_e code) {
  switch (code) {
  case qpdf_e_password:
  case qpdf_e_unsupported:  // a kind of encryption that no password opens
    return KX_PDF_ENCRYPTED;
  case qpdf_e_damaged_pdf:
  case qpdf_e_pages:
  case qpdf_e_object:
    return KX_PDF_DAMAGED;
  default:
    return 0;
  }
}

Fault faultOf(qpdf_data document) {
  if (qpdf_has_error(document) == QPDF_FALSE) return {};
  const qpdf_error error = qpdf_get_error(document);
  return {resultOf(qpdf_get_error_code(document, error)),
          qpdf_get_error_full_text(document, error)};
}

struct Count {
  int pages = 0;  // KX_PDF_... when it could not be made
  std::string fault;
};

Count countPages(const std::string& path) {
  const Document document(qpdf_init());
  qpdf_silence_errors(document.get());
  qpdf_set_suppress_warnings(document.get(), QPDF_TRUE);
  const bool isRead = (qpdf_read(document.get(), path.c_str(), nullptr) & QPDF_ERRORS) == 0;
  const int pages = isRead ? qpdf_get_num_pages(document.get()) : -1;
  if (pages >= 0) return {pages, ""};
  const Fault fault = faultOf(document.get());
  return {fault.result, fault.text};
}

// Beyond this many nothing is counted any more.
constexpr int kMostGivenUp = 4;
constexpr std::chrono::minutes kLimit{2};

std::atomic<int> gGivenUp{0};

// A count on a thread of its own, which nothing can interrupt: a damaged document of some
// megabytes takes it many seconds. It may be given up, and ends by itself then.
class Counting {
 public:
  static std::optional<Count> run(const std::string& path) {
    const auto counting = std::make_shared<Counting>();
    if (gGivenUp >= kMostGivenUp || !counting->m_done) return std::nullopt;
    try {
      std::thread([counting, path] { counting->count(path); }).detach();
    } catch (const std::system_error&) {
      return std::nullopt;
    }
    counting->wait();
    return counting->take();
  }

 private:
  void count(const std::string& path) {
    Count result = countPages(path);
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_result = std::move(result);
    if (m_isGivenUp) --gGivenUp;
    eventfd_write(m_done.get(), 1);
  }

  // Until it is done, the caller's work has to end, or it takes too long.
  void wait() const {
    std::array<pollfd, 2> events = {{{m_done.get(), POLLIN, 0}, {StopSignal::fd(), POLLIN, 0}}};
    const int limit = static_cast<int>(std::chrono::milliseconds(kLimit).count());
    while (poll(events.data(), events.size(), limit) < 0 && errno == EINTR) {
    }
  }

  std::optional<Count> take() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_result) {
      m_isGivenUp = true;
      ++gGivenUp;
    }
    return m_result;
  }

  const UniqueFd m_done{eventfd(0, EFD_CLOEXEC)};
  std::mutex m_mutex;  // guards what follows
  std::optional<Count> m_result;
  bool m_isGivenUp = false;
};

}  // namespace

int kxPdfGetPageNumber(std::string path) {
  const std::optional<Count> count = Counting::run(path);
  if (!count) {
    KX_LOG("the pages of %s were not counted to the end\n", path.c_str());
    return KX_PDF_DAMAGED;
  }
  if (!count->fault.empty())
    KX_LOG("can not count the pages of %s: %s\n", path.c_str(), count->fault.c_str());
  return count->pages;
}
