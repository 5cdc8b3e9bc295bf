#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <filesystem>
#include <fstream>

#include "KxHostPlatform.h"
#include "resources/ChildWatch.h"
#include "tests/runner/RunnerWorld.h"

namespace fs = std::filesystem;
using namespace kxtest;

namespace {

// Shell commands that write a picture, or what is as whole as one, for the stand-in.
constexpr const char* kWritePage = "printf '\\377\\330page\\377\\331' > \"$f\"";

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
    writeFile(world.media(name), emptyPdf(pages));
    return world.media(name);
  }
  // False where it is not installed.
  bool useInstalledRenderer() {
    if (!fs::exists("/usr/bin/gs")) return false;
    fs::create_symlink("/usr/bin/gs", world.root().file("/usr/local/sbin/gs"));
    return true;
  }
  // Queues a document of many pages and waits until its rendering is under way.
  KxDBTaskParam beginLongRun() {
    KxDBTaskParam job = world.addJob(makePdf("long.pdf", 4000), PROFILE_240P);
    world.start(job);
    EXPECT_TRUE(waitUntil([&] { return world.unit()->getProgress() >= 1; }));
    EXPECT_LT(world.unit()->getProgress(), 100);
    return job;
  }
  // The run leaves nothing but the document, and is over in a second.
  void expectQuickCleanEnd(const std::function<void()>& act) {
    const int child = world.unit()->getPid();
    ASSERT_GT(child, 0);
    const int before = world.runsEnded();
    const auto asked = std::chrono::steady_clock::now();
    act();
    EXPECT_TRUE(waitUntil([&] { return world.runsEnded() > before; }));
    EXPECT_LT(std::chrono::steady_clock::now() - asked, std::chrono::seconds(1));
    EXPECT_NE(kill(child, 0), 0);
    EXPECT_THAT(world.mediaFiles(), testing::ElementsAre("./catalog", "./long.pdf"));
  }
  std::string text(const std::string& name) { return readFile(world.media(name)); }

  RunnerWorld world;
  RecordingLog log;
};

TEST_F(PdfJob, EveryPageIsRenderedAndMadeKnown) {
  setRenderer(kWritePage);
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
  const std::string folders = "pdfDstPath=" + album + ", gsTmp=" + source + ".gstmp.";
  EXPECT_TRUE(log.hasPart(folders));
  EXPECT_TRUE(log.has(source + " total pages: 3\n"));
  EXPECT_TRUE(log.has("curPage=1, unitProgress=33\n"));
  EXPECT_TRUE(log.has("update unit progress=100\n"));
  EXPECT_TRUE(log.has("buf==> object 77\n, objId=77\n"));
  EXPECT_EQ(world.registrations(), 0u);
}

TEST_F(PdfJob, TheInstalledRendererGivesPictures) {
  if (!useInstalledRenderer()) GTEST_SKIP() << "no renderer is installed";
  const std::string source = makePdf("it's 5% (new).pdf", 2);
  const KxDBTaskParam row = world.run(source, PROFILE_240P);
  ASSERT_EQ(row.status, JOB_DONE) << world.reason(row.id);
  for (const char* page : {"it's 5% (new)-1.jpg", "it's 5% (new)-2.jpg"})
    EXPECT_EQ(readFile(source + ".album/" + page).substr(0, 3), "\xff\xd8\xff");
  EXPECT_TRUE(log.has("curPage=2, unitProgress=100\n"));
  for (const auto& name : world.mediaFiles()) EXPECT_EQ(name.find("gstmp"), std::string::npos);
}

TEST_F(PdfJob, TheScratchFolderIsTheRenderersAndGoesWithIt) {
  setRenderer(std::string(kWritePage) + "; echo x > \"$TMPDIR/scratch\"");
  const std::string source = makePdf("paper.pdf", 1);
  EXPECT_EQ(world.run(source, PROFILE_240P).status, JOB_DONE);
  EXPECT_TRUE(text("tmpdir").starts_with(source + ".gstmp."));
  for (const auto& name : world.mediaFiles()) EXPECT_EQ(name.find("gstmp"), std::string::npos);
}

TEST_F(PdfJob, PagesGoWhereTheJobSays) {
  setRenderer(kWritePage);
  TempDir elsewhere;
  const std::string source = makePdf("paper.pdf", 1);
  const KxDBTaskParam row =
      world.run(source, PROFILE_240P, [&](KxDBTaskParam& job) { job.dst = elsewhere / "holiday"; });
  EXPECT_EQ(row.status, JOB_DONE) << world.reason(row.id);
  EXPECT_TRUE(fs::exists(elsewhere / "holiday.album/paper-1.jpg"));
  EXPECT_EQ(kxJobOutputs(row)[0].path, elsewhere / "holiday.album/");
}

