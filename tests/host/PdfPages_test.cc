#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "KxHostPlatform.h"
#include "tests/support/TestSupport.h"

using kxtest::RecordingLog;
using kxtest::TempDir;
using kxtest::writeFile;

namespace {

// A document of empty pages with a right cross-reference table.
std::string makePdf(int pages) {
  std::string kids;
  for (int i = 0; i < pages; ++i) kids += std::to_string(3 + i) + " 0 R ";
  std::vector<std::string> objects = {"<< /Type /Catalog /Pages 2 0 R >>",
                                      "<< /Type /Pages /Kids [ " + kids + "] /Count " +
                                          std::to_string(pages) + " >>"};
  for (int i = 0; i < pages; ++i)
    objects.emplace_back("<< /Type /Page /Parent 2 0 R /MediaBox [0 0 100 100] >>");
  std::string text = "%PDF-1.4\n";
  std::string table = "0000000000 65535 f \n";
  for (size_t i = 0; i < objects.size(); ++i) {
    char line[32];
    snprintf(line, sizeof line, "%010zu 00000 n \n", text.size());
    table += line;
    text += std::to_string(i + 1) + " 0 obj\n" + objects[i] + "\nendobj\n";
  }
  const std::string start = std::to_string(text.size());
  const std::string size = std::to_string(objects.size() + 1);
  return text + "xref\n0 " + size + "\n" + table + "trailer\n<< /Size " + size +
         " /Root 1 0 R >>\nstartxref\n" + start + "\n%%EOF\n";
}

}  // namespace

TEST(PdfPages, CountsThePagesOfADocument) {
  const TempDir dir;
  for (const int pages : {1, 3, 250}) {
    writeFile(dir / "doc.pdf", makePdf(pages));
    EXPECT_EQ(kxPdfGetPageNumber(dir / "doc.pdf"), pages);
  }
}

TEST(PdfPages, CountsADocumentWhoseTableIsDamaged) {
  const TempDir dir;
  std::string text = makePdf(4);
  text.replace(text.find("startxref"), 9, "startxxxx");
  writeFile(dir / "doc.pdf", text);
  EXPECT_EQ(kxPdfGetPageNumber(dir / "doc.pdf"), 4);
}

TEST(PdfPages, GivesZeroWithAReasonForWhatIsNoDocument) {
  const RecordingLog log;
  const TempDir dir;
  writeFile(dir / "doc.pdf", "plain text");
  EXPECT_EQ(kxPdfGetPageNumber(dir / "doc.pdf"), 0);
  EXPECT_EQ(kxPdfGetPageNumber(dir / "absent.pdf"), 0);
  EXPECT_TRUE(log.hasPart("can not count the pages of " + (dir / "absent.pdf")));
}

TEST(PdfPages, GivesPagesOrAReasonForEveryRealDocument) {
  const auto media = kxtest::mediaDir();
  if (!media) GTEST_SKIP() << "no real media";
  int countable = 0;
  for (const auto& entry : std::filesystem::directory_iterator(*media + "/pdf")) {
    const RecordingLog log;
    const int pages = kxPdfGetPageNumber(entry.path().string());
    EXPECT_GE(pages, 0) << entry.path();
    EXPECT_EQ(pages == 0, log.hasPart(entry.path().string())) << entry.path();
    countable += pages > 0 ? 1 : 0;
  }
  EXPECT_GT(countable, 0);
}
