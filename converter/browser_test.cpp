#include "converter/browser.h"

#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/process.h"
#include "platform/utf.h"
#include "testing/temp_folder.h"

namespace mrwl::converter {
namespace {

using testing::RunCommand;
using testing::ShellQuote;
using testing::TempFolder;

constexpr char kNoBrowser[] =
    "No browser found: install the Debian package chromium (or set MRWL_CHROMIUM)";

// A 2 x 2 red PNG, to see in the PDF whether an image was loaded.
const std::string kRedPng(
    "\x89\x50\x4e\x47\x0d\x0a\x1a\x0a\x00\x00\x00\x0d\x49\x48\x44\x52\x00\x00\x00\x02\x00\x00\x00"
    "\x02\x08\x02\x00\x00\x00\xfd\xd4\x9a\x73\x00\x00\x00\x10\x49\x44\x41\x54\x78\x9c\x63\xf8\xcf"
    "\xc0\x00\x44\x0c\x10\x0a\x00\x1f\xee\x03\xfd\x8b\x5f\x14\xd4\x00\x00\x00\x00\x49\x45\x4e\x44"
    "\xae\x42\x60\x82",
    73);

PrintRequest A4(const std::string& page, std::uint32_t viewportWidth = 800) {
  PrintRequest request{};
  request.pagePath = page;
  request.viewportWidth = viewportWidth;
  request.viewportHeight = 600;
  request.loadDelayMs = 0;
  request.paperWidth = 595.0;
  request.paperHeight = 842.0;
  request.marginTop = request.marginBottom = request.marginLeft = request.marginRight = 36.0;
  request.backgrounds = true;
  return request;
}

bool Has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

bool BrowserInstalled() {
  TempFolder scratch;
  return RunCommand("command -v chromium || command -v chromium-browser", scratch).status == 0;
}

// One browser serves the whole suite, as it serves a whole run of the converter; the pages live
// in `allowed` below the suite's folder, and `outside` is a sibling whose name begins the same.
class BrowserTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (!BrowserInstalled()) return;
    root_ = std::make_unique<TempFolder>();
    root_->Write("allowed/.keep", "");
    BrowserOptions options;
    options.allowedFolder = root_->PathOf("allowed");
    browser_ = Browser::Start(options, startError_);
  }
  static void TearDownTestSuite() {
    browser_.reset();
    root_.reset();
  }

  void SetUp() override {
    if (root_ == nullptr) GTEST_SKIP() << "chromium is not installed";
    ASSERT_NE(nullptr, browser_) << startError_;
  }

  // Writes a page into the allowed folder and returns its path.
  std::string WritePage(const std::string& name, const std::string& html) {
    return root_->Write("allowed/" + name, html);
  }
  std::string WriteOutside(const std::string& name, const std::string& content) {
    return root_->Write("allowed2/" + name, content);
  }

  // Prints `request` and keeps the PDF as `name` in the suite's folder.
  std::string Print(const PrintRequest& request, const std::string& name) {
    std::string pdf;
    std::string error;
    EXPECT_TRUE(browser_->PrintToPdf(request, pdf, error)) << error;
    return root_->Write("out/" + name, pdf);
  }

  std::string Tool(const std::string& command, const std::string& pdf,
                   const std::string& tail = "") {
    const testing::CommandOutcome outcome =
        RunCommand(command + " " + ShellQuote(pdf) + tail, *root_);
    EXPECT_EQ(0, outcome.status) << command << ": " << outcome.err;
    return outcome.out;
  }
  std::string Text(const std::string& pdf) { return Tool("pdftotext -layout", pdf, " -"); }
  // The first page's size in points, as pdfinfo reports it.
  std::pair<double, double> PageSize(const std::string& pdf) {
    const std::string info = Tool("pdfinfo", pdf);
    std::smatch match;
    if (!std::regex_search(info, match, std::regex(R"(Page size:\s+([\d.]+) x ([\d.]+) pts)"))) {
      ADD_FAILURE() << info;
      return {0, 0};
    }
    return {std::stod(match[1]), std::stod(match[2])};
  }
  // How many copies of kRedPng the PDF holds; the browser's own icon for a missing image is
  // an image too, of another size.
  int RedImageCount(const std::string& pdf) {
    const std::string list = Tool("pdfimages -list", pdf);
    const std::regex red(R"(\bimage\s+2\s+2\s)");
    return static_cast<int>(
        std::distance(std::sregex_iterator(list.begin(), list.end(), red), std::sregex_iterator()));
  }

