// The decisions of a run that need no browser: which folders the browser may read, how the
// command line's geometry becomes a print request, what a custom PDF application is given, and
// what the progress line calls a job. The run itself is exercised end to end in
// converter_e2e_test.cpp.

#include "converter/converter_run.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace mrwl::converter {
namespace {

std::vector<ConversionJob> JobsWithPages(const std::vector<std::u16string>& pages) {
  std::vector<ConversionJob> jobs;
  for (const std::u16string& page : pages) {
    ConversionJob job;
    job.pagePath = page;
    jobs.push_back(job);
  }
  return jobs;
}

TEST(ChooseAllowedFolders, KeepsTheBrowserInsideTheTemporaryFolderOrThePagesOwnFolders) {
  struct Case {
    const char* name;
    std::u16string temp;
    std::vector<std::u16string> pages;
    std::vector<std::string> expected;
  };
  const Case cases[] = {
      {"one page in the temporary folder", u"/tmp/", {u"/tmp/mrwm_1a.html"}, {"/tmp"}},
      {"pages in two folders below the temporary folder share it",
       u"/tmp/run/",
       {u"/tmp/run/a/mrwm_1.html", u"/tmp/run/b/mrwm_2.html"},
       {"/tmp/run", "/tmp/run"}},
      {"pages of one folder outside the temporary folder share that folder",
       u"/tmp",
       {u"/home/ann/x/p1.html", u"/home/ann/x/p2.html"},
       {"/home/ann/x", "/home/ann/x"}},
      {"scattered pages never widen to their common parent",
       u"/tmp/",
       {u"/home/ann/x/p1.html", u"/srv/y/p2.html"},
       {"/home/ann/x", "/srv/y"}},
      {"a common parent above the temporary folder is refused",
       u"/var/tmp/",
       {u"/var/tmp/mrwm_1.html", u"/var/lib/p2.html"},
       {"/var/tmp", "/var/lib"}},
      // "/tmp/ab" is no folder below "/tmp/a": comparison goes by whole components. It is the
      // folder of the first page, though, and so no wider than the pages' own folders.
      {"a page folder that merely starts like the temporary folder",
       u"/tmp/a/",
       {u"/tmp/ab/p1.html", u"/tmp/ab/c/p2.html"},
       {"/tmp/ab", "/tmp/ab"}},
      {"a sibling of the temporary folder is outside it",
       u"/tmp/a/",
       {u"/tmp/ab/c/p1.html", u"/tmp/ab/d/p2.html"},
       {"/tmp/ab/c", "/tmp/ab/d"}},
      {"no jobs, no folders", u"/tmp/", {}, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::vector<ConversionJob> jobs = JobsWithPages(c.pages);
    EXPECT_EQ(ChooseAllowedFolders(jobs, c.temp), c.expected);
  }
}

TEST(MakePrintRequest, TurnsTenthsOfAPointIntoPointsAndExchangesThePaperUnderLandscape) {
  ConverterOptions options;
  options.paperWidth = 5953;
  options.paperHeight = 8419;
  options.marginTop = 100;
  options.marginBottom = 205;
  options.marginLeft = 360;
  options.marginRight = 7;
  options.pageWidthPx = 1024;
  options.pageHeightPx = 700;
  options.loadDelayMs = 250;
  options.backgrounds = true;

  const PrintRequest portrait = MakePrintRequest(options, "/tmp/p.html");
  EXPECT_EQ(portrait.pagePath, "/tmp/p.html");
  EXPECT_DOUBLE_EQ(portrait.paperWidth, 595.3);
  EXPECT_DOUBLE_EQ(portrait.paperHeight, 841.9);
  EXPECT_DOUBLE_EQ(portrait.marginTop, 10.0);
  EXPECT_DOUBLE_EQ(portrait.marginBottom, 20.5);
  EXPECT_DOUBLE_EQ(portrait.marginLeft, 36.0);
  EXPECT_DOUBLE_EQ(portrait.marginRight, 0.7);
  EXPECT_EQ(portrait.viewportWidth, 1024u);
  EXPECT_EQ(portrait.viewportHeight, 700u);
  EXPECT_EQ(portrait.loadDelayMs, 250u);
  EXPECT_TRUE(portrait.backgrounds);

  options.landscape = true;
  options.backgrounds = false;
  const PrintRequest landscape = MakePrintRequest(options, "/tmp/p.html");
  EXPECT_DOUBLE_EQ(landscape.paperWidth, 841.9);
  EXPECT_DOUBLE_EQ(landscape.paperHeight, 595.3);
  // Margins keep their sides: the page is turned, not its margins.
  EXPECT_DOUBLE_EQ(landscape.marginTop, 10.0);
  EXPECT_DOUBLE_EQ(landscape.marginLeft, 36.0);
  EXPECT_FALSE(landscape.backgrounds);
}

TEST(ExpandRunParameters, QuotesThePdfPathUnlessTheParametersAlreadyDo) {
  struct Case {
    std::u16string parameters;
    std::u16string expected;
  };
  const std::u16string pdf = u"/home/ann/Re Q3 report.pdf";
  const Case cases[] = {
      {u"%f", u"\"/home/ann/Re Q3 report.pdf\""},
      {u"\"%f\"", u"\"/home/ann/Re Q3 report.pdf\""},
      {u"--page 1 %f --print=%f",
       u"--page 1 \"/home/ann/Re Q3 report.pdf\" --print=\"/home/ann/Re Q3 report.pdf\""},
      {u"", u""},
      {u"--view", u"--view"},
      {u"100%", u"100%"},
      {u"%F %%f", u"%F %\"/home/ann/Re Q3 report.pdf\""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.parameters.begin(), c.parameters.end()));
    EXPECT_EQ(ExpandRunParameters(c.parameters, pdf), c.expected);
  }
}

TEST(JobLabel, PrefersTheSubjectThenTheOutputNameThenThePage) {
  ConversionJob job;
  job.pagePath = u"/tmp/mrwm_5f.html";
  EXPECT_EQ(JobLabel(job), u"mrwm_5f.html");

  job.outputPath = u"/home/ann/out/Re Q3 report.pdf";
  EXPECT_EQ(JobLabel(job), u"Re Q3 report");

  job.outputPath = u"/home/ann/out/v1.2 notes.pdf";
  EXPECT_EQ(JobLabel(job), u"v1.2 notes");

  job.record.emplace();
  EXPECT_EQ(JobLabel(job), u"v1.2 notes");  // an empty subject says nothing
  job.record->subject = u"Отчёт за квартал";
  EXPECT_EQ(JobLabel(job), u"Отчёт за квартал");
}

}  // namespace
}  // namespace mrwl::converter
