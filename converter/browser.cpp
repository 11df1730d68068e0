// Chromium over --remote-debugging-pipe: JSON messages separated by NUL, commands on the child's
// descriptor 3, replies and events on 4. One tab (a flattened session) serves every page.

#include "converter/browser.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "foundation/codecs.h"
#include "platform/kernel.h"
#include "platform/process.h"
#include "platform/utf.h"
#include "platform/win_types.h"

namespace mrwl::converter {
namespace {

using JsonWriter = rapidjson::Writer<rapidjson::StringBuffer>;
using Fill = std::function<void(JsonWriter&)>;
using Clock = std::chrono::steady_clock;

constexpr char kNoBrowser[] =
    "No browser found: install the Debian package chromium (or set MRWL_CHROMIUM)";
constexpr char kBrowserGone[] = "the browser is no longer running";

// The browser's own start (profile, first tab) can take long on a loaded machine.
constexpr DWORD kStartTimeoutMs = 60000;
constexpr DWORD kCommandTimeoutMs = 30000;
// After this, the page is printed as far as it got.
constexpr DWORD kLoadTimeoutMs = 30000;
constexpr DWORD kPrintTimeoutMs = 180000;
constexpr DWORD kCloseTimeoutMs = 3000;

// Chromium refuses print scales outside this range.
constexpr double kMinScale = 0.1;
constexpr double kMaxScale = 2.0;

// The file: URL of an absolute path; every byte but the unreserved ones and '/' is escaped, so
// that '#', '?' and '%' in a file name stay part of the path.
std::string FileUrl(std::string_view path) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string url = "file://";
  for (unsigned char c : path) {
    if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
        c == '.' || c == '_' || c == '~' || c == '/') {
      url.push_back(static_cast<char>(c));
    } else {
      url.push_back('%');
      url.push_back(kHex[c >> 4]);
      url.push_back(kHex[c & 15]);
    }
  }
  return url;
}

std::string PercentDecode(std::string_view text) {
  auto hex = [](char c) -> int {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  };
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size() && hex(text[i + 1]) >= 0 && hex(text[i + 2]) >= 0) {
      out.push_back(static_cast<char>(hex(text[i + 1]) * 16 + hex(text[i + 2])));
      i += 2;
    } else {
      out.push_back(text[i]);
    }
  }
  return out;
}

// The local path a file: URL names, or nothing for another scheme, a remote host, or a path that
// climbs with "." or ".." segments (escaped ones included), which the check below could not trust.
std::optional<std::string> LocalPathOfUrl(std::string_view url) {
  constexpr std::string_view kScheme = "file://";
  if (url.size() < kScheme.size()) return std::nullopt;
  for (std::size_t i = 0; i < kScheme.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(url[i])) != kScheme[i]) return std::nullopt;
  }
  url.remove_prefix(kScheme.size());
  const std::size_t slash = url.find('/');
  if (slash == std::string_view::npos) return std::nullopt;
  const std::string_view host = url.substr(0, slash);
  if (!host.empty() && host != "localhost") return std::nullopt;
  url.remove_prefix(slash);
  url = url.substr(0, url.find_first_of("?#"));
  const std::string path = PercentDecode(url);
  if (path.find('\0') != std::string::npos) return std::nullopt;
  for (std::size_t start = 1; start <= path.size();) {
    std::size_t end = path.find('/', start);
    if (end == std::string::npos) end = path.size();
    const std::string_view segment(path.data() + start, end - start);
    if (segment == "." || segment == "..") return std::nullopt;
    start = end + 1;
  }
  return path;
}

// Plain words for the network error of a page that did not open.
std::string PageOpenError(const std::string& path, const std::string& errorText) {
  if (errorText.find("ERR_FILE_NOT_FOUND") != std::string::npos) {
    return "the page " + path + " does not exist";
  }
  if (errorText.find("ERR_BLOCKED_BY_CLIENT") != std::string::npos) {
    return "the page " + path + " lies outside the folder the converter may read";
  }
  if (errorText.find("ERR_ACCESS_DENIED") != std::string::npos) {
    return "the page " + path + " may not be read";
  }
  return "the browser could not open the page " + path + " (" + errorText + ")";
}