  static inline std::unique_ptr<TempFolder> root_;
  static inline std::unique_ptr<Browser> browser_;
  static inline std::string startError_;
};

// A page from a file and the converter's own HTML (the portfolio cover) both take the paper asked.
TEST_F(BrowserTest, PagesAndHtmlTextHaveThePaperSizeAsked) {
  const std::string page = WritePage("size.html", "<p>Paper size</p>");
  for (const double width : {595.0, 792.0}) {
    SCOPED_TRACE(width);
    PrintRequest request = A4(page);
    request.paperWidth = width;
    request.paperHeight = 1437.0 - width;
    const auto [w, h] = PageSize(Print(request, "size.pdf"));
    EXPECT_NEAR(width, w, 1.0);
    EXPECT_NEAR(1437.0 - width, h, 1.0);
  }
  PrintRequest paper = A4("");
  paper.paperWidth = 842.0;
  paper.paperHeight = 595.0;
  std::string pdf;
  std::string error;
  ASSERT_TRUE(browser_->PrintHtmlToPdf(
      "<div style='width:100%;text-align:right'>COVERRIGHT</div><p>COVERPAGE</p>", paper, pdf,
      error))
      << error;
  const std::string path = root_->Write("out/cover.pdf", pdf);
  const auto [width, height] = PageSize(path);
  EXPECT_NEAR(842.0, width, 1.0);
  EXPECT_NEAR(595.0, height, 1.0);
  const std::string text = Text(path);
  EXPECT_TRUE(Has(text, "COVERPAGE") && Has(text, "COVERRIGHT")) << text;
}

TEST_F(BrowserTest, WideLayoutIsScaledToFitThePrintableWidth) {
  std::string html = "<table style='width:2000px;border-collapse:collapse'><tr>";
  for (int i = 0; i < 9; ++i) html += "<td style='width:200px'>cell" + std::to_string(i) + "</td>";
  html += "<td style='width:200px'>RIGHTMOSTCELL</td></tr></table>";
  const std::string page = WritePage("wide.html", html);

  const std::string fitted = Text(Print(A4(page, 2000), "wide-2000.pdf"));
  EXPECT_TRUE(Has(fitted, "RIGHTMOSTCELL") && Has(fitted, "cell0")) << fitted;
  // Laid out at 800 pixels the same table runs off the paper: the scale is what saves it.
  EXPECT_FALSE(Has(Text(Print(A4(page, 800), "wide-800.pdf")), "RIGHTMOSTCELL"));
}

TEST_F(BrowserTest, ScriptsOfThePageDoNotRun) {
  const std::string page = WritePage(
      "script.html",
      "<p id='t'>STATICTEXT</p><script>document.getElementById('t').textContent="
      "'SCRIPTRAN';document.write('<p>WRITTENBYSCRIPT</p>')</script><noscript>NOSCRIPTSHOWN"
      "</noscript>");
  const std::string text = Text(Print(A4(page), "script.pdf"));
  EXPECT_TRUE(Has(text, "STATICTEXT")) << text;
  EXPECT_FALSE(Has(text, "SCRIPTRAN") || Has(text, "WRITTENBYSCRIPT")) << text;
}

TEST_F(BrowserTest, RemoteRequestsNeverLeaveTheMachine) {
  // The server is a child process: it writes its port, answers everything and logs each path.
  TempFolder scratch;
  if (RunCommand("command -v python3", scratch).status != 0) GTEST_SKIP() << "no python3";
  const std::string portFile = scratch.PathOf("port");
  const std::string hits = scratch.PathOf("hits");
  const std::string script =
      scratch.Write("server.py", R"(import http.server, os, sys, urllib.request, threading
class H(http.server.BaseHTTPRequestHandler):
    def do_GET(self):
        with open(sys.argv[2], 'a') as f: f.write(self.path + '\n')
        self.send_response(200); self.end_headers(); self.wfile.write(b'x')
    def log_message(self, *a): pass
s = http.server.HTTPServer(('127.0.0.1', 0), H)
threading.Thread(target=s.serve_forever, daemon=True).start()
urllib.request.urlopen('http://127.0.0.1:%d/selftest' % s.server_address[1]).read()
with open(sys.argv[1] + '.part', 'w') as f: f.write(str(s.server_address[1]))
os.rename(sys.argv[1] + '.part', sys.argv[1])
threading.Event().wait()
)");
  platform::ChildProcess server;
  platform::ChildProcessOptions options;
  options.program = u"python3";
  options.arguments = {platform::Utf8ToUtf16(script), platform::Utf8ToUtf16(portFile),
                       platform::Utf8ToUtf16(hits)};
  ASSERT_TRUE(server.Start(options));
  const auto port = testing::WaitForFile(portFile);
  ASSERT_TRUE(port.has_value());
  const std::string base = "http://127.0.0.1:" + *port;

  const std::string page = WritePage(
      "remote.html", "<html><head><link rel='stylesheet' href='" + base +
                         "/style.css'><style>@font-face{font-family:F;src:url(" + base +
                         "/font.woff)} p{font-family:F}</style></head><body><p>REMOTEPAGE</p>"
                         "<img src='" +
                         base + "/image.png'><iframe src='" + base +
                         "/frame.html'></iframe><img src='//127.0.0.1:" + *port +
                         "/relative.png'></body></html>");
  PrintRequest request = A4(page);
  request.loadDelayMs = 300;
  EXPECT_TRUE(Has(Text(Print(request, "remote.pdf")), "REMOTEPAGE"));
  EXPECT_EQ("/selftest\n", scratch.Read("hits"));
  (void)server.Terminate();
}

