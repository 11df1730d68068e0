// The console file dialog of the host, and shell items over file system paths.
//
// A question is answered by a queued answer, on a terminal, or cancelled; see
// platform/file_dialog.h. The terminal conversation runs through AskOnTerminal, which works on
// any pair of streams; the dialog functions hand it standard input and standard error.
#include "platform/file_dialog.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

#include "platform/posix/gtk_dialogs.h"
#include "platform/posix/posix_util.h"

namespace mrwl::platform {
namespace {

thread_local DWORD lastDialogError = 0;

// ---------------------------------------------------------------------------------------------
// Queued answers

struct Answer {
  bool cancel = false;
  std::u16string paths;
};

struct AnswerQueue {
  std::mutex lock;
  std::deque<Answer> answers;
  std::u16string standingFolder;  // empty: no standing answer
  bool standingReplace = false;
  std::u16string standingNameForEmpty;
  std::set<std::u16string> standingGiven;  // the paths the standing answer has given
};

AnswerQueue& Answers() noexcept {
  static AnswerQueue* queue = new AnswerQueue();  // never destroyed: read until the very end
  return *queue;
}

std::optional<Answer> TakeAnswer() {
  AnswerQueue& queue = Answers();
  const std::lock_guard<std::mutex> guard(queue.lock);
  if (queue.answers.empty()) return std::nullopt;
  Answer answer = std::move(queue.answers.front());
  queue.answers.pop_front();
  return answer;
}

BOOL Enqueue(Answer answer) noexcept {
  try {
    AnswerQueue& queue = Answers();
    const std::lock_guard<std::mutex> guard(queue.lock);
    queue.answers.push_back(std::move(answer));
    return TRUE;
  } catch (...) {
    return FALSE;
  }
}

// ---------------------------------------------------------------------------------------------
// Paths

bool IsAbsolute(std::u16string_view path) { return !path.empty() && path.front() == u'/'; }

std::u16string CurrentFolder() {
  std::vector<char> buffer(4096);
  while (getcwd(buffer.data(), buffer.size()) == nullptr) {
    if (errno != ERANGE) return u"/";
    buffer.resize(buffer.size() * 2);
  }
  return posix::FromUtf8(buffer.data());
}

std::u16string Join(std::u16string folder, std::u16string_view name) {
  while (folder.size() > 1 && folder.back() == u'/') folder.pop_back();
  if (folder.empty() || folder.back() != u'/') folder += u'/';
  folder += name;
  return folder;
}

// The folder that relative names are taken from: the initial folder, itself taken from the
// current folder when relative, or the current folder.
std::u16string BaseFolder(const OpenFileNameW& question) {
  const std::u16string current = CurrentFolder();
  if (question.lpstrInitialDir == nullptr || *question.lpstrInitialDir == 0) return current;
  const std::u16string_view initial(question.lpstrInitialDir);
  return IsAbsolute(initial) ? std::u16string(initial) : Join(current, initial);
}

std::size_t NameOffset(std::u16string_view path) {
  const std::size_t slash = path.rfind(u'/');
  return slash == std::u16string_view::npos ? 0 : slash + 1;
}

// The offset of the extension behind the name's last point, or npos for a name without one.
std::size_t ExtensionOffset(std::u16string_view path) {
  const std::size_t point = path.rfind(u'.');
  if (point == std::u16string_view::npos || point < NameOffset(path)) return path.npos;
  return point + 1;
}

enum class Kind { kMissing, kFile, kFolder };

Kind KindOf(std::u16string_view path) {
  struct stat info {};
  if (stat(posix::ToUtf8(path).c_str(), &info) != 0) return Kind::kMissing;
  return S_ISDIR(info.st_mode) ? Kind::kFolder : Kind::kFile;
}

std::u16string ParentOf(std::u16string_view path) {
  const std::size_t offset = NameOffset(path);
  if (offset <= 1) return u"/";
  return std::u16string(path.substr(0, offset - 1));
}

// ---------------------------------------------------------------------------------------------
// One question

class Question {
 public:
  Question(OpenFileNameW& ofn, bool save)
      : ofn_(ofn), save_(save), base_(BaseFolder(ofn)), proposed_(ReadProposed(ofn)) {}

  bool Save() const { return save_; }
  bool MultiSelect() const { return !save_ && (ofn_.Flags & OFN_ALLOWMULTISELECT) != 0; }
  const std::u16string& Proposed() const { return proposed_; }

  std::u16string Label() const {
    if (ofn_.lpstrTitle != nullptr && *ofn_.lpstrTitle != 0) return ofn_.lpstrTitle;
    return save_ ? u"Save As" : u"Open";
  }