std::string StringMember(const rapidjson::Value& object, const char* name) {
  if (!object.IsObject()) return {};
  const auto member = object.FindMember(name);
  if (member == object.MemberEnd() || !member->value.IsString()) return {};
  return std::string(member->value.GetString(), member->value.GetStringLength());
}

class ChromiumBrowser final : public Browser {
 public:
  ~ChromiumBrowser() override;

  bool Launch(const BrowserOptions& options, std::string& error);
  bool PrintToPdf(const PrintRequest& request, std::string& pdf, std::string& error) override;
  bool PrintHtmlToPdf(std::string_view html, const PrintRequest& paper, std::string& pdf,
                      std::string& error) override;

 private:
  // Sends `method` with the parameters `fill` writes, to the tab when `inTab`, and waits up to
  // `timeoutMs` for its reply, answering events meanwhile. The reply's "result" lands in `reply`.
  bool Call(std::string_view method, bool inTab, const Fill& fill, DWORD timeoutMs,
            rapidjson::Document& reply, std::string& error);
  // Sends without waiting for the reply; its id is returned.
  bool Send(std::string_view method, bool inTab, const Fill& fill, int* id, std::string& error);
  // Handles what arrives until `done` says so or `timeoutMs` passes. False on timeout (`error`
  // empty) or when the browser is gone (`error` says so).
  bool PumpUntil(const std::function<bool()>& done, DWORD timeoutMs, std::string& error);
  void Dispatch(rapidjson::Document& message);
  void AnswerPausedRequest(const rapidjson::Value& params);
  bool UrlAllowed(std::string_view url) const;

  bool OpenTab(std::string& error);
  void DropTab();
  bool Render(const std::string& pagePath, const PrintRequest& request, std::string& pdf,
              std::string& error);
  void MarkGone();

  platform::ChildProcess process_;
  std::u16string profile_;
  std::string allowedPrefix_;  // the allowed folder with its final '/'
  std::string extraAllowedPath_;
  std::string targetId_;
  std::string sessionId_;
  bool gone_ = false;
  int nextId_ = 1;
  std::string inbox_;
  std::size_t scanned_ = 0;
  int awaitedId_ = 0;
  bool awaitedArrived_ = false;
  rapidjson::Document awaitedReply_;
  // The navigation under way, and the loads seen since it began.
  std::string awaitedLoader_;
  std::vector<std::string> loadedLoaders_;
  bool loadEventSeen_ = false;
  int coverCount_ = 0;
};

ChromiumBrowser::~ChromiumBrowser() {
  if (process_.Started()) {
    std::string ignored;
    int id = 0;
    // A polite close lets the browser finish writing its profile, which then goes whole.
    if (!gone_ && Send("Browser.close", false, nullptr, &id, ignored)) {
      DWORD code = 0;
      (void)process_.WaitForExit(kCloseTimeoutMs, &code);
    }
    (void)process_.Terminate();
  }
  if (!profile_.empty()) (void)platform::DeleteFolderTree(profile_.c_str());
}