TEST_F(PdfJob, AFileWithoutPagesFailsAndLeavesNoFolder) {
  setRenderer(kWritePage);
  writeFile(world.media("broken.pdf"), "no PDF");
  const KxDBTaskParam row = world.run(world.media("broken.pdf"), PROFILE_240P);
  EXPECT_EQ(row.status, JOB_ERROR);
  EXPECT_EQ(world.reason(row.id), "the file is no PDF or is damaged beyond repair");
  EXPECT_TRUE(log.has(world.media("broken.pdf") + " total pages <= 0\n"));
  EXPECT_TRUE(log.has("status != 0, update db status as ERROR\n"));
  EXPECT_FALSE(fs::exists(world.media("broken.pdf.album")));
}

TEST_F(PdfJob, WhatHoldsNoPageFailsWithTheReason) {
  setRenderer(kWritePage);
  writeFile(world.media("empty.pdf"), "");
  fs::create_directory(world.media("folder.pdf"));
  makePdf("none.pdf", 0);
  const std::pair<const char*, const char*> reasons[] = {{"empty.pdf", "the source is empty"},
                                                         {"folder.pdf", "the source is no file"},
                                                         {"none.pdf", "the PDF has no pages"}};
  for (const auto& [name, reason] : reasons) {
    const KxDBTaskParam row = world.run(world.media(name), PROFILE_240P);
    EXPECT_EQ(row.status, JOB_ERROR);
    EXPECT_EQ(world.reason(row.id), reason);
    EXPECT_TRUE(log.has(world.media(name) + " total pages <= 0\n"));
    EXPECT_FALSE(fs::exists(world.media(std::string(name) + ".album")));
  }
  const KxDBTaskParam job = world.addJob(makePdf("gone.pdf", 1), PROFILE_240P);
  fs::remove(world.media("gone.pdf"));
  EXPECT_EQ(world.runAgain(job).status, JOB_ERROR);
  EXPECT_EQ(world.reason(job.id), "the source cannot be read: No such file or directory");
}

TEST_F(PdfJob, ADocumentThatAnyoneMayOpenIsRendered) {
  if (!useInstalledRenderer()) GTEST_SKIP() << "no renderer is installed";
  const std::string source = world.media("locked.pdf");
  ASSERT_TRUE(run({"gs", "-q", "-sDEVICE=pdfwrite", "-sOwnerPassword=own", "-dEncryptionR=3",
                   "-dKeyLength=128", "-o", source, makePdf("open.pdf", 12)}));
  const KxDBTaskParam row = world.run(source, PROFILE_240P);
  EXPECT_EQ(row.status, JOB_DONE) << world.reason(row.id);
  for (const char* page : {"locked-1.jpg", "locked-9.jpg", "locked-10.jpg", "locked-12.jpg"})
    EXPECT_TRUE(fs::exists(source + ".album/" + page)) << page;
}

TEST_F(PdfJob, AFailedRendererFailsTheJobAndNoPageIsMadeKnown) {
  setRenderer(kWritePage, "echo out of ink >&2; exit 1\n");
  const std::string source = makePdf("paper.pdf", 2);
  const KxDBTaskParam row = world.run(source, PROFILE_240P);
  EXPECT_EQ(row.status, JOB_ERROR);
  EXPECT_EQ(world.reason(row.id), "the renderer failed: out of ink");
  EXPECT_TRUE(log.has("gs transcode pdf " + source + " fail\n"));
  EXPECT_FALSE(fs::exists(source + ".album"));
  EXPECT_EQ(text("catalog").find("createfile"), std::string::npos);
}

TEST_F(PdfJob, AMissingPageFailsTheJob) {
  setRenderer(std::string("[ $i = 2 ] || ") + kWritePage);
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
  EXPECT_TRUE(log.has(5, "KxTranscodeUnit2", "end of execvp - shouldn't come here\n"));
}

TEST_F(PdfJob, WithoutDescriptorsThereIsNoPipe) {
  rlimit usual;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &usual), 0);
  const rlimit none{0, usual.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  const ChildProcess child = runner::startReadChild({"/bin/true"}, {});
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &usual), 0);
  EXPECT_FALSE(child.valid());
  EXPECT_TRUE(log.has(5, "KxTranscodeUnit2", "create pipe error\n"));
}

