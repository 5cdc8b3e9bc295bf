// qpdf's C interface: its C++ headers do not compile as C++20 with every supported compiler.
#include <qpdf/qpdf-c.h>

#include <memory>
#include <string>
#include <type_traits>

#include "KxHostPlatform.h"
#include "frame/Log.h"

static constexpr const char* kLogSource = "PdfPages";

namespace {

struct DocumentCloser {
  void operator()(qpdf_data document) const { qpdf_cleanup(&document); }
};
using Document = std::unique_ptr<std::remove_pointer_t<qpdf_data>, DocumentCloser>;

std::string errorText(qpdf_data document) {
  if (qpdf_has_error(document) == QPDF_FALSE) return "unknown error";
  return qpdf_get_error_full_text(document, qpdf_get_error(document));
}

}  // namespace

int kxPdfGetPageNumber(std::string path) {
  const Document document(qpdf_init());
  qpdf_silence_errors(document.get());
  qpdf_set_suppress_warnings(document.get(), QPDF_TRUE);
  const bool isRead = (qpdf_read(document.get(), path.c_str(), nullptr) & QPDF_ERRORS) == 0;
  const int pages = isRead ? qpdf_get_num_pages(document.get()) : -1;
  if (pages >= 0) return pages;
  KX_LOG("can not count the pages of %s: %s\n", path.c_str(), errorText(document.get()).c_str());
  return 0;
}