bool ChromiumBrowser::Launch(const BrowserOptions& options, std::string& error) {
  std::vector<std::string> candidates;
  std::string named;  // where the caller or the environment pointed
  if (!options.executable.empty()) {
    named = options.executable;
  } else if (const char* variable = std::getenv("MRWL_CHROMIUM");
             variable != nullptr && *variable != '\0') {
    named = variable;
  }
  if (!named.empty()) {
    candidates.push_back(named);
  } else {
    candidates = {"chromium", "chromium-browser"};
  }

  if (!platform::CreatePrivateTempFolder(u"mrwl-chromium-", &profile_)) {
    error = "cannot make a private folder for the browser (error " +
            std::to_string(platform::GetLastError()) + ")";
    return false;
  }
  std::string folder = options.allowedFolder;
  while (!folder.empty() && folder.back() == '/') folder.pop_back();
  allowedPrefix_ = folder.empty() ? std::string() : folder + "/";

  platform::ChildProcessOptions start;
  start.messagePipes = true;
  start.ownGroup = true;
  // Chromium talks a lot on its standard error; it goes nowhere unless asked for.
  if (const char* log = std::getenv("MRWL_CHROMIUM_LOG"); log != nullptr && *log != '\0') {
    start.outputLog = platform::Utf8ToUtf16(log);
  }
  start.arguments = {u"--headless",
                     u"--disable-gpu",
                     u"--user-data-dir=" + profile_,
                     u"--no-first-run",
                     u"--no-default-browser-check",
                     u"--disable-extensions",
                     u"--disable-background-networking",
                     u"--disable-sync",
                     u"--disable-component-update",
                     u"--mute-audio",
                     u"--remote-debugging-pipe"};
  // The sandbox cannot start for the administrator, and Chromium refuses to run without the
  // switch then.
  if (platform::RunningAsAdministrator()) start.arguments.push_back(u"--no-sandbox");
  start.arguments.push_back(u"about:blank");
  // The browser's temporary files go into the private folder too.
  start.environment = {{u"TMPDIR", profile_}};

  std::string used;
  for (const std::string& candidate : candidates) {
    start.program = platform::Utf8ToUtf16(candidate);
    if (process_.Start(start)) {
      used = candidate;
      break;
    }
    const DWORD code = platform::GetLastError();
    if (code == ERROR_FILE_NOT_FOUND || code == ERROR_PATH_NOT_FOUND) continue;
    error =
        "the browser " + candidate + " could not be started (error " + std::to_string(code) + ")";
    return false;
  }
  if (used.empty()) {
    error = kNoBrowser;
    if (!named.empty()) error += "; " + named + " does not exist";
    return false;
  }

  rapidjson::Document reply;
  if (!Call("Browser.getVersion", false, nullptr, kStartTimeoutMs, reply, error)) {
    error = "the browser " + used + " did not start: " + error;
    return false;
  }
  return OpenTab(error);
}

bool ChromiumBrowser::OpenTab(std::string& error) {
  rapidjson::Document reply;
  if (!Call(
          "Target.createTarget", false,
          [](JsonWriter& w) {
            w.Key("url");
            w.String("about:blank");
          },
          kCommandTimeoutMs, reply, error)) {
    return false;
  }
  targetId_ = StringMember(reply, "targetId");
  const std::string target = targetId_;
  if (!Call(
          "Target.attachToTarget", false,
          [&](JsonWriter& w) {
            w.Key("targetId");
            w.String(target.c_str(), static_cast<rapidjson::SizeType>(target.size()));
            w.Key("flatten");
            w.Bool(true);
          },
          kCommandTimeoutMs, reply, error)) {
    return false;
  }
  sessionId_ = StringMember(reply, "sessionId");
  if (sessionId_.empty()) {
    error = "the browser gave no session for its tab";
    return false;
  }
  // Scripts stay off for every page; the setting holds across navigations of this session.
  const std::pair<const char*, Fill> setup[] = {
      {"Page.enable", nullptr},
      {"Page.setLifecycleEventsEnabled",
       [](JsonWriter& w) {
         w.Key("enabled");
         w.Bool(true);
       }},
      {"Emulation.setScriptExecutionDisabled",
       [](JsonWriter& w) {
         w.Key("value");
         w.Bool(true);
       }},
      // Every request stops here first and only the allowed files go on (see UrlAllowed). This
      // fence also sees file: URLs, which the blocked-URL list below lets through.
      {"Fetch.enable",
       [](JsonWriter& w) {
         w.Key("patterns");
         w.StartArray();
         w.StartObject();
         w.Key("urlPattern");
         w.String("*");
         w.Key("requestStage");
         w.String("Request");
         w.EndObject();
         w.EndArray();
       }},
      {"Network.enable", nullptr},
      // A second fence for the network alone, should a request ever pass by the first.
      {"Network.setBlockedURLs",
       [](JsonWriter& w) {
         w.Key("urls");
         w.StartArray();
         for (const char* pattern : {"http://*", "https://*", "ws://*", "wss://*", "ftp://*"}) {
           w.String(pattern);
         }
         w.EndArray();
       }},
  };
  for (const auto& [method, fill] : setup) {
    if (!Call(method, true, fill, kCommandTimeoutMs, reply, error)) return false;
  }
  return true;
}

void ChromiumBrowser::DropTab() {
  if (!targetId_.empty() && !gone_) {
    const std::string target = targetId_;
    int id = 0;
    std::string ignored;
    (void)Send(
        "Target.closeTarget", false,
        [&](JsonWriter& w) {
          w.Key("targetId");
          w.String(target.c_str(), static_cast<rapidjson::SizeType>(target.size()));
        },
        &id, ignored);
  }
  targetId_.clear();
  sessionId_.clear();
}

