// Tests of the file dialog. The shell variant runs against a scripted dialog object registered
// as the system's save and open dialog classes, which records the calls it gets and fails where
// told; the classic variant runs against the console dialog with answers queued in advance.
#include "settings/file_dialog.h"

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/com_object.h"
#include "platform/com_ptr.h"
#include "platform/file_dialog.h"
#include "platform/utf.h"
#include "testing/temp_folder.h"

namespace mrwl {
namespace {

using namespace std::string_literals;
using platform::Utf16ToUtf8;
using platform::Utf8ToUtf16;

std::string Narrow(const OLECHAR* text) {
  return text == nullptr ? "(null)" : Utf16ToUtf8(U16Text(text));
}

OLECHAR* TaskCopy(const std::u16string& text) {
  auto* copy = static_cast<OLECHAR*>(CoTaskMemAlloc((text.size() + 1) * sizeof(OLECHAR)));
  text.copy(copy, text.size());
  copy[text.size()] = 0;
  return copy;
}

class FakeItem final : public ComObject<IShellItem> {
 public:
  explicit FakeItem(std::u16string path) : path_(std::move(path)) {}
  HRESULT STDMETHODCALLTYPE BindToHandler(IBindCtx*, REFGUID, REFIID, void**) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE GetParent(IShellItem**) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetDisplayName(SIGDN form, OLECHAR** name) override {
    if (form != SIGDN_FILESYSPATH) return E_INVALIDARG;
    *name = TaskCopy(path_);
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetAttributes(SFGAOF, SFGAOF*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE Compare(IShellItem*, SICHINTF, int*) override { return E_NOTIMPL; }

 private:
  std::u16string path_;
};

class FakeItems final : public ComObject<IShellItemArray> {
 public:
  explicit FakeItems(std::vector<std::u16string> paths) : paths_(std::move(paths)) {}
  HRESULT STDMETHODCALLTYPE BindToHandler(IBindCtx*, REFGUID, REFIID, void**) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE GetPropertyStore(GETPROPERTYSTOREFLAGS, REFIID, void**) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE GetPropertyDescriptionList(REFPROPERTYKEY, REFIID, void**) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE GetAttributes(SIATTRIBFLAGS, SFGAOF, SFGAOF*) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE GetCount(DWORD* count) override {
    *count = static_cast<DWORD>(paths_.size());
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetItemAt(DWORD index, IShellItem** item) override {
    if (index >= paths_.size()) return E_INVALIDARG;
    *item = MakeComObject<FakeItem>(paths_[index]).Detach();
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE EnumItems(IEnumShellItems**) override { return E_NOTIMPL; }

 private:
  std::vector<std::u16string> paths_;
};

// The scripted shell dialog: records each call as text, fails the call named in failOn, and
// answers Show with showResult after telling its event sink of a selection change.
class FakeDialog final : public ComObject<IFileOpenDialog, IFileDialogCustomize> {
 public:
  std::vector<std::string> calls;
  std::string failOn;
  HRESULT showResult = S_OK;
  UINT typeIndexShown = 0;  // what GetFileTypeIndex reports after Show; 0 keeps the set one
  std::vector<std::u16string> chosen;

  // IModalWindow
  HRESULT STDMETHODCALLTYPE Show(HWND) override {
    const HRESULT noted = Note("Show");
    if (FAILED(noted)) return noted;
    if (events_) (void)events_->OnSelectionChange(this);
    if (typeIndexShown != 0) typeIndex_ = typeIndexShown;
    return showResult;
  }
  // IFileDialog
  HRESULT STDMETHODCALLTYPE SetFileTypes(UINT count, const COMDLG_FILTERSPEC* specs) override {
    std::string text;
    for (UINT i = 0; i < count; ++i) {
      text += (i > 0 ? ";" : "") + Narrow(specs[i].pszName) + "=" + Narrow(specs[i].pszSpec);
    }
    return Note("SetFileTypes(" + text + ")");
  }
  HRESULT STDMETHODCALLTYPE SetFileTypeIndex(UINT index) override {
    typeIndex_ = index;
    return Note("SetFileTypeIndex(" + std::to_string(index) + ")");
  }
  HRESULT STDMETHODCALLTYPE GetFileTypeIndex(UINT* index) override {
    *index = typeIndex_;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE Advise(IFileDialogEvents* events, DWORD* cookie) override {
    events_ = ComPtr<IFileDialogEvents>(events);
    *cookie = 7;
    return Note("Advise");
  }
  HRESULT STDMETHODCALLTYPE Unadvise(DWORD cookie) override {
    events_ = nullptr;
    return Note("Unadvise(" + std::to_string(cookie) + ")");
  }
  HRESULT STDMETHODCALLTYPE SetOptions(FILEOPENDIALOGOPTIONS options) override {
    char text[32];
    std::snprintf(text, sizeof text, "SetOptions(0x%X)", static_cast<unsigned>(options));
    return Note(text);
  }
  HRESULT STDMETHODCALLTYPE GetOptions(FILEOPENDIALOGOPTIONS*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE SetDefaultFolder(IShellItem*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE SetFolder(IShellItem* folder) override {
    OLECHAR* path = nullptr;
    if (FAILED(folder->GetDisplayName(SIGDN_FILESYSPATH, &path))) return E_FAIL;
    const std::string text = Narrow(path);
    CoTaskMemFree(path);
    return Note("SetFolder(" + text + ")");
  }
  HRESULT STDMETHODCALLTYPE GetFolder(IShellItem**) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetCurrentSelection(IShellItem**) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE SetFileName(const OLECHAR* name) override {
    return Note("SetFileName(" + Narrow(name) + ")");
  }
  HRESULT STDMETHODCALLTYPE GetFileName(OLECHAR**) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE SetTitle(const OLECHAR* title) override {
    return Note("SetTitle(" + Narrow(title) + ")");
  }
  HRESULT STDMETHODCALLTYPE SetOkButtonLabel(const OLECHAR* text) override {
    return Note("SetOkButtonLabel(" + Narrow(text) + ")");
  }
  HRESULT STDMETHODCALLTYPE SetFileNameLabel(const OLECHAR* label) override {
    return Note("SetFileNameLabel(" + Narrow(label) + ")");
  }
  HRESULT STDMETHODCALLTYPE GetResult(IShellItem** item) override {
    if (chosen.empty()) return E_UNEXPECTED;
    *item = MakeComObject<FakeItem>(chosen.front()).Detach();
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE AddPlace(IShellItem*, FDAP) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE SetDefaultExtension(const OLECHAR* extension) override {
    return Note("SetDefaultExtension(" + Narrow(extension) + ")");
  }
  HRESULT STDMETHODCALLTYPE Close(HRESULT) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE SetClientGuid(REFGUID) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE ClearClientData() override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE SetFilter(IShellItemFilter*) override { return E_NOTIMPL; }
  // IFileOpenDialog
  HRESULT STDMETHODCALLTYPE GetResults(IShellItemArray** items) override {
    *items = MakeComObject<FakeItems>(chosen).Detach();
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetSelectedItems(IShellItemArray** items) override {
    return GetResults(items);
  }
  // IFileDialogCustomize
  HRESULT STDMETHODCALLTYPE EnableOpenDropDown(DWORD) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE AddMenu(DWORD, const OLECHAR*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE AddPushButton(DWORD id, const OLECHAR* label) override {
    return Note("AddPushButton(" + std::to_string(id) + "," + Narrow(label) + ")");
  }
  HRESULT STDMETHODCALLTYPE AddComboBox(DWORD) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE AddRadioButtonList(DWORD) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE AddCheckButton(DWORD id, const OLECHAR* label, BOOL checked) override {
    return Note("AddCheckButton(" + std::to_string(id) + "," + Narrow(label) + "," +
                std::to_string(checked) + ")");
  }
  HRESULT STDMETHODCALLTYPE AddEditBox(DWORD, const OLECHAR*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE AddSeparator(DWORD) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE AddText(DWORD id, const OLECHAR* text) override {
    return Note("AddText(" + std::to_string(id) + "," + Narrow(text) + ")");
  }
  HRESULT STDMETHODCALLTYPE SetControlLabel(DWORD, const OLECHAR*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetControlState(DWORD, CDCONTROLSTATEF*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE SetControlState(DWORD id, CDCONTROLSTATEF state) override {
    return Note("SetControlState(" + std::to_string(id) + "," + std::to_string(state) + ")");
  }
  HRESULT STDMETHODCALLTYPE GetEditBoxText(DWORD, OLECHAR**) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE SetEditBoxText(DWORD, const OLECHAR*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetCheckButtonState(DWORD, BOOL*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE SetCheckButtonState(DWORD, BOOL) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE AddControlItem(DWORD, DWORD, const OLECHAR*) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE RemoveControlItem(DWORD, DWORD) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE RemoveAllControlItems(DWORD) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetControlItemState(DWORD, DWORD, CDCONTROLSTATEF*) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE SetControlItemState(DWORD, DWORD, CDCONTROLSTATEF) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE GetSelectedControlItem(DWORD, DWORD*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE SetSelectedControlItem(DWORD, DWORD) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE StartVisualGroup(DWORD, const OLECHAR*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE EndVisualGroup() override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE MakeProminent(DWORD id) override {
    return Note("MakeProminent(" + std::to_string(id) + ")");
  }
  HRESULT STDMETHODCALLTYPE SetControlItemText(DWORD, DWORD, const OLECHAR*) override {
    return E_NOTIMPL;
  }

  // The calls whose text starts with `prefix`.
  std::vector<std::string> CallsOf(const std::string& prefix) const {
    std::vector<std::string> found;
    for (const std::string& call : calls) {
      if (call.rfind(prefix, 0) == 0) found.push_back(call);
    }
    return found;
  }

 protected:
  void* FindInterface(REFIID iid) noexcept override {
    if (IsEqualIID(iid, IID_IFileDialog) || IsEqualIID(iid, IID_IModalWindow)) {
      return static_cast<IFileDialog*>(static_cast<IFileOpenDialog*>(this));
    }
    return ComObject::FindInterface(iid);
  }

 private:
  HRESULT Note(const std::string& call) {
    calls.push_back(call);
    return call.rfind(failOn, 0) == 0 && !failOn.empty() ? E_FAIL : S_OK;
  }

  UINT typeIndex_ = 0;
  ComPtr<IFileDialogEvents> events_;
};

class DialogFactory final : public ComObject<IClassFactory> {
 public:
  DialogFactory(ComPtr<FakeDialog> dialog, HRESULT failure)
      : dialog_(std::move(dialog)), failure_(failure) {}
  HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown*, REFIID iid, void** object) override {
    if (FAILED(failure_)) return failure_;
    return dialog_->QueryInterface(iid, object);
  }
  HRESULT STDMETHODCALLTYPE LockServer(BOOL) override { return S_OK; }

 private:
  ComPtr<FakeDialog> dialog_;
  HRESULT failure_;
};

// The add-in's own request.
FileDialogRequest PdfRequest(const char16_t* name) {
  FileDialogRequest request;
  request.DefaultExtension = u"pdf";
  request.AppendExtension = 1;
  request.FileName = name;
  request.Filter = u"PDF Documents (*.pdf)|*.pdf";
  request.Options = 0x10042;
  return request;
}

class FileDialogTest : public ::testing::Test {
 protected:
  FileDialogTest() { platform::ClearFileDialogAnswers(); }
  ~FileDialogTest() override {
    Unregister();
    platform::ClearFileDialogAnswers();
  }

  // Makes the scripted dialog the system's save and open dialog; `failure` makes its class
  // object refuse to create it.
  void RegisterFake(HRESULT failure = S_OK) {
    auto factory = MakeComObject<DialogFactory>(fake_, failure);
    for (const CLSID* clsid : {&CLSID_FileSaveDialog, &CLSID_FileOpenDialog}) {
      DWORD cookie = 0;
      ASSERT_EQ(S_OK, CoRegisterClassObject(*clsid, factory->Identity(), CLSCTX_INPROC_SERVER,
                                            REGCLS_MULTIPLEUSE, &cookie));
      cookies_.push_back(cookie);
    }
  }
  void Unregister() {
    for (const DWORD cookie : cookies_) EXPECT_EQ(S_OK, CoRevokeClassObject(cookie));
    cookies_.clear();
  }
  bool Create(const FileDialogRequest& request, bool forceClassic = false) {
    return CreateFileDialog(dialog_, request, forceClassic);
  }
  int Show() { return dialog_->Show(nullptr); }
  std::u16string Only() {
    EXPECT_EQ(1u, dialog_->Results().size());
    return dialog_->Results().empty() ? u"" : std::u16string(dialog_->Results()[0].view());
  }

  ComPtr<FakeDialog> fake_ = MakeComObject<FakeDialog>();
  std::vector<DWORD> cookies_;
  std::unique_ptr<FileDialog> dialog_;
  testing::TempFolder folder_;
};

// ---------------------------------------------------------------------------------------------
// Shell variant

TEST_F(FileDialogTest, ShellSetupCallsTheDialogInOrder) {
  RegisterFake();
  FileDialogRequest request = PdfRequest(u"Q1: Plan");
  const std::u16string folder = folder_.WidePathOf("");
  request.InitialFolder = folder.c_str();
  request.Title = u"Save as PDF";
  ASSERT_TRUE(Create(request));
  const std::vector<std::string> expected = {
      "SetTitle(Save as PDF)",
      "SetFileName(Q1: Plan)",
      "SetOptions(0x10042)",
      "SetDefaultExtension(pdf)",
      "SetFileTypes(PDF Documents (*.pdf)=*.pdf)",
      "SetFolder(" + folder_.path().string() + ")",
      "SetFileTypeIndex(1)",
  };
  EXPECT_EQ(expected, fake_->calls);
}

TEST_F(FileDialogTest, ShellFilterPairsIndexAndExtensionFollowTheRequest) {
  struct Case {
    const char16_t* filter;
    std::uint32_t index;
    const char16_t* extension;
    std::vector<std::string> types;
    std::vector<std::string> typeIndex;
    std::vector<std::string> defaultExtension;
    std::uint32_t kept;
  };
  const Case cases[] = {
      {u"A|*.a|B|*.b",
       1,
       u"*.pdf",
       {"SetFileTypes(A=*.a;B=*.b)"},
       {"SetFileTypeIndex(2)"},
       {"SetDefaultExtension(pdf)"},
       1},
      {u"A|*.a||*.b|C|",
       0,
       u".PDF",
       {"SetFileTypes(A=*.a)"},
       {"SetFileTypeIndex(1)"},
       {"SetDefaultExtension(PDF)"},
       0},
      {u"A|*.a", 3, u"*.", {"SetFileTypes(A=*.a)"}, {}, {}, 0},
      {u"", 0, nullptr, {}, {}, {}, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(Utf16ToUtf8(c.filter));
    fake_->calls.clear();
    RegisterFake();
    FileDialogRequest request;
    request.Filter = c.filter;
    request.FilterIndex = c.index;
    request.DefaultExtension = c.extension;
    ASSERT_TRUE(Create(request));
    EXPECT_EQ(c.types, fake_->CallsOf("SetFileTypes"));
    EXPECT_EQ(c.typeIndex, fake_->CallsOf("SetFileTypeIndex"));
    EXPECT_EQ(c.defaultExtension, fake_->CallsOf("SetDefaultExtension"));
    EXPECT_EQ(c.kept, dialog_->FilterIndex());
    Unregister();
  }
}

TEST_F(FileDialogTest, ShellSaveResultGetsTheDefaultExtensionUnlessItEndsInIt) {
  struct Case {
    std::u16string typed;
    std::uint32_t append;
    std::u16string expected;
  };
  const Case cases[] = {
      {u"/out/report.txt", 1, u"/out/report.txt.pdf"},
      {u"/out/REPORT.PDF", 1, u"/out/REPORT.PDF"},
      {u"/out/report.Pdf", 1, u"/out/report.Pdf"},
      {u"/out/report", 1, u"/out/report.pdf"},
      {u"/out/v1.2/report", 1, u"/out/v1.2/report.pdf"},
      {u"C:\\out.d\\report", 1, u"C:\\out.d\\report.pdf"},
      {u"/out/report", 0, u"/out/report"},
  };
  RegisterFake();
  for (const Case& c : cases) {
    SCOPED_TRACE(Utf16ToUtf8(c.typed));
    fake_->chosen = {c.typed};
    FileDialogRequest request = PdfRequest(u"report");
    request.AppendExtension = c.append;
    ASSERT_TRUE(Create(request));
    ASSERT_EQ(kFileDialogOk, Show());
    EXPECT_EQ(c.expected, Only());
  }
}

TEST_F(FileDialogTest, ShellShowAnswersCancelFailureAndTheTypeChosen) {
  RegisterFake();
  FileDialogRequest request = PdfRequest(u"report");
  request.Filter = u"PDF|*.pdf|PDF/A|*.pdf";
  fake_->chosen = {u"/out/report.pdf"};

  fake_->showResult = static_cast<HRESULT>(0x800704C7u);
  ASSERT_TRUE(Create(request));
  EXPECT_EQ(kFileDialogCancelled, Show());
  EXPECT_TRUE(dialog_->Results().empty());
  const std::vector<std::string> around = {"Advise", "Show", "Unadvise(7)"};
  EXPECT_EQ(around, std::vector<std::string>(fake_->calls.end() - 3, fake_->calls.end()));

  fake_->showResult = E_FAIL;
  EXPECT_EQ(kFileDialogFailed, Show());
  EXPECT_TRUE(dialog_->Results().empty());

  fake_->showResult = S_OK;
  fake_->typeIndexShown = 2;
  EXPECT_EQ(kFileDialogOk, Show());
  EXPECT_EQ(u"/out/report.pdf", Only());
  EXPECT_EQ(1u, dialog_->FilterIndex());

  fake_->chosen.clear();  // the dialog cannot name its result
  EXPECT_EQ(kFileDialogFailed, Show());
  EXPECT_TRUE(dialog_->Results().empty());
}

TEST_F(FileDialogTest, ShellOpenDialogListsEveryFileAsChosen) {
  RegisterFake();
  FileDialogRequest request = PdfRequest(nullptr);
  request.Open = 1;
  request.Options = FOS_ALLOWMULTISELECT;
  fake_->chosen = {u"/mail/a.eml", u"/mail/b"};
  ASSERT_TRUE(Create(request));
  ASSERT_EQ(kFileDialogOk, Show());
  ASSERT_EQ(2u, dialog_->Results().size());
  EXPECT_EQ(u"/mail/a.eml", dialog_->Results()[0].view());
  EXPECT_EQ(u"/mail/b", dialog_->Results()[1].view()) << "open dialogs force no extension";
}

TEST_F(FileDialogTest, ShellExtraControlsDependOnTheKindOfDialog) {
  RegisterFake();
  FileDialogRequest request = PdfRequest(u"report");
  request.Open = 1;
  request.ExtraButtonEnabled = 1;
  request.CheckLabel = u"Keep open";
  request.CheckState = 5;
  ASSERT_TRUE(Create(request));
  EXPECT_EQ((std::vector<std::string>{"AddPushButton(1001,Settings)"}),
            fake_->CallsOf("AddPushButton"));
  EXPECT_EQ((std::vector<std::string>{"MakeProminent(1001)"}), fake_->CallsOf("MakeProminent"));
  EXPECT_EQ((std::vector<std::string>{"AddCheckButton(1002,Keep open,1)"}),
            fake_->CallsOf("AddCheckButton"));
  EXPECT_TRUE(fake_->CallsOf("AddText").empty());

  fake_->calls.clear();
  request.Open = 0;
  request.ButtonLabel = u"Options";
  request.CheckLabel = nullptr;
  ASSERT_TRUE(Create(request));
  EXPECT_EQ((std::vector<std::string>{"AddPushButton(1001,Options)"}),
            fake_->CallsOf("AddPushButton"));
  EXPECT_EQ((std::vector<std::string>{"AddText(1002,)"}), fake_->CallsOf("AddText"));
  EXPECT_TRUE(fake_->CallsOf("MakeProminent").empty());
}

struct ButtonQuestion {
  bool answer = false;
  std::uint32_t typeIndex = 99;
  std::vector<std::u16string> selection;
};

bool AskButton(std::uint32_t typeIndex, const std::vector<WideString>& selection, void* data) {
  auto* question = static_cast<ButtonQuestion*>(data);
  question->typeIndex = typeIndex;
  question->selection.clear();
  for (const WideString& path : selection) question->selection.emplace_back(path.view());
  return question->answer;
}

TEST_F(FileDialogTest, ShellSelectionChangeAsksWhetherTheExtraButtonIsEnabled) {
  RegisterFake();
  ButtonQuestion question;
  FileDialogRequest request = PdfRequest(nullptr);
  request.Open = 1;
  request.Filter = u"Mail|*.eml|All|*.*";
  request.FilterIndex = 1;
  request.ExtraButtonEnabled = 1;
  request.ExtraButtonCallback = &AskButton;
  request.ExtraButtonData = &question;
  fake_->chosen = {u"/mail/a.eml", u"/mail/b.eml"};
  ASSERT_TRUE(Create(request));

  question.answer = true;
  ASSERT_EQ(kFileDialogOk, Show());
  EXPECT_EQ(1u, question.typeIndex);
  EXPECT_EQ((std::vector<std::u16string>{u"/mail/a.eml", u"/mail/b.eml"}), question.selection);
  question.answer = false;
  ASSERT_EQ(kFileDialogOk, Show());
  EXPECT_EQ((std::vector<std::string>{"SetControlState(1001,3)", "SetControlState(1001,2)"}),
            fake_->CallsOf("SetControlState"));
}

// ---------------------------------------------------------------------------------------------
// Choosing the variant

TEST_F(FileDialogTest, FallsBackToTheClassicDialogWhenTheShellDialogCannotBeBuilt) {
  struct Case {
    const char* what;
    bool registered;
    HRESULT createFailure;
    std::string failOn;
    bool forceClassic;
  };
  const Case cases[] = {
      {"no class registered", false, S_OK, "", false},
      {"class object refuses", true, E_OUTOFMEMORY, "", false},
      {"a setup call fails", true, S_OK, "SetOptions", false},
      {"classic forced", true, S_OK, "", true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    fake_->calls.clear();
    fake_->failOn = c.failOn;
    if (c.registered) RegisterFake(c.createFailure);
    FileDialogRequest request = PdfRequest(u"report");
    const std::u16string folder = folder_.WidePathOf("");
    request.InitialFolder = folder.c_str();
    ASSERT_TRUE(Create(request, c.forceClassic));
    ASSERT_TRUE(platform::QueueFileDialogAnswer(u""));
    EXPECT_EQ(kFileDialogOk, Show());
    EXPECT_EQ(folder_.WidePathOf("report.pdf"), Only());
    EXPECT_EQ(0u, platform::PendingFileDialogAnswers()) << "the console took the answer";
    EXPECT_TRUE(fake_->CallsOf("Show").empty());
    Unregister();
  }
}

TEST_F(FileDialogTest, RegisteredShellDialogIsPreferred) {
  RegisterFake();
  fake_->chosen = {u"/out/report.pdf"};
  ASSERT_TRUE(Create(PdfRequest(u"report")));
  ASSERT_TRUE(platform::QueueFileDialogAnswer(u"/elsewhere/x.pdf"));
  EXPECT_EQ(kFileDialogOk, Show());
  EXPECT_EQ(u"/out/report.pdf", Only());
  EXPECT_EQ(1u, platform::PendingFileDialogAnswers());
}

// ---------------------------------------------------------------------------------------------
// Classic variant

TEST_F(FileDialogTest, ClassicProposedNameLosesWhatTheNameBoxRefuses) {
  const struct {
    const char16_t* proposed;
    const char* expected;
  } cases[] = {
      {u"Q1: Plan?", "Q1 Plan.pdf"},
      {u"a\\b/c:d*e?f\"g<h>i|j", "abcdefghij.pdf"},
      {u"Re - Offer (2)", "Re - Offer (2).pdf"},
  };
  const std::u16string folder = folder_.WidePathOf("");
  for (const auto& c : cases) {
    SCOPED_TRACE(c.expected);
    FileDialogRequest request = PdfRequest(c.proposed);
    request.InitialFolder = folder.c_str();
    ASSERT_TRUE(Create(request, true));
    ASSERT_TRUE(platform::QueueFileDialogAnswer(u""));  // the proposal as it is shown
    ASSERT_EQ(kFileDialogOk, Show());
    EXPECT_EQ(folder_.WidePathOf(c.expected), Only());
  }
}

TEST_F(FileDialogTest, ClassicSaveResultGetsTheDefaultExtensionUnlessItEndsInIt) {
  const struct {
    const char16_t* typed;
    const char* expected;
  } cases[] = {
      {u"report.txt", "report.txt.pdf"},
      {u"REPORT.PDF", "REPORT.PDF"},
      {u"report", "report.pdf"},
  };
  const std::u16string folder = folder_.WidePathOf("");
  for (const auto& c : cases) {
    SCOPED_TRACE(c.expected);
    FileDialogRequest request = PdfRequest(u"proposed");
    request.InitialFolder = folder.c_str();
    ASSERT_TRUE(Create(request, true));
    ASSERT_TRUE(platform::QueueFileDialogAnswer(c.typed));
    ASSERT_EQ(kFileDialogOk, Show());
    EXPECT_EQ(folder_.WidePathOf(c.expected), Only());
  }
}

TEST_F(FileDialogTest, ClassicCancelGivesTwoAndNoResult) {
  ASSERT_TRUE(Create(PdfRequest(u"report"), true));
  ASSERT_TRUE(platform::QueueFileDialogCancel());
  EXPECT_EQ(kFileDialogCancelled, Show());
  EXPECT_TRUE(dialog_->Results().empty());
}

TEST_F(FileDialogTest, ClassicOpenSplitsFolderAndNames) {
  FileDialogRequest request;
  request.Open = 1;
  request.Options = FOS_ALLOWMULTISELECT;
  request.FilterIndex = 1;
  request.Filter = u"Mail|*.eml|All|*.*";
  const std::u16string folder = folder_.WidePathOf("");
  request.InitialFolder = folder.c_str();
  ASSERT_TRUE(Create(request, true));
  ASSERT_TRUE(platform::QueueFileDialogAnswer(u"a.eml\0b.eml"s));
  ASSERT_EQ(kFileDialogOk, Show());
  ASSERT_EQ(2u, dialog_->Results().size());
  EXPECT_EQ(folder_.WidePathOf("a.eml"), dialog_->Results()[0].view());
  EXPECT_EQ(folder_.WidePathOf("b.eml"), dialog_->Results()[1].view());
  EXPECT_EQ(1u, dialog_->FilterIndex());
}

TEST(ClassicFilterText, EndsInTwoNulsWithoutExtendingWhatAlreadyDoes) {
  const struct {
    const char16_t* filter;
    std::u16string expected;
  } cases[] = {
      {u"PDF|*.pdf", u"PDF\0*.pdf\0\0"s},
      {u"PDF|*.pdf|", u"PDF\0*.pdf\0\0"s},
      {u"PDF|*.pdf||", u"PDF\0*.pdf\0\0"s},
      {u"PDF|*.pdf|||", u"PDF\0*.pdf\0\0\0"s},
      {u"", u"\0\0"s},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(Utf16ToUtf8(c.filter));
    EXPECT_EQ(c.expected, std::u16string(file_dialog_internal::ClassicFilterText(c.filter).view()));
  }
}

TEST(ClassicDialogFlags, MapOptionsOntoTheClassicFlags) {
  const struct {
    const char* what;
    std::uint32_t open;
    const char16_t* extension;
    std::uint32_t options;
    std::uint32_t expected;
  } cases[] = {
      {"plain save", 0, nullptr, 0, 0xA80024},
      {"default extension", 0, u"*.pdf", 0, 0xA80424},
      {"extension of marks only", 0, u"*.", 0, 0xA80024},
      {"the add-in's save", 0, u"pdf", 0x10042, 0xA90426},
      {"multiple selection on open", 1, nullptr, 0x200, 0xA80224},
      {"multiple selection on save", 0, nullptr, 0x200, 0xA80024},
      {"every carried bit", 0, nullptr, 0x1211F90A, 0xA80024 | 0x1211F90A},
      {"bits without twin", 1, nullptr, 0x4 | 0x20 | 0x40 | 0x80 | 0x20000 | 0x40000 | 0x200000,
       0xA80024},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    FileDialogRequest request;
    request.Open = c.open;
    request.DefaultExtension = c.extension;
    request.Options = c.options;
    EXPECT_EQ(c.expected, file_dialog_internal::ClassicDialogFlags(request));
  }
}

}  // namespace
}  // namespace mrwl