  // The full path that `name` stands for: the proposed name when empty, taken from the base
  // folder when relative, with the default extension when the name has none. Empty when there
  // is neither a name nor a proposal.
  std::u16string Resolve(std::u16string_view name) const {
    if (name.empty()) name = proposed_;
    if (name.empty()) return {};
    std::u16string path = IsAbsolute(name) ? std::u16string(name) : Join(base_, name);
    if (ofn_.lpstrDefExt != nullptr && *ofn_.lpstrDefExt != 0 &&
        ExtensionOffset(path) == path.npos) {
      path += u'.';
      path += ofn_.lpstrDefExt;
    }
    return path;
  }

  bool Has(DWORD flag) const { return (ofn_.Flags & flag) != 0; }

  // Writes the chosen paths into the question's buffers. TRUE, or FALSE with the dialog error.
  BOOL Deliver(const std::vector<std::u16string>& paths) {
    std::u16string text;
    std::size_t nameOffset = 0;
    std::size_t extensionOffset = 0;
    if (MultiSelect() && paths.size() > 1) {
      const std::u16string folder = CommonFolder(paths);
      text = folder;
      text += u'\0';
      for (const std::u16string& path : paths) {
        text += std::u16string_view(path).substr(folder.size() == 1 ? 1 : folder.size() + 1);
        text += u'\0';
      }
      text += u'\0';
      nameOffset = folder.size() + 1;
    } else {
      const std::u16string& path = paths.front();
      text = path;
      nameOffset = NameOffset(path);
      extensionOffset = ExtensionOffset(path);
      if (extensionOffset == path.npos) extensionOffset = path.size();
      text += u'\0';
      if (MultiSelect()) text += u'\0';
    }
    if (text.size() > ofn_.nMaxFile) {
      // The size needed goes into the buffer's first unit, as the system's dialog does it.
      ofn_.lpstrFile[0] = static_cast<char16_t>(text.size() > 0xFFFF ? 0xFFFF : text.size());
      lastDialogError = FNERR_BUFFERTOOSMALL;
      return FALSE;
    }
    text.copy(ofn_.lpstrFile, text.size());
    ofn_.nFileOffset = static_cast<WORD>(nameOffset);
    ofn_.nFileExtension = static_cast<WORD>(extensionOffset);
    if (ofn_.lpstrFileTitle != nullptr && ofn_.nMaxFileTitle > 0 && paths.size() == 1) {
      const std::u16string_view name = std::u16string_view(paths.front()).substr(nameOffset);
      if (name.size() < ofn_.nMaxFileTitle) {
        name.copy(ofn_.lpstrFileTitle, name.size());
        ofn_.lpstrFileTitle[name.size()] = 0;
      }
    }
    return TRUE;
  }

 private:
  static std::u16string ReadProposed(const OpenFileNameW& ofn) {
    std::size_t length = 0;
    while (length < ofn.nMaxFile && ofn.lpstrFile[length] != 0) ++length;
    return std::u16string(ofn.lpstrFile, length);
  }

  // The deepest folder that holds all paths, without its final separator except for the root.
  static std::u16string CommonFolder(const std::vector<std::u16string>& paths) {
    std::u16string folder = ParentOf(paths.front());
    for (const std::u16string& path : paths) {
      while (folder != u"/" && !(path.size() > folder.size() && path.starts_with(folder) &&
                                 path[folder.size()] == u'/')) {
        folder = ParentOf(folder);
      }
    }
    return folder;
  }