void ChromiumBrowser::MarkGone() {
  gone_ = true;
  sessionId_.clear();
  targetId_.clear();
}

bool ChromiumBrowser::Send(std::string_view method, bool inTab, const Fill& fill, int* id,
                           std::string& error) {
  if (gone_) {
    error = kBrowserGone;
    return false;
  }
  *id = nextId_++;
  rapidjson::StringBuffer buffer;
  JsonWriter w(buffer);
  w.StartObject();
  w.Key("id");
  w.Int(*id);
  w.Key("method");
  w.String(method.data(), static_cast<rapidjson::SizeType>(method.size()));
  if (inTab) {
    w.Key("sessionId");
    w.String(sessionId_.c_str(), static_cast<rapidjson::SizeType>(sessionId_.size()));
  }
  w.Key("params");
  w.StartObject();
  if (fill) fill(w);
  w.EndObject();
  w.EndObject();
  std::string message(buffer.GetString(), buffer.GetSize());
  message.push_back('\0');
  if (!process_.WriteToChild(message, kCommandTimeoutMs)) {
    const DWORD code = platform::GetLastError();
    MarkGone();
    error = code == ERROR_TIMEOUT ? "the browser stopped taking commands" : kBrowserGone;
    return false;
  }
  return true;
}

bool ChromiumBrowser::Call(std::string_view method, bool inTab, const Fill& fill, DWORD timeoutMs,
                           rapidjson::Document& reply, std::string& error) {
  int id = 0;
  if (!Send(method, inTab, fill, &id, error)) return false;
  awaitedId_ = id;
  awaitedArrived_ = false;
  const bool answered = PumpUntil([this] { return awaitedArrived_; }, timeoutMs, error);
  awaitedId_ = 0;
  if (!answered) {
    if (error.empty()) {
      error = "the browser did not answer " + std::string(method) + " within " +
              std::to_string(timeoutMs / 1000) + " seconds";
    }
    return false;
  }
  const auto failure = awaitedReply_.FindMember("error");
  if (failure != awaitedReply_.MemberEnd()) {
    error = "the browser refused " + std::string(method) + ": " +
            StringMember(failure->value, "message");
    return false;
  }
  const auto result = awaitedReply_.FindMember("result");
  reply.SetObject();
  if (result != awaitedReply_.MemberEnd()) reply.CopyFrom(result->value, reply.GetAllocator());
  return true;
}

bool ChromiumBrowser::PumpUntil(const std::function<bool()>& done, DWORD timeoutMs,
                                std::string& error) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  for (;;) {
    // Whole messages first: one read can bring several.
    for (;;) {
      const std::size_t end = inbox_.find('\0', scanned_);
      if (end == std::string::npos) {
        scanned_ = inbox_.size();
        break;
      }
      rapidjson::Document message;
      message.Parse(inbox_.data(), end);
      inbox_.erase(0, end + 1);
      scanned_ = 0;
      if (!message.HasParseError() && message.IsObject()) Dispatch(message);
      if (gone_) {
        error = kBrowserGone;
        return false;
      }
    }
    if (done()) return true;
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left <= 0) {
      error.clear();
      return false;
    }
    if (!process_.ReadFromChild(inbox_, static_cast<DWORD>(left))) {
      if (platform::GetLastError() == ERROR_TIMEOUT) continue;
      MarkGone();
      error = kBrowserGone;
      return false;
    }
  }
}

