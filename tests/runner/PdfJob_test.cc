#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <fstream>

#include "tests/runner/RunnerWorld.h"

namespace fs = std::filesystem;
using namespace kxtest;

namespace {

// A PDF with a number of empty pages.
std::string pdf(int pages) {
  std::string text = "%PDF-1.4\n";
  std::vector<size_t> offsets;
  const auto object = [&](const std::string& body) {
    offsets.push_back(text.size());
    text += std::to_string(offsets.size()) + " 0 obj\n" + body + "\nendobj\n";
  };
  std::string kids;
  for (int page = 0; page < pages; ++page) kids += std::to_string(page + 3) + " 0 R ";
  object("<< /Type /Catalog /Pages 2 0 R >>");
  object("<< /Type /Pages /Kids [" + kids + "] /Count " + std::to_string(pages) + " >>");
  for (int page = 0; page < pages; ++page)
    object("<< /Type /Page /Parent 2 0 R /MediaBox [0 0 72 72] >>");
  const size_t table = text.size();
  text += "xref\n0 " + std::to_string(offsets.size() + 1) + "\n0000000000 65535 f \n";
  for (const size_t offset : offsets) {
    char line[32];
    snprintf(line, sizeof line, "%010zu 00000 n \n", offset);
    text += line;
  }
  return text + "trailer\n<< /Size " + std::to_string(offsets.size() + 1) +
         " /Root 1 0 R >>\nstartxref\n" + std::to_string(table) + "\n%%EOF\n";
}

}  // namespace

class PdfJob : public testing::Test {
 protected:
  PdfJob() {
    world.root().script("/usr/local/medialibrary/bin/catalogcmd",
                        "printf '%s|' \"$@\" >> '" + world.media("catalog") + "'\n" + "echo >> '" +
                            world.media("catalog") + "'\n" +
                            "[ \"$1\" = createfile ] && echo 'object 77'\nexit 0\n");
  }
  // A stand-in for the renderer: writes the pages that its arguments name.
  void setRenderer(const std::string& perPage, const std::string& atEnd = "") {
    world.root().script("/usr/local/sbin/gs",
                        "for a; do case $a in -dLastPage=*) last=${a#*=} ;; "
                        "-sOutputFile=*) out=${a#*=} ;; esac; done\n"
                        "printf '%s\\n' \"$@\" > '" +
                            world.media("arguments") + "'\n" + "echo \"$TMPDIR\" > '" +
                            world.media("tmpdir") + "'\n" +
                            "i=1; while [ $i -le $last ]; do echo \"Page $i\"\n" +
                            "f=$(printf \"$out\" $i)\n" + perPage + "\ni=$((i+1)); done\n" + atEnd);
  }
  std::string makePdf(const std::string& name, int pages) {
    writeFile(world.media(name), pdf(pages));
    return world.media(name);
  }
  std::string text(const std::string& name) { return readFile(world.media(name)); }

  RunnerWorld world;
  RecordingLog log;
};

TEST_F(PdfJob, EveryPageIsRenderedAndMadeKnown) {
  setRenderer("echo jpg > \"$f\"");
  const std::string source = makePdf("my 100% paper.pdf", 3);
  const KxDBTaskParam row = world.run(source, PROFILE_240P);
  EXPECT_EQ(row.status, JOB_DONE) << world.reason(row.id);
  const std::string album = source + ".album/";
  for (int page = 1; page <= 3; ++page)
    EXPECT_TRUE(fs::exists(album + "my 100% paper-" + std::to_string(page) + ".jpg")) << page;
  EXPECT_EQ(text("arguments"),
            "-sDEVICE=jpeg\n-dNOPAUSE\n-dBATCH\n-dSAFER\n-r144\n-dFirstPage=1\n-dLastPage=3\n"
            "-sOutputFile=" +
                world.media("my 100%% paper.pdf.album/my 100%% paper-%d.jpg") + "\n" + source +
                "\n");
  const std::string page = album + "my 100% paper-1.jpg";
  EXPECT_NE(text("catalog").find("createfile|" + page + "|\naddToPicAlbum|77:" + album + "|1|\n"),
            std::string::npos);
  EXPECT_TRUE(log.has(source + " total pages: 3\n"));
  EXPECT_TRUE(log.has("curPage=1, unitProgress=33\n"));
  EXPECT_TRUE(log.has("update unit progress=100\n"));
  EXPECT_TRUE(log.has("buf==> object 77\n, objId=77\n"));
  EXPECT_EQ(world.registrations(), 0u);
}

TEST_F(PdfJob, TheInstalledRendererGivesPictures) {
  if (!fs::exists("/usr/bin/gs")) GTEST_SKIP() << "no renderer is installed";
  fs::create_symlink("/usr/bin/gs", world.root().file("/usr/local/sbin/gs"));
  const std::string source = makePdf("it's 5% (new).pdf", 2);
  const KxDBTaskParam row = world.run(source, PROFILE_240P);
  ASSERT_EQ(row.status, JOB_DONE) << world.reason(row.id);
  for (const char* page : {"it's 5% (new)-1.jpg", "it's 5% (new)-2.jpg"})
    EXPECT_EQ(readFile(source + ".album/" + page).substr(0, 3), "\xff\xd8\xff");
  EXPECT_TRUE(log.has("curPage=2, unitProgress=100\n"));
  for (const auto& name : world.mediaFiles()) EXPECT_EQ(name.find("gstmp"), std::string::npos);
}