  OpenFileNameW& ofn_;
  bool save_;
  std::u16string base_;
  std::u16string proposed_;
};

// The names of one line typed on the terminal: one name, or for multiple selection several
// names each in double quotes, as the system's name box takes them.
std::vector<std::u16string> SplitTyped(const std::u16string& line, bool multiSelect) {
  if (!multiSelect || line.find(u'"') == line.npos) return {line};
  std::vector<std::u16string> names;
  std::size_t at = 0;
  while ((at = line.find(u'"', at)) != line.npos) {
    const std::size_t end = line.find(u'"', at + 1);
    if (end == line.npos) break;
    if (end > at + 1) names.push_back(line.substr(at + 1, end - at - 1));
    at = end + 1;
  }
  return names;
}

std::optional<std::u16string> ReadLine(std::FILE* in) {
  std::string line;
  for (;;) {
    const int c = std::fgetc(in);
    if (c == EOF) {
      if (line.empty()) return std::nullopt;
      break;
    }
    if (c == '\n') break;
    line += static_cast<char>(c);
  }
  if (!line.empty() && line.back() == '\r') line.pop_back();
  return posix::FromUtf8(line);
}

void Say(std::FILE* out, const std::u16string& text) {
  const std::string bytes = posix::ToUtf8(text);
  std::fwrite(bytes.data(), 1, bytes.size(), out);
  std::fflush(out);
}

bool IsYes(const std::u16string& reply) {
  return reply == u"y" || reply == u"Y" || reply == u"yes" || reply == u"Yes" || reply == u"YES";
}

// Asks on the terminal until the user names acceptable files (true, paths filled) or ends the
// input (false: a cancel).
bool AskOnTerminal(const Question& question, std::FILE* in, std::FILE* out,
                   std::vector<std::u16string>* paths) {
  for (;;) {
    std::u16string prompt = question.Label();
    if (!question.Proposed().empty()) prompt += u" [" + question.Proposed() + u"]";
    prompt += u": ";
    Say(out, prompt);
    const std::optional<std::u16string> line = ReadLine(in);
    if (!line) {
      Say(out, u"\n");
      return false;
    }
    paths->clear();
    bool acceptable = true;
    for (const std::u16string& name : SplitTyped(*line, question.MultiSelect())) {
      std::u16string path = question.Resolve(name);
      if (path.empty()) {
        acceptable = false;
        break;
      }
      const Kind kind = KindOf(path);
      if (kind == Kind::kFolder) {
        Say(out, path + u" is a folder.\nType the name of a file.\n");
        acceptable = false;
      } else if (!question.Save() && question.Has(OFN_FILEMUSTEXIST) && kind == Kind::kMissing) {
        Say(out, path + u"\nFile not found.\nCheck the file name and try again.\n");
        acceptable = false;
      } else if (question.Save() && question.Has(OFN_PATHMUSTEXIST) &&
                 KindOf(ParentOf(path)) != Kind::kFolder) {
        Say(out, path + u"\nPath does not exist.\nCheck the path and try again.\n");
        acceptable = false;
      } else if (question.Save() && question.Has(OFN_OVERWRITEPROMPT) && kind == Kind::kFile) {
        Say(out, path + u" already exists.\nDo you want to replace it? (y/n) ");
        const std::optional<std::u16string> reply = ReadLine(in);
        if (!reply) {
          Say(out, u"\n");
          return false;
        }
        acceptable = IsYes(*reply);
      }
      if (!acceptable) break;
      paths->push_back(std::move(path));
    }
    if (acceptable && !paths->empty()) return true;
  }
}

std::vector<std::u16string> SplitAnswer(std::u16string_view paths) {
  std::vector<std::u16string> parts;
  std::size_t at = 0;
  for (;;) {
    const std::size_t end = paths.find(u'\0', at);
    const std::u16string_view part = paths.substr(at, end == paths.npos ? paths.npos : end - at);
    if (!part.empty() || parts.empty()) parts.emplace_back(part);
    if (end == paths.npos) break;
    at = end + 1;
  }
  return parts;
}

struct StandingAnswer {
  std::u16string folder;
  bool replace = false;
  std::u16string nameForEmpty;
};

std::optional<StandingAnswer> TakeStandingAnswer() {
  AnswerQueue& queue = Answers();
  const std::lock_guard<std::mutex> guard(queue.lock);
  if (queue.standingFolder.empty()) return std::nullopt;
  return StandingAnswer{queue.standingFolder, queue.standingReplace, queue.standingNameForEmpty};
}

// Notes `path` as given by the standing answer; false when it was given before.
bool NoteGiven(const std::u16string& path) {
  AnswerQueue& queue = Answers();
  const std::lock_guard<std::mutex> guard(queue.lock);
  return queue.standingGiven.insert(path).second;
}

// Questions are put to the terminal one at a time.
std::mutex& TerminalLock() {
  static std::mutex lock;
  return lock;
}

bool OnTerminal() { return isatty(STDIN_FILENO) == 1 && isatty(STDERR_FILENO) == 1; }

// `path` with " (n)" before its extension.
std::u16string Numbered(const std::u16string& path, int n) {
  std::size_t cut = ExtensionOffset(path);
  cut = cut == path.npos ? path.size() : cut - 1;
  return path.substr(0, cut) + u" (" + posix::FromUtf8(std::to_string(n)) + u")" + path.substr(cut);
}

// Answers a save question with its proposed name in the standing folder. False: refused.
bool AnswerInFolder(const Question& question, const StandingAnswer& standing,
                    std::vector<std::u16string>* paths) {
  const std::u16string& proposed = question.Proposed();
  std::u16string_view name = std::u16string_view(proposed).substr(NameOffset(proposed));
  if (name.empty()) name = standing.nameForEmpty;
  if (name.empty()) return false;
  const std::u16string first = question.Resolve(Join(standing.folder, name));
  if (first.empty()) return false;
  std::u16string path = first;
  for (int n = 2; !NoteGiven(path); ++n) path = Numbered(first, n);
  if (!standing.replace && question.Has(OFN_OVERWRITEPROMPT) && KindOf(path) == Kind::kFile) {
    if (!OnTerminal()) {
      Say(stderr, path + u" already exists.\n");
      return false;
    }
    Say(stderr, path + u" already exists.\nDo you want to replace it? (y/n) ");
    const std::optional<std::u16string> reply = ReadLine(stdin);
    if (!reply || !IsYes(*reply)) return false;
  }
  paths->push_back(std::move(path));
  return true;
}

BOOL AskFileName(OpenFileNameW* ofn, bool save) noexcept {
  lastDialogError = 0;
  if (ofn == nullptr || ofn->lpstrFile == nullptr || ofn->nMaxFile == 0) {
    lastDialogError = CDERR_INITIALIZATION;
    return FALSE;
  }
  if (ofn->lStructSize != sizeof(OpenFileNameW)) {
    lastDialogError = CDERR_STRUCTSIZE;
    return FALSE;
  }
  try {
    Question question(*ofn, save);
    std::vector<std::u16string> paths;
    if (std::optional<Answer> answer = TakeAnswer()) {
      if (answer->cancel) return FALSE;
      for (const std::u16string& name : SplitAnswer(answer->paths)) {
        std::u16string path = question.Resolve(name);
        if (path.empty()) return FALSE;  // nothing typed and nothing proposed: as a cancel
        paths.push_back(std::move(path));
        if (!question.MultiSelect()) break;
      }
    } else if (std::u16string chosen; !save && posix::AskOpenFileOnDesktop(*ofn, &chosen) >= 0) {
      // The desktop's file chooser answered for a dialog of the desktop toolkit.
      if (chosen.empty()) return FALSE;
      for (const std::u16string& name : SplitAnswer(chosen)) {
        paths.push_back(question.Resolve(name));
        if (!question.MultiSelect()) break;
      }
    } else if (std::optional<StandingAnswer> standing =
                   save ? TakeStandingAnswer() : std::nullopt) {
      const std::lock_guard<std::mutex> guard(TerminalLock());
      if (!AnswerInFolder(question, *standing, &paths)) return FALSE;
    } else if (OnTerminal()) {
      const std::lock_guard<std::mutex> guard(TerminalLock());
      if (!AskOnTerminal(question, stdin, stderr, &paths)) return FALSE;
    } else {
      return FALSE;
    }
    return question.Deliver(paths);
  } catch (...) {
    lastDialogError = CDERR_MEMALLOCFAILURE;
    return FALSE;
  }
}

// ---------------------------------------------------------------------------------------------
// Shell items

OLECHAR* TaskMemCopy(std::u16string_view text) noexcept {
  auto* copy = static_cast<OLECHAR*>(CoTaskMemAlloc((text.size() + 1) * sizeof(OLECHAR)));
  if (copy == nullptr) return nullptr;
  text.copy(copy, text.size());
  copy[text.size()] = 0;
  return copy;
}

class ShellItem final : public ComObject<IShellItem> {
 public:
  explicit ShellItem(std::u16string path) : path_(std::move(path)) {}