void ChromiumBrowser::Dispatch(rapidjson::Document& message) {
  const auto idMember = message.FindMember("id");
  if (idMember != message.MemberEnd()) {
    if (idMember->value.IsInt() && idMember->value.GetInt() == awaitedId_ && awaitedId_ != 0) {
      awaitedReply_.Swap(message);
      awaitedArrived_ = true;
    }
    // Replies to what was sent without waiting (answers to paused requests) need nothing.
    return;
  }
  const std::string method = StringMember(message, "method");
  const std::string session = StringMember(message, "sessionId");
  const auto paramsMember = message.FindMember("params");
  if (paramsMember == message.MemberEnd()) return;
  const rapidjson::Value& params = paramsMember->value;
  if (session.empty() || session != sessionId_) {
    if (method == "Target.detachedFromTarget" && StringMember(params, "sessionId") == sessionId_) {
      sessionId_.clear();
      targetId_.clear();
    }
    return;
  }
  if (method == "Fetch.requestPaused") {
    AnswerPausedRequest(params);
  } else if (method == "Page.lifecycleEvent") {
    if (StringMember(params, "name") == "load") {
      loadedLoaders_.push_back(StringMember(params, "loaderId"));
    }
  } else if (method == "Page.loadEventFired") {
    loadEventSeen_ = true;
  } else if (method == "Inspector.targetCrashed" || method == "Inspector.detached") {
    DropTab();
  }
}

void ChromiumBrowser::AnswerPausedRequest(const rapidjson::Value& params) {
  const std::string requestId = StringMember(params, "requestId");
  std::string url;
  const auto request = params.FindMember("request");
  if (request != params.MemberEnd()) url = StringMember(request->value, "url");
  const bool allowed = UrlAllowed(url);
  int id = 0;
  std::string ignored;
  (void)Send(
      allowed ? "Fetch.continueRequest" : "Fetch.failRequest", true,
      [&](JsonWriter& w) {
        w.Key("requestId");
        w.String(requestId.c_str(), static_cast<rapidjson::SizeType>(requestId.size()));
        if (!allowed) {
          w.Key("errorReason");
          w.String("BlockedByClient");
        }
      },
      &id, ignored);
}

bool ChromiumBrowser::UrlAllowed(std::string_view url) const {
  // Inline images written into the page travel with it and reach nothing outside.
  if (url.rfind("data:", 0) == 0) return true;
  const std::optional<std::string> path = LocalPathOfUrl(url);
  if (!path) return false;
  if (!extraAllowedPath_.empty() && *path == extraAllowedPath_) return true;
  return !allowedPrefix_.empty() && path->rfind(allowedPrefix_, 0) == 0 &&
         path->size() > allowedPrefix_.size();
}