TEST_F(PdfJob, TheDocumentStaysRegisteredUntilItsPagesAreKnown) {
  setRenderer(kWritePage);
  const std::string asked = world.media("asked");
  const std::string answer = world.media("answer");
  world.root().script("/usr/local/medialibrary/bin/catalogcmd",
                      "[ \"$1\" = createfile ] || exit 0\n"
                      "touch '" +
                          asked + "'\nuntil [ -e '" + answer + "' ]; do sleep 0.02; done\n");
  const KxDBTaskParam job = world.addJob(makePdf("paper.pdf", 1), PROFILE_240P);
  world.start(job);
  ASSERT_TRUE(waitUntil([&] { return fs::exists(asked); }));
  EXPECT_EQ(world.unit()->getReg().m_resId, "sw_cpu");
  EXPECT_GT(world.unit()->getPid(), 0);
  EXPECT_EQ(world.registrations(), 1u);
  writeFile(answer, "");
  ASSERT_TRUE(world.waitForUnits());
  EXPECT_EQ(world.row(job.id).status, JOB_DONE) << world.reason(job.id);
  EXPECT_EQ(world.registrations(), 0u);
}

TEST_F(PdfJob, ALibraryThatDoesNotAnswerDoesNotKeepTheDocument) {
  world.configure("STALL_SEC=1\n");
  setRenderer(kWritePage);
  const std::string calls = world.media("calls");
  world.root().script("/usr/local/medialibrary/bin/catalogcmd",
                      "[ \"$1\" = TranscodeStatus ] && exit 0\n"
                      "echo \"$2\" >> '" +
                          calls + "'\ncase $2 in *-2.jpg) exec sleep 600 ;; esac\n");
  const std::string source = makePdf("paper.pdf", 3);
  const KxDBTaskParam row = world.run(source, PROFILE_240P);
  EXPECT_EQ(row.status, JOB_DONE);
  EXPECT_EQ(world.reason(row.id), "the media library does not answer, it knows the pages before 2");
  EXPECT_EQ(text("calls"), source + ".album/paper-1.jpg\n" + source + ".album/paper-2.jpg\n");
  EXPECT_TRUE(fs::exists(source + ".album/paper-3.jpg"));
  EXPECT_THAT(childPrograms(), testing::IsEmpty());
}

TEST_F(PdfJob, AnAlbumThatIsGoneHasNoMount) {
  setRenderer(kWritePage);
  const std::string source = makePdf("paper.pdf", 1);
  world.root().script("/usr/local/medialibrary/bin/catalogcmd",
                      "[ \"$1\" = createfile ] && rm -r '" + source + ".album' && echo 5\n");
  world.run(source, PROFILE_240P);
  EXPECT_TRUE(log.has(5, "KxTranscodeUnit2", "can not get mount path\n"));
}

TEST_F(PdfJob, ARendererThatHangsFailsTheJobInTheEnd) {
  world.configure("STALL_SEC=1\n");
  // The second one goes on without an output.
  for (const char* hang : {"exec sleep 600", "exec sleep 600 >&-"}) {
    setRenderer(hang);
    const std::string source = makePdf("paper.pdf", 2);
    const KxDBTaskParam row = world.run(source, PROFILE_240P);
    EXPECT_EQ(row.status, JOB_ERROR);
    EXPECT_EQ(world.reason(row.id), "the renderer made no progress");
    EXPECT_FALSE(fs::exists(source + ".album"));
  }
}

TEST_F(PdfJob, AStopReachesARendererWithoutAnOutput) {
  setRenderer("touch '" + world.media("silent") + "'; exec sleep 600 >&-");
  const KxDBTaskParam job = world.addJob(makePdf("paper.pdf", 1), PROFILE_240P);
  world.start(job);
  ASSERT_TRUE(waitUntil([&] { return fs::exists(world.media("silent")); }));
  const auto asked = std::chrono::steady_clock::now();
  world.stop(job.id);
  ASSERT_TRUE(world.waitForUnits());
  EXPECT_LT(std::chrono::steady_clock::now() - asked, std::chrono::seconds(1));
  EXPECT_EQ(world.row(job.id).status, JOB_WAITING);
}