  HRESULT STDMETHODCALLTYPE BindToHandler(IBindCtx*, REFGUID, REFIID, void** object) override {
    if (object != nullptr) *object = nullptr;
    return E_NOTIMPL;
  }

  HRESULT STDMETHODCALLTYPE GetParent(IShellItem** parent) override {
    if (parent == nullptr) return E_POINTER;
    *parent = nullptr;
    if (path_ == u"/") return E_FAIL;  // the root has no parent
    try {
      ComPtr<ShellItem> item = MakeComObject<ShellItem>(ParentOf(path_));
      *parent = item.Detach();
      return S_OK;
    } catch (...) {
      return E_OUTOFMEMORY;
    }
  }

  HRESULT STDMETHODCALLTYPE GetDisplayName(SIGDN form, OLECHAR** name) override {
    if (name == nullptr) return E_POINTER;
    *name = nullptr;
    std::u16string_view text;
    switch (form) {
      case SIGDN_FILESYSPATH:
      case SIGDN_DESKTOPABSOLUTEPARSING:
      case SIGDN_DESKTOPABSOLUTEEDITING:
        text = path_;
        break;
      case SIGDN_NORMALDISPLAY:
      case SIGDN_PARENTRELATIVEPARSING:
      case SIGDN_PARENTRELATIVEEDITING:
      case SIGDN_PARENTRELATIVEFORADDRESSBAR:
      case SIGDN_PARENTRELATIVE:
      case SIGDN_PARENTRELATIVEFORUI:
        text = path_ == u"/" ? std::u16string_view(path_)
                             : std::u16string_view(path_).substr(NameOffset(path_));
        break;
      default:
        return E_INVALIDARG;
    }
    *name = TaskMemCopy(text);
    return *name != nullptr ? S_OK : E_OUTOFMEMORY;
  }

