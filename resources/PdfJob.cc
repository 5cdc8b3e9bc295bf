#include "resources/PdfJob.h"

namespace runner {

bool PdfJob::run() {
  return m_run.fail("PDF pages cannot be rendered yet");
}

}  // namespace runner
