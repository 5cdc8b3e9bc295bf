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

}  // namespace

int kxPdfGetPageNumber(std::string path) {
  const Document document(qpdf_init());
  qpdf_silence_errors(document.get());
  qpdf_set_suppress_warnings(document.get(), QPDF_TRUE);
  const bool isRead = (qpdf_read(document.get(), path.c_str(), nullptr) & QPDF_ERRORS) == 0;
  const int pages = isRead ? qpdf_get_num_pages(document.get()) : -1;
  if (pages >= 0) return pages;
  const Fault fault = faultOf(document.get());
  KX_LOG("can not count the pages of %s: %s\n", path.c_str(), fault.text.c_str());
  return fault.result;
}