  HRESULT STDMETHODCALLTYPE GetAttributes(SFGAOF mask, SFGAOF* attributes) override {
    if (attributes == nullptr) return E_POINTER;
    SFGAOF found = SFGAO_FILESYSTEM;
    try {
      if (KindOf(path_) == Kind::kFolder) found |= SFGAO_FOLDER;
    } catch (...) {
      return E_OUTOFMEMORY;
    }
    *attributes = found & mask;
    return *attributes == mask ? S_OK : S_FALSE;
  }

  HRESULT STDMETHODCALLTYPE Compare(IShellItem* other, SICHINTF, int* order) override {
    if (other == nullptr || order == nullptr) return E_INVALIDARG;
    OLECHAR* otherPath = nullptr;
    const HRESULT named = other->GetDisplayName(SIGDN_FILESYSPATH, &otherPath);
    if (FAILED(named)) return named;
    const int compared = std::u16string_view(path_).compare(otherPath);
    CoTaskMemFree(otherPath);
    *order = compared < 0 ? -1 : (compared > 0 ? 1 : 0);
    return compared == 0 ? S_OK : S_FALSE;
  }

 private:
  std::u16string path_;
};

}  // namespace

BOOL GetSaveFileNameW(OpenFileNameW* question) noexcept { return AskFileName(question, true); }

BOOL GetOpenFileNameW(OpenFileNameW* question) noexcept { return AskFileName(question, false); }

DWORD CommDlgExtendedError() noexcept { return lastDialogError; }

HRESULT SHCreateItemFromParsingName(const char16_t* path, IBindCtx*, REFIID iid,
                                    void** item) noexcept {
  if (item == nullptr) return E_POINTER;
  *item = nullptr;
  if (path == nullptr || *path == 0) return E_INVALIDARG;
  try {
    std::u16string full = IsAbsolute(path) ? std::u16string(path) : Join(CurrentFolder(), path);
    while (full.size() > 1 && full.back() == u'/') full.pop_back();
    struct stat info {};
    if (stat(posix::ToUtf8(full).c_str(), &info) != 0) {
      return HRESULT_FROM_WIN32(posix::WinErrorFromErrno(errno));
    }
    ComPtr<ShellItem> shellItem = MakeComObject<ShellItem>(std::move(full));
    return shellItem->QueryInterface(iid, item);
  } catch (...) {
    return E_OUTOFMEMORY;
  }
}

BOOL QueueFileDialogAnswer(std::u16string_view paths) noexcept {
  try {
    return Enqueue(Answer{false, std::u16string(paths)});
  } catch (...) {
    return FALSE;
  }
}

BOOL QueueFileDialogCancel() noexcept { return Enqueue(Answer{true, {}}); }

void ClearFileDialogAnswers() noexcept {
  AnswerQueue& queue = Answers();
  const std::lock_guard<std::mutex> guard(queue.lock);
  queue.answers.clear();
}

BOOL SetFileDialogFolderAnswer(std::u16string_view folder, BOOL replaceExisting,
                               std::u16string_view nameForEmpty) noexcept {
  try {
    AnswerQueue& queue = Answers();
    const std::lock_guard<std::mutex> guard(queue.lock);
    queue.standingFolder.assign(folder);
    queue.standingReplace = replaceExisting != FALSE;
    queue.standingNameForEmpty.assign(nameForEmpty);
    queue.standingGiven.clear();
    return TRUE;
  } catch (...) {
    return FALSE;
  }
}

DWORD PendingFileDialogAnswers() noexcept {
  AnswerQueue& queue = Answers();
  const std::lock_guard<std::mutex> guard(queue.lock);
  return static_cast<DWORD>(queue.answers.size());
}

}  // namespace mrwl::platform