TEST_F(BrowserTest, FilesOutsideTheAllowedFolderStayUnloaded) {
  const std::string outsideText = WriteOutside("secret.txt", "OUTSIDESECRET");
  const std::string outsideImage = WriteOutside("red.png", kRedPng);
  WritePage("inside.txt", "INSIDETEXT");
  WritePage("files/red.png", kRedPng);
  const std::string page = WritePage(
      "files.html",
      "<iframe src='inside.txt'></iframe><img src='files/red.png' width=40>"
      "<iframe src='file://" +
          outsideText + "'></iframe><img src='file://" + outsideImage +
          "' width=40><iframe src='../allowed2/secret.txt'></iframe>"
          "<iframe src='file:///etc/hostname'></iframe><iframe src='files/%2e%2e/%2e%2e/allowed2/"
          "secret.txt'></iframe>");
  const std::string pdf = Print(A4(page), "files.pdf");
  const std::string text = Text(pdf);
  EXPECT_TRUE(Has(text, "INSIDETEXT")) << text;
  EXPECT_FALSE(Has(text, "OUTSIDESECRET")) << text;
  EXPECT_EQ(1, RedImageCount(pdf)) << Tool("pdfimages -list", pdf);
  std::string host;
  if (std::ifstream("/etc/hostname") >> host; host.size() > 3) {
    EXPECT_FALSE(Has(text, host));
  }
}

TEST_F(BrowserTest, PageOutsideTheFolderOrMissingFailsAndTheNextPagePrints) {
  const std::string outside = WriteOutside("page.html", "<p>OUTSIDEPAGE</p>");
  const std::pair<std::string, std::string> cases[] = {
      {outside, "the page " + outside + " lies outside the folder the converter may read"},
      {root_->PathOf("allowed/missing.html"),
       "the page " + root_->PathOf("allowed/missing.html") + " does not exist"},
  };
  const std::string good = WritePage("after.html", "<p>AFTERFAILURE</p>");
  for (const auto& [page, message] : cases) {
    SCOPED_TRACE(page);
    std::string pdf;
    std::string error;
    EXPECT_FALSE(browser_->PrintToPdf(A4(page), pdf, error));
    EXPECT_EQ(message, error);
    EXPECT_TRUE(Has(Text(Print(A4(good), "after.pdf")), "AFTERFAILURE"));
  }
}

TEST_F(BrowserTest, NamesWithSpacesHashesAndNonAsciiLoad) {
  WritePage("odd dir #1/pict%ure.png", kRedPng);
  const std::string page = WritePage("odd dir #1/r\xc3\xa9sum\xc3\xa9 ?.html",
                                     "<p>ODDNAME</p><img src='pict%25ure.png' width=30>");
  const std::string pdf = Print(A4(page), "odd.pdf");
  EXPECT_TRUE(Has(Text(pdf), "ODDNAME"));
  EXPECT_EQ(1, RedImageCount(pdf));
}

