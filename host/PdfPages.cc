#define POINTERHOLDER_TRANSITION 4  // standard pointers only
#include <exception>
#include <qpdf/QPDF.hh>
#include <qpdf/QPDFPageDocumentHelper.hh>
#include <string>

#include "KxHostPlatform.h"
#include "frame/Log.h"

static constexpr const char* kLogSource = "PdfPages";

int kxPdfGetPageNumber(std::string path) {
  try {
    QPDF document;
    document.setSuppressWarnings(true);
    document.processFile(path.c_str());
    return static_cast<int>(document.getAllPages().size());
  } catch (const std::exception& error) {
    KX_LOG("can not count the pages of %s: %s\n", path.c_str(), error.what());
    return 0;
  }
}