TEST_F(PdfJob, AnAlbumThatWasThereKeepsItsWholePagesOnly) {
  setRenderer(kWritePage);
  const std::string source = makePdf("paper.pdf", 2);
  ASSERT_EQ(world.run(source, PROFILE_240P).status, JOB_DONE);
  setRenderer("[ $i = 1 ] || { printf half > \"$f\"; exit 1; }");
  EXPECT_EQ(world.run(source, PROFILE_240P).status, JOB_ERROR);
  EXPECT_TRUE(fs::exists(source + ".album/paper-1.jpg"));
  EXPECT_FALSE(fs::exists(source + ".album/paper-2.jpg"));
}

TEST_F(PdfJob, WithoutAnyResourceTheJobFails) {
  const std::string source = makePdf("paper.pdf", 1);
  fs::remove(world.root().file("/sbin/accelctl"));
  const KxDBTaskParam row = world.run(source, PROFILE_240P);
  EXPECT_EQ(row.status, JOB_ERROR);
  EXPECT_TRUE(log.has(5, "KxTranscodeUnit2", "resource vector is empty\n"));
  EXPECT_TRUE(log.has(5, "KxTranscodeUnit2", "priority resource vector is empty\n"));
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
  setRenderer(std::string(kWritePage) + "; sleep 600");
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
  EXPECT_FALSE(log.has("status != 0, update db status as ERROR\n"));
  EXPECT_EQ(world.row(job.id).status, JOB_WAITING);
  EXPECT_EQ(text("catalog").find("createfile"), std::string::npos);
  EXPECT_FALSE(fs::exists(source + ".album"));
}

TEST_F(PdfJob, AStopInTheMiddleOfALongDocumentActsAtOnce) {
  if (!useInstalledRenderer()) GTEST_SKIP() << "no renderer is installed";
  const KxDBTaskParam job = beginLongRun();
  expectQuickCleanEnd([&] { world.stop(job.id); });
  ASSERT_TRUE(world.waitForUnits());
  EXPECT_EQ(world.row(job.id).status, JOB_WAITING);
  EXPECT_EQ(world.registrations(), 0u);
}

TEST_F(PdfJob, ASuspendedDocumentLeavesItsRowAndIsRenderedLater) {
  if (!useInstalledRenderer()) GTEST_SKIP() << "no renderer is installed";
  const KxDBTaskParam job = beginLongRun();
  expectQuickCleanEnd([&] { world.pending(job); });
  EXPECT_EQ(world.row(job.id).status, JOB_RUNNING);
  EXPECT_EQ(world.unit()->getState(), UNIT_PENDING);
  makePdf("long.pdf", 2);
  world.resume(job);
  ASSERT_TRUE(world.waitForUnits());
  EXPECT_EQ(world.row(job.id).status, JOB_DONE) << world.reason(job.id);
  EXPECT_TRUE(fs::exists(world.media("long.pdf.album/long-2.jpg")));
}

TEST_F(PdfJob, AStopWhilePagesAreMadeKnownActsAtOnce) {
  setRenderer(kWritePage);
  world.root().script("/usr/local/medialibrary/bin/catalogcmd", "case $1 in createfile) touch '" +
                                                                    world.media("asked") +
                                                                    "'; sleep 60 ;; esac\n");
  const KxDBTaskParam job = world.addJob(makePdf("long.pdf", 2), PROFILE_240P);
  world.start(job);
  ASSERT_TRUE(waitUntil([&] { return fs::exists(world.media("asked")); }));
  const auto asked = std::chrono::steady_clock::now();
  world.stop(job.id);
  ASSERT_TRUE(world.waitForUnits());
  EXPECT_LT(std::chrono::steady_clock::now() - asked, std::chrono::seconds(1));
  EXPECT_EQ(world.row(job.id).status, JOB_WAITING);
  EXPECT_TRUE(log.has(5, "KxTranscodeUnit2",
                      "someone stop the transcode unit, so we stop updating the media database\n"));
}