// One browser serves a whole run; each page must come out as itself, not as a page before it.
TEST_F(BrowserTest, TwentyPagesInOneBrowser) {
  for (int i = 0; i < 20; ++i) {
    SCOPED_TRACE(i);
    const std::string marker = "PAGE" + std::to_string(i) + "END";
    const std::string page = WritePage("many/" + std::to_string(i) + ".html", "<p>" + marker);
    if (i % 6 == 1) {
      EXPECT_TRUE(Has(Text(Print(A4(page), "many.pdf")), marker));
    } else {
      std::string pdf;
      std::string error;
      ASSERT_TRUE(browser_->PrintToPdf(A4(page), pdf, error)) << error;
    }
  }
}

TEST(BrowserStart, MissingOrBrokenBrowserGivesAPlainError) {
  TempFolder folder;
  const std::string quitter = folder.Write("quits", "#!/bin/sh\nexit 1\n", true);
  const std::string missing = folder.PathOf("no-chromium");
  const std::string notThere = std::string(kNoBrowser) + "; " + missing + " does not exist";
  struct Case {
    const char* name;
    std::string variable, executable, error;
  } cases[] = {
      {"variable names a missing file", missing, "", notThere},
      {"option names a missing file", "", missing, notThere},
      {"program ends at once", "", quitter,
       "the browser " + quitter + " did not start: the browser is no longer running"},
      {"none on the PATH", "", "", kNoBrowser},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    testing::ScopedEnv variable("MRWL_CHROMIUM");
    c.variable.empty() ? variable.Unset() : variable.Set(c.variable);
    testing::ScopedEnv path("PATH", folder.PathOf("empty"));
    BrowserOptions options;
    options.executable = c.executable;
    options.allowedFolder = folder.PathOf("pages");
    std::string error;
    EXPECT_EQ(nullptr, Browser::Start(options, error));
    EXPECT_EQ(c.error, error);
  }
}

// Whether it is closed or dies on its own, the browser leaves no process and no profile behind,
// and a dead one fails every later page at once instead of waiting for it.
TEST(OwnBrowser, ClosingEndsTheBrowserAndDeathFailsLaterPagesQuickly) {
  if (!BrowserInstalled()) GTEST_SKIP() << "chromium is not installed";
  TempFolder folder;
  const testing::ScopedEnv tmpdir("TMPDIR", folder.PathOf("tmp"));
  folder.Write("tmp/.keep", "");
  const std::string page = folder.Write("pages/p.html", "<p>x</p>");
  const std::string pidFile = folder.PathOf("browser.pid");
  // The wrapper keeps its process id across exec, so the test knows which process is the browser.
  BrowserOptions options;
  options.executable = folder.Write("chromium-wrapper",
                                    "#!/bin/sh\necho $$ > " + ShellQuote(pidFile + ".part") +
                                        "\nmv " + ShellQuote(pidFile + ".part") + " " +
                                        ShellQuote(pidFile) + "\nexec chromium \"$@\"\n",
                                    true);
  options.allowedFolder = folder.PathOf("pages");
  const auto leftovers = [&folder] {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder.path() / "tmp")) {
      if (entry.path().filename() != ".keep") names.push_back(entry.path().filename().string());
    }
    return names;
  };
  for (const bool dies : {false, true}) {
    SCOPED_TRACE(dies ? "killed" : "closed");
    std::filesystem::remove(pidFile);
    std::string error;
    std::unique_ptr<Browser> browser = Browser::Start(options, error);
    ASSERT_NE(nullptr, browser) << error;
    const auto pidText = testing::WaitForFile(pidFile);
    ASSERT_TRUE(pidText.has_value());
    const std::string pid = std::to_string(std::stoi(*pidText));
    std::string pdf;
    ASSERT_TRUE(browser->PrintToPdf(A4(page), pdf, error)) << error;
    EXPECT_EQ(1u, leftovers().size());
    if (dies) {
      ASSERT_EQ(0, RunCommand("kill -9 " + pid, folder).status);
      const auto start = std::chrono::steady_clock::now();
      EXPECT_FALSE(browser->PrintToPdf(A4(page), pdf, error));
      EXPECT_EQ("the browser is no longer running", error);
      EXPECT_FALSE(browser->PrintHtmlToPdf("<p>y</p>", A4(""), pdf, error));
      EXPECT_EQ("the browser is no longer running", error);
      EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    }
    browser.reset();
    // Ended, or a zombie, which has ended too.
    std::ifstream stat("/proc/" + pid + "/stat");
    std::string number, name, state;
    EXPECT_FALSE((stat >> number >> name >> state) && state != "Z");
    EXPECT_EQ(std::vector<std::string>{}, leftovers());
  }
}

}  // namespace
}  // namespace mrwl::converter