TEST_F(PdfJob, TheScratchFolderIsTheRenderersAndGoesWithIt) {
  setRenderer("echo jpg > \"$f\"; echo x > \"$TMPDIR/scratch\"");
  const std::string source = makePdf("paper.pdf", 1);
  EXPECT_EQ(world.run(source, PROFILE_240P).status, JOB_DONE);
  EXPECT_TRUE(text("tmpdir").starts_with(source + ".gstmp."));
  for (const auto& name : world.mediaFiles()) EXPECT_EQ(name.find("gstmp"), std::string::npos);
}

TEST_F(PdfJob, PagesGoWhereTheJobSays) {
  setRenderer("echo jpg > \"$f\"");
  TempDir elsewhere;
  const std::string source = makePdf("paper.pdf", 1);
  const KxDBTaskParam row =
      world.run(source, PROFILE_240P, [&](KxDBTaskParam& job) { job.dst = elsewhere / "holiday"; });
  EXPECT_EQ(row.status, JOB_DONE) << world.reason(row.id);
  EXPECT_TRUE(fs::exists(elsewhere / "holiday.album/paper-1.jpg"));
  EXPECT_EQ(kxJobOutputs(row)[0].path, elsewhere / "holiday.album/");
}

TEST_F(PdfJob, AFileWithoutPagesFailsAndLeavesNoFolder) {
  setRenderer("echo jpg > \"$f\"");
  writeFile(world.media("broken.pdf"), "no PDF");
  const KxDBTaskParam row = world.run(world.media("broken.pdf"), PROFILE_240P);
  EXPECT_EQ(row.status, JOB_ERROR);
  EXPECT_EQ(world.reason(row.id), "the PDF has no pages that can be counted");
  EXPECT_TRUE(log.has(world.media("broken.pdf") + " total pages <= 0\n"));
  EXPECT_TRUE(log.has("status != 0, update db status as ERROR\n"));
  EXPECT_FALSE(fs::exists(world.media("broken.pdf.album")));
}

TEST_F(PdfJob, AFailedRendererFailsTheJobAndNoPageIsMadeKnown) {
  setRenderer("echo jpg > \"$f\"", "echo out of ink >&2; exit 1\n");
  const std::string source = makePdf("paper.pdf", 2);
  const KxDBTaskParam row = world.run(source, PROFILE_240P);
  EXPECT_EQ(row.status, JOB_ERROR);
  EXPECT_EQ(world.reason(row.id), "the renderer failed: out of ink");
  EXPECT_TRUE(log.has("gs transcode pdf " + source + " fail\n"));
  EXPECT_FALSE(fs::exists(source + ".album"));
  EXPECT_EQ(text("catalog").find("createfile"), std::string::npos);
}

TEST_F(PdfJob, AMissingPageFailsTheJob) {
  setRenderer("[ $i = 2 ] || echo jpg > \"$f\"");
  const std::string source = makePdf("paper.pdf", 2);
  const KxDBTaskParam row = world.run(source, PROFILE_240P);
  EXPECT_EQ(row.status, JOB_ERROR);
  EXPECT_EQ(world.reason(row.id), "page 2 was not rendered");
  EXPECT_TRUE(log.has("jpg " + source + ".album/paper-2.jpg do not exist\n"));
}

TEST_F(PdfJob, AMissingRendererFailsTheJob) {
  const KxDBTaskParam row = world.run(makePdf("paper.pdf", 1), PROFILE_240P);
  EXPECT_EQ(row.status, JOB_ERROR);
  EXPECT_EQ(world.reason(row.id), "the renderer could not be started");
}

TEST_F(PdfJob, WithoutAnyResourceTheJobFails) {
  const std::string source = makePdf("paper.pdf", 1);
  fs::remove(world.root().file("/sbin/accelctl"));
  const KxDBTaskParam row = world.run(source, PROFILE_240P);
  EXPECT_EQ(row.status, JOB_ERROR);
  EXPECT_TRUE(log.has(5, "KxTranscodeUnit2", "resource vector is empty\n"));
  EXPECT_TRUE(log.has("can not find appropriate cpu resource for PDF transcode\n"));
}

TEST_F(PdfJob, AFolderThatCannotBeMadeFailsTheJob) {
  const std::string source = makePdf("paper.pdf", 1);
  writeFile(source + ".album", "a file");
  const KxDBTaskParam row = world.run(source, PROFILE_240P);
  EXPECT_EQ(row.status, JOB_ERROR);
  EXPECT_TRUE(log.has("can not create PDF transcode foloder " + source + ".album/\n"));
}

TEST_F(PdfJob, AStopKillsTheRendererAndNoPageIsMadeKnown) {
  setRenderer("echo jpg > \"$f\"; sleep 600");
  const std::string source = makePdf("paper.pdf", 2);
  const KxDBTaskParam job = world.addJob(source, PROFILE_240P);
  world.start(job);
  ASSERT_TRUE(waitUntil([&] { return world.unit()->getProgress() == 50; }));
  const int child = world.unit()->getPid();
  ASSERT_GT(child, 0);
  world.stop(job.id);
  EXPECT_TRUE(waitUntil([&] { return kill(child, 0) != 0; }, std::chrono::seconds(1)));
  ASSERT_TRUE(world.waitForUnits());
  EXPECT_TRUE(log.has("someone stop the transcode unit, so we need to kill pid " +
                      std::to_string(child) + "\n"));
  EXPECT_TRUE(log.has("child exit by receive signal, signal=15\n"));
  EXPECT_EQ(world.row(job.id).status, JOB_WAITING);
  EXPECT_EQ(text("catalog").find("createfile"), std::string::npos);
  EXPECT_FALSE(fs::exists(source + ".album"));
}