TEST_F(PdfJob, HostileNamesAreOnlyNames) {
  if (!useInstalledRenderer()) GTEST_SKIP() << "no renderer is installed";
  for (const char* base : {"-dNOSAFER", "@arguments", "100%", "%d %03d", "a|b", "(x)\\", "-",
                           "two\nlines", "it's \"q\" $(x)", "\xc3\xbc \xe6\xb8\xac"}) {
    SCOPED_TRACE(base);
    const std::string source = makePdf(std::string(base) + ".pdf", 2);
    const KxDBTaskParam row = world.run(source, PROFILE_240P);
    EXPECT_EQ(row.status, JOB_DONE) << world.reason(row.id);
    const fs::path album = source + ".album";
    for (const char* page : {"-1.jpg", "-2.jpg"})
      EXPECT_TRUE(fs::exists((album / base) += page)) << page;
  }
  makePdf("no utf-8 \xff\xe4.pdf", 1);
  EXPECT_EQ(world.reason(world.run(world.media("no utf-8 \xff\xe4.pdf"), PROFILE_240P).id),
            "the renderer only finds documents whose names are UTF-8");
  // The renderer opens nothing that could be a command.
  makePdf("%pipe%touch hacked.pdf", 1);
  const KxDBTaskParam row = world.run(world.media("%pipe%touch hacked.pdf"), PROFILE_240P);
  EXPECT_EQ(row.status, JOB_ERROR);
  EXPECT_TRUE(world.reason(row.id).starts_with("the renderer failed: /undefinedfilename in "));
  EXPECT_FALSE(fs::exists(world.media("hacked")) || fs::exists("hacked"));
}

TEST_F(PdfJob, AProgramInADocumentReachesNoOtherFile) {
  if (!useInstalledRenderer()) GTEST_SKIP() << "no renderer is installed";
  const std::string secret = world.media("secret");
  const std::string leaked = world.media("leaked");
  writeFile(secret, "top secret");
  // A page description program in front of a document: the page count is that of the document,
  // the renderer runs the program.
  const std::string document = emptyPdf(1);
  const std::string program = "%!PS-Adobe-3.0\n{ (" + secret +
                              ") (r) file 100 string readstring pop (" + leaked +
                              ") (w) file dup 3 -1 roll writestring closefile } stopped\nshowpage "
                              "quit\n";
  writeFile(world.media("evil.pdf"), program + document);
  ASSERT_EQ(kxPdfGetPageNumber(world.media("evil.pdf")), 1);
  // It does harm where nothing holds it back.
  run({"gs", "-q", "-sDEVICE=jpeg", "-dNOPAUSE", "-dBATCH", "-dNOSAFER", "-sOutputFile=/dev/null",
       world.media("evil.pdf")});
  ASSERT_EQ(text("leaked"), "top secret");
  fs::remove(leaked);
  world.run(world.media("evil.pdf"), PROFILE_240P);
  EXPECT_TRUE(log.hasPart(world.media("evil.pdf") + " total pages: 1\n"));
  EXPECT_FALSE(fs::exists(leaked));
}

TEST_F(PdfJob, AnEncryptedDocumentFailsAndSaysSo) {
  if (!useInstalledRenderer()) GTEST_SKIP() << "no renderer is installed";
  const std::string source = world.media("locked.pdf");
  ASSERT_TRUE(run({"gs", "-q", "-sDEVICE=pdfwrite", "-sOwnerPassword=own", "-sUserPassword=use",
                   "-dEncryptionR=3", "-dKeyLength=128", "-o", source, makePdf("open.pdf", 1)}));
  const KxDBTaskParam row = world.run(source, PROFILE_240P);
  EXPECT_EQ(row.status, JOB_ERROR);
  EXPECT_EQ(world.reason(row.id), "the PDF is encrypted and cannot be opened without its password");
  EXPECT_TRUE(log.has(source + " total pages <= 0\n"));
  EXPECT_FALSE(fs::exists(source + ".album"));
}

TEST_F(PdfJob, TheRenderersComplaintIsTheReason) {
  setRenderer("echo '   **** Error: page not found.'");
  const KxDBTaskParam row = world.run(makePdf("paper.pdf", 1), PROFILE_240P);
  EXPECT_EQ(world.reason(row.id), "page 1 was not rendered: page not found.");
  setRenderer("echo 'Error: /undefined in obj'; echo 'Operand stack:'", "echo late >&2; exit 1");
  EXPECT_EQ(world.reason(world.run(makePdf("other.pdf", 1), PROFILE_240P).id),
            "the renderer failed: /undefined in obj");
}

TEST_F(PdfJob, APictureThatIsCutOffIsNoPage) {
  setRenderer("printf '\\377\\330half a page' > \"$f\"");
  const std::string source = makePdf("paper.pdf", 1);
  const KxDBTaskParam row = world.run(source, PROFILE_240P);
  EXPECT_EQ(row.status, JOB_ERROR);
  EXPECT_EQ(world.reason(row.id), "page 1 was not rendered");
  EXPECT_EQ(text("catalog").find("createfile"), std::string::npos);
  EXPECT_FALSE(fs::exists(source + ".album"));
}
