#include <gtest/gtest.h>
#include <sys/eventfd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "KxHostPlatform.h"
#include "frame/StopSignal.h"
#include "frame/UniqueFd.h"
#include "tests/support/TestSupport.h"

using kxtest::emptyPdf;
using kxtest::RecordingLog;
using kxtest::TempDir;
using kxtest::writeFile;

namespace {

auto threadCount() {
  const std::filesystem::directory_iterator tasks("/proc/self/task");
  return std::distance(begin(tasks), end(tasks));
}

}  // namespace

TEST(PdfPages, CountsThePagesOfADocument) {
  const TempDir dir;
  for (const int pages : {1, 3, 250}) {
    writeFile(dir / "doc.pdf", emptyPdf(pages));
    EXPECT_EQ(kxPdfGetPageNumber(dir / "doc.pdf"), pages);
  }
}

TEST(PdfPages, CountsADocumentWhoseTableIsDamaged) {
  const TempDir dir;
  std::string text = emptyPdf(4);
  text.replace(text.find("startxref"), 9, "startxxxx");
  writeFile(dir / "doc.pdf", text);
  EXPECT_EQ(kxPdfGetPageNumber(dir / "doc.pdf"), 4);
}

TEST(PdfPages, TellsWhatIsNoDocumentAndNotesWhy) {
  const RecordingLog log;
  const TempDir dir;
  writeFile(dir / "doc.pdf", "plain text");
  EXPECT_EQ(kxPdfGetPageNumber(dir / "doc.pdf"), KX_PDF_DAMAGED);
  EXPECT_EQ(kxPdfGetPageNumber(dir / "absent.pdf"), 0);
  EXPECT_TRUE(log.hasPart("can not count the pages of " + (dir / "absent.pdf")));
}

TEST(PdfPages, ADocumentWithoutPagesHasNone) {
  const TempDir dir;
  writeFile(dir / "doc.pdf", emptyPdf(0));
  EXPECT_EQ(kxPdfGetPageNumber(dir / "doc.pdf"), 0);
}

TEST(PdfPages, EveryKindOfEncryptionIsToldFromDamage) {
  const TempDir dir;
  const std::string plain = emptyPdf(2);
  const std::string key = "<" + std::string(64, '0') + ">";
  const std::string id = " >> /ID [<" + std::string(32, '1') + "> <" + std::string(32, '1') + ">] ";
  const std::string keys = " /P -4 /O " + key + " /U " + key;
  for (const std::string& encryption :
       {std::string("/Filter /Adobe.PubSec /SubFilter /adbe.pkcs7.s5 /V 4"),
        "/Filter /Standard /V 9 /R 9" + keys, "/Filter /Standard /V 1 /R 2" + keys}) {
    std::string text = plain;
    text.insert(text.find("/Root"), std::string("/Encrypt << ").append(encryption).append(id));
    writeFile(dir / "doc.pdf", text);
    EXPECT_EQ(kxPdfGetPageNumber(dir / "doc.pdf"), KX_PDF_ENCRYPTED) << encryption;
  }
}

TEST(PdfPages, ACountThatTakesLongEndsWithTheWorkThatItIsPartOf) {
  const TempDir dir;
  // Each of its objects has to be found, for want of a table.
  std::string text = "%PDF-1.4\n";
  for (int i = 1; i <= 200000; ++i) text += std::to_string(i) + " 0 obj\n<<>>\nendobj\n";
  writeFile(dir / "doc.pdf", text + "trailer <</Root 1 0 R>>\nstartxref\n0\n%%EOF");
  const RecordingLog log;
  std::thread([] {}).join();  // what comes with the first thread of a process is there now
  const auto threads = threadCount();
  {
    const UniqueFd end(eventfd(1, EFD_CLOEXEC));
    const StopSignal stop(end.get());
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(kxPdfGetPageNumber(dir / "doc.pdf"), KX_PDF_DAMAGED);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
  }
  EXPECT_TRUE(log.has("the pages of " + (dir / "doc.pdf") + " were not counted to the end\n"));
  // What was given up ends by itself.
  EXPECT_TRUE(kxtest::waitUntil([&] { return threadCount() <= threads; }));
  writeFile(dir / "doc.pdf", emptyPdf(2));
  EXPECT_EQ(kxPdfGetPageNumber(dir / "doc.pdf"), 2);
}

TEST(PdfPages, GivesPagesOrAReasonForEveryRealDocument) {
  const auto media = kxtest::mediaDir();
  if (!media) GTEST_SKIP() << "no real media";
  int countable = 0;
  for (const auto& entry : std::filesystem::directory_iterator(*media + "/pdf")) {
    const RecordingLog log;
    const int pages = kxPdfGetPageNumber(entry.path().string());
    const bool isLocked = entry.path().filename() == "encryption_openpassword.pdf" ||
                          entry.path().filename() == "libreoffice-writer-password.pdf";
    EXPECT_EQ(pages == KX_PDF_ENCRYPTED, isLocked) << entry.path();
    EXPECT_EQ(pages <= 0, log.hasPart(entry.path().string())) << entry.path();
    countable += pages > 0 ? 1 : 0;
  }
  EXPECT_GT(countable, 0);
}