bool ChromiumBrowser::Render(const std::string& pagePath, const PrintRequest& request,
                             std::string& pdf, std::string& error) {
  if (gone_) {
    error = kBrowserGone;
    return false;
  }
  if (sessionId_.empty() && !OpenTab(error)) return false;

  const double printableWidth =
      std::max(1.0, (request.paperWidth - request.marginLeft - request.marginRight) * 96.0 / 72.0);
  const std::uint32_t viewportWidth = request.viewportWidth > 0
                                          ? request.viewportWidth
                                          : static_cast<std::uint32_t>(printableWidth);
  const std::uint32_t viewportHeight = request.viewportHeight > 0 ? request.viewportHeight : 1;
  const double scale = std::clamp(printableWidth / viewportWidth, kMinScale, kMaxScale);

  rapidjson::Document reply;
  if (!Call(
          "Emulation.setDeviceMetricsOverride", true,
          [&](JsonWriter& w) {
            w.Key("width");
            w.Uint(viewportWidth);
            w.Key("height");
            w.Uint(viewportHeight);
            w.Key("deviceScaleFactor");
            w.Int(1);
            w.Key("mobile");
            w.Bool(false);
          },
          kCommandTimeoutMs, reply, error)) {
    return false;
  }

  const std::string url = FileUrl(pagePath);
  // The load can be reported before the navigation's reply names its loader, so every load
  // seen from here on is kept and matched afterwards.
  loadedLoaders_.clear();
  loadEventSeen_ = false;
  if (!Call(
          "Page.navigate", true,
          [&](JsonWriter& w) {
            w.Key("url");
            w.String(url.c_str(), static_cast<rapidjson::SizeType>(url.size()));
          },
          kCommandTimeoutMs, reply, error)) {
    return false;
  }
  const std::string errorText = StringMember(reply, "errorText");
  if (!errorText.empty()) {
    error = PageOpenError(pagePath, errorText);
    return false;
  }
  awaitedLoader_ = StringMember(reply, "loaderId");
  const auto loaded = [this] {
    // Without a loader (a navigation within the same document) any load event will do.
    if (awaitedLoader_.empty()) return loadEventSeen_;
    return std::find(loadedLoaders_.begin(), loadedLoaders_.end(), awaitedLoader_) !=
           loadedLoaders_.end();
  };
  if (!PumpUntil(loaded, kLoadTimeoutMs, error) && !error.empty()) {
    return false;  // the browser went; a page that merely loads slowly is printed as it stands
  }
  if (sessionId_.empty()) {
    error = "the browser's tab broke down while loading the page " + pagePath;
    return false;
  }
  // The delay is for late layout (fonts, images); requests during it still need answers.
  if (request.loadDelayMs > 0 && !PumpUntil([] { return false; }, request.loadDelayMs, error) &&
      !error.empty()) {
    return false;
  }

  const double inch = 72.0;
  if (!Call(
          "Page.printToPDF", true,
          [&](JsonWriter& w) {
            w.Key("landscape");
            w.Bool(false);
            w.Key("displayHeaderFooter");
            w.Bool(false);
            w.Key("printBackground");
            w.Bool(request.backgrounds);
            w.Key("scale");
            w.Double(scale);
            w.Key("paperWidth");
            w.Double(request.paperWidth / inch);
            w.Key("paperHeight");
            w.Double(request.paperHeight / inch);
            w.Key("marginTop");
            w.Double(request.marginTop / inch);
            w.Key("marginBottom");
            w.Double(request.marginBottom / inch);
            w.Key("marginLeft");
            w.Double(request.marginLeft / inch);
            w.Key("marginRight");
            w.Double(request.marginRight / inch);
            w.Key("preferCSSPageSize");
            w.Bool(false);
          },
          kPrintTimeoutMs, reply, error)) {
    if (!gone_ && error.find("did not answer") != std::string::npos) DropTab();
    return false;
  }
  const auto data = reply.FindMember("data");
  if (data == reply.MemberEnd() || !data->value.IsString()) {
    error = "the browser returned no PDF for " + pagePath;
    return false;
  }
  std::string bytes;
  if (!DecodeBase64(std::string_view(data->value.GetString(), data->value.GetStringLength()),
                    Base64Input::kStrict, bytes) ||
      bytes.rfind("%PDF-", 0) != 0) {
    error = "the browser returned a damaged PDF for " + pagePath;
    return false;
  }
  pdf = std::move(bytes);
  return true;
}

bool ChromiumBrowser::PrintToPdf(const PrintRequest& request, std::string& pdf,
                                 std::string& error) {
  error.clear();
  try {
    return Render(request.pagePath, request, pdf, error);
  } catch (const std::exception& e) {
    error = std::string("the page could not be printed: ") + e.what();
    return false;
  }
}

bool ChromiumBrowser::PrintHtmlToPdf(std::string_view html, const PrintRequest& paper,
                                     std::string& pdf, std::string& error) {
  error.clear();
  if (gone_) {
    error = kBrowserGone;
    return false;
  }
  try {
    // A file in the private folder rather than a data: URL: the page may then name files of its
    // own folder, and the same request fence applies to it as to every other page.
    const std::string path =
        platform::Utf16ToUtf8(profile_) + "/page-" + std::to_string(++coverCount_) + ".html";
    {
      std::ofstream out(path, std::ios::binary | std::ios::trunc);
      out.write(html.data(), static_cast<std::streamsize>(html.size()));
      if (!out) {
        error = "cannot write the page to print into " + path;
        return false;
      }
    }
    PrintRequest request = paper;
    request.pagePath = path;
    request.viewportWidth = 0;  // the paper's printable width: scale 1
    extraAllowedPath_ = path;
    const bool printed = Render(path, request, pdf, error);
    extraAllowedPath_.clear();
    (void)std::remove(path.c_str());
    return printed;
  } catch (const std::exception& e) {
    extraAllowedPath_.clear();
    error = std::string("the page could not be printed: ") + e.what();
    return false;
  }
}

}  // namespace

std::unique_ptr<Browser> Browser::Start(const BrowserOptions& options, std::string& error) {
  error.clear();
  try {
    auto browser = std::make_unique<ChromiumBrowser>();
    if (!browser->Launch(options, error)) return nullptr;
    return browser;
  } catch (const std::exception& e) {
    error = std::string("the browser could not be started: ") + e.what();
    return nullptr;
  }
}

}  // namespace mrwl::converter
