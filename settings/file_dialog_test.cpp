// Tests of the file dialog. The shell variant runs against a scripted dialog object registered
// as the system's save and open dialog classes, which records the calls it gets and fails where
// told; the classic variant runs against the console dialog with answers queued in advance.
#include "settings/file_dialog.h"

#include <cstdio>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
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

std::string Narrow(const OLECHAR* text) {
  return text == nullptr ? "(null)" : Utf16ToUtf8(U16Text(text));
}

// The methods the file dialog never calls.
#define MRWL_NOT_CALLED(name, ...) \
  STDMETHODIMP name(__VA_ARGS__) override { return E_NOTIMPL; }

// A shell item for the first path, and an item array for all of them.
class FakeItems final : public ComObject<IShellItem, IShellItemArray> {
 public:
  explicit FakeItems(std::vector<std::u16string> paths) : paths_(std::move(paths)) {}
  STDMETHODIMP GetDisplayName(SIGDN form, OLECHAR** name) override {
    if (form != SIGDN_FILESYSPATH) return E_INVALIDARG;
    const std::u16string& path = paths_.front();
    *name = static_cast<OLECHAR*>(CoTaskMemAlloc((path.size() + 1) * sizeof(OLECHAR)));
    for (std::size_t i = 0; i <= path.size(); ++i) (*name)[i] = path.c_str()[i];
    return S_OK;
  }
  STDMETHODIMP GetCount(DWORD* count) override {
    *count = static_cast<DWORD>(paths_.size());
    return S_OK;
  }
  STDMETHODIMP GetItemAt(DWORD index, IShellItem** item) override {
    if (index >= paths_.size()) return E_INVALIDARG;
    *item = MakeComObject<FakeItems>(std::vector{paths_[index]}).Detach();
    return S_OK;
  }
  MRWL_NOT_CALLED(BindToHandler, IBindCtx*, REFGUID, REFIID, void**)
  MRWL_NOT_CALLED(GetParent, IShellItem**)
  MRWL_NOT_CALLED(GetAttributes, SFGAOF, SFGAOF*)
  MRWL_NOT_CALLED(Compare, IShellItem*, SICHINTF, int*)
  MRWL_NOT_CALLED(GetPropertyStore, GETPROPERTYSTOREFLAGS, REFIID, void**)
  MRWL_NOT_CALLED(GetPropertyDescriptionList, REFPROPERTYKEY, REFIID, void**)
  MRWL_NOT_CALLED(GetAttributes, SIATTRIBFLAGS, SFGAOF, SFGAOF*)
  MRWL_NOT_CALLED(EnumItems, IEnumShellItems**)

 private:
  std::vector<std::u16string> paths_;
};

// The scripted shell dialog, and its own class object: records each call as text, fails the
// calls that start with failOn, and answers Show with showResult after telling its event sink of
// a selection change.
class FakeDialog final : public ComObject<IFileOpenDialog, IFileDialogCustomize, IClassFactory> {
 public:
  std::vector<std::string> calls;
  std::string failOn;
  HRESULT createResult = S_OK;
  HRESULT showResult = S_OK;
  UINT typeIndexShown = 0;  // what GetFileTypeIndex reports after Show; 0 keeps the set one
  std::vector<std::u16string> chosen;

  // The calls that start with one of `prefixes`, in order, separated by spaces.
  std::string CallsOf(std::initializer_list<std::string> prefixes) const {
    std::string found;
    for (const std::string& call : calls) {
      for (const std::string& prefix : prefixes) {
        if (call.rfind(prefix, 0) == 0) found += (found.empty() ? "" : " ") + call;
      }
    }
    return found;
  }

  STDMETHODIMP CreateInstance(IUnknown*, REFIID iid, void** object) override {
    return FAILED(createResult) ? createResult : QueryInterface(iid, object);
  }
  STDMETHODIMP LockServer(BOOL) override { return S_OK; }
  STDMETHODIMP Show(HWND) override {
    if (FAILED(Note("Show"))) return E_FAIL;
    if (events_) (void)events_->OnSelectionChange(this);
    if (typeIndexShown != 0) typeIndex_ = typeIndexShown;
    return showResult;
  }
  STDMETHODIMP SetFileTypes(UINT count, const COMDLG_FILTERSPEC* specs) override {
    std::string text;
    for (UINT i = 0; i < count; ++i) {
      text += (i > 0 ? ";" : "") + Narrow(specs[i].pszName) + "=" + Narrow(specs[i].pszSpec);
    }
    return Record("SetFileTypes(" + text + ")");
  }
  STDMETHODIMP SetFileTypeIndex(UINT index) override {
    typeIndex_ = index;
    return Note("SetFileTypeIndex", index);
  }
  STDMETHODIMP GetFileTypeIndex(UINT* index) override {
    *index = typeIndex_;
    return S_OK;
  }
  STDMETHODIMP Advise(IFileDialogEvents* events, DWORD* cookie) override {
    events_ = ComPtr<IFileDialogEvents>(events);
    *cookie = 7;
    return Note("Advise");
  }
  STDMETHODIMP Unadvise(DWORD cookie) override {
    events_ = nullptr;
    return Note("Unadvise", cookie);
  }
  STDMETHODIMP SetOptions(FILEOPENDIALOGOPTIONS options) override {
    char text[32];
    std::snprintf(text, sizeof text, "SetOptions(0x%X)", static_cast<unsigned>(options));
    return Record(text);
  }
  STDMETHODIMP SetFolder(IShellItem* folder) override {
    OLECHAR* path = nullptr;
    if (FAILED(folder->GetDisplayName(SIGDN_FILESYSPATH, &path))) return E_FAIL;
    const HRESULT noted = Note("SetFolder", path);
    CoTaskMemFree(path);
    return noted;
  }
  STDMETHODIMP SetFileName(const OLECHAR* name) override { return Note("SetFileName", name); }
  STDMETHODIMP SetTitle(const OLECHAR* title) override { return Note("SetTitle", title); }
  STDMETHODIMP SetOkButtonLabel(const OLECHAR* t) override { return Note("SetOkButtonLabel", t); }
  STDMETHODIMP SetFileNameLabel(const OLECHAR* t) override { return Note("SetFileNameLabel", t); }
  STDMETHODIMP SetDefaultExtension(const OLECHAR* t) override {
    return Note("SetDefaultExtension", t);
  }
  STDMETHODIMP GetResult(IShellItem** item) override {
    if (chosen.empty()) return E_UNEXPECTED;
    *item = MakeComObject<FakeItems>(chosen).Detach();
    return S_OK;
  }
  STDMETHODIMP GetResults(IShellItemArray** items) override {
    *items = MakeComObject<FakeItems>(chosen).Detach();
    return S_OK;
  }
  STDMETHODIMP GetSelectedItems(IShellItemArray** items) override { return GetResults(items); }
  STDMETHODIMP AddPushButton(DWORD id, const OLECHAR* label) override {
    return Note("AddPushButton", id, label);
  }
  STDMETHODIMP AddCheckButton(DWORD id, const OLECHAR* label, BOOL checked) override {
    return Note("AddCheckButton", id, label, checked);
  }
  STDMETHODIMP AddText(DWORD id, const OLECHAR* text) override { return Note("AddText", id, text); }
  STDMETHODIMP SetControlState(DWORD id, CDCONTROLSTATEF state) override {
    return Note("SetControlState", id, state);
  }
  STDMETHODIMP MakeProminent(DWORD id) override { return Note("MakeProminent", id); }
  MRWL_NOT_CALLED(GetOptions, FILEOPENDIALOGOPTIONS*)
  MRWL_NOT_CALLED(SetDefaultFolder, IShellItem*)
  MRWL_NOT_CALLED(GetFolder, IShellItem**)
  MRWL_NOT_CALLED(GetCurrentSelection, IShellItem**)
  MRWL_NOT_CALLED(GetFileName, OLECHAR**)
  MRWL_NOT_CALLED(AddPlace, IShellItem*, FDAP)
  MRWL_NOT_CALLED(Close, HRESULT)
  MRWL_NOT_CALLED(SetClientGuid, REFGUID)
  MRWL_NOT_CALLED(ClearClientData)
  MRWL_NOT_CALLED(SetFilter, IShellItemFilter*)
  MRWL_NOT_CALLED(EnableOpenDropDown, DWORD)
  MRWL_NOT_CALLED(AddMenu, DWORD, const OLECHAR*)
  MRWL_NOT_CALLED(AddComboBox, DWORD)
  MRWL_NOT_CALLED(AddRadioButtonList, DWORD)
  MRWL_NOT_CALLED(AddEditBox, DWORD, const OLECHAR*)
  MRWL_NOT_CALLED(AddSeparator, DWORD)
  MRWL_NOT_CALLED(SetControlLabel, DWORD, const OLECHAR*)
  MRWL_NOT_CALLED(GetControlState, DWORD, CDCONTROLSTATEF*)
  MRWL_NOT_CALLED(GetEditBoxText, DWORD, OLECHAR**)
  MRWL_NOT_CALLED(SetEditBoxText, DWORD, const OLECHAR*)
  MRWL_NOT_CALLED(GetCheckButtonState, DWORD, BOOL*)
  MRWL_NOT_CALLED(SetCheckButtonState, DWORD, BOOL)
  MRWL_NOT_CALLED(AddControlItem, DWORD, DWORD, const OLECHAR*)
  MRWL_NOT_CALLED(RemoveControlItem, DWORD, DWORD)
  MRWL_NOT_CALLED(RemoveAllControlItems, DWORD)
  MRWL_NOT_CALLED(GetControlItemState, DWORD, DWORD, CDCONTROLSTATEF*)
  MRWL_NOT_CALLED(SetControlItemState, DWORD, DWORD, CDCONTROLSTATEF)
  MRWL_NOT_CALLED(GetSelectedControlItem, DWORD, DWORD*)
  MRWL_NOT_CALLED(SetSelectedControlItem, DWORD, DWORD)
  MRWL_NOT_CALLED(StartVisualGroup, DWORD, const OLECHAR*)
  MRWL_NOT_CALLED(EndVisualGroup)
  MRWL_NOT_CALLED(SetControlItemText, DWORD, DWORD, const OLECHAR*)

 protected:
  void* FindInterface(REFIID iid) noexcept override {
    if (IsEqualIID(iid, IID_IFileDialog) || IsEqualIID(iid, IID_IModalWindow)) {
      return static_cast<IFileDialog*>(static_cast<IFileOpenDialog*>(this));
    }
    return ComObject::FindInterface(iid);
  }

 private:
  template <typename T>
  static std::string Text(T value) {
    if constexpr (std::is_pointer_v<T>)
      return Narrow(value);
    else
      return std::to_string(value);
  }
  // Records "name(argument,argument,...)".
  template <typename... Args>
  HRESULT Note(const char* name, const Args&... args) {
    std::string call;
    ((call += "," + Text(args)), ...);
    return Record(name + ("(" + call.substr(call.empty() ? 0 : 1)) + ")");
  }
  HRESULT Record(const std::string& call) {
    calls.push_back(call);
    return !failOn.empty() && call.rfind(failOn, 0) == 0 ? E_FAIL : S_OK;
  }

  UINT typeIndex_ = 0;
  ComPtr<IFileDialogEvents> events_;
};

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
    fake_->createResult = failure;
    for (const CLSID* clsid : {&CLSID_FileSaveDialog, &CLSID_FileOpenDialog}) {
      DWORD cookie = 0;
      ASSERT_EQ(S_OK, CoRegisterClassObject(*clsid, fake_->Identity(), CLSCTX_INPROC_SERVER,
                                            REGCLS_MULTIPLEUSE, &cookie));
      cookies_.push_back(cookie);
    }
  }
  void Unregister() {
    for (const DWORD cookie : cookies_) EXPECT_EQ(S_OK, CoRevokeClassObject(cookie));
    cookies_.clear();
  }
  // The add-in's own request, in the temporary folder.
  FileDialogRequest PdfRequest(const char16_t* name) {
    FileDialogRequest request;
    request.DefaultExtension = u"pdf";
    request.AppendExtension = 1;
    request.FileName = name;
    request.InitialFolder = base_.c_str();
    request.Filter = u"PDF Documents (*.pdf)|*.pdf";
    request.Options = 0x10042;
    return request;
  }
  bool Create(const FileDialogRequest& request, bool forceClassic = false) {
    return CreateFileDialog(dialog_, request, forceClassic);
  }
  int Show() { return dialog_->Show(nullptr); }
  std::vector<std::u16string> Results() const {
    std::vector<std::u16string> paths;
    for (const WideString& path : dialog_->Results()) paths.emplace_back(path.view());
    return paths;
  }

  ComPtr<FakeDialog> fake_ = MakeComObject<FakeDialog>();
  std::vector<DWORD> cookies_;
  std::unique_ptr<FileDialog> dialog_;
  testing::TempFolder folder_;
  const std::u16string base_ = folder_.WidePathOf("");
};

// ---------------------------------------------------------------------------------------------
// Shell variant

TEST_F(FileDialogTest, ShellSetupCallsTheDialogInOrder) {
  RegisterFake();
  FileDialogRequest request = PdfRequest(u"Q1: Plan");
  request.Title = u"Save as PDF";
  request.OkLabel = u"Save";
  request.FileNameLabel = u"Name:";
  request.CancelLabel = u"Skip";  // dropped: this dialog has no IFileDialog2
  ASSERT_TRUE(Create(request));
  const std::vector<std::string> expected = {
      "SetTitle(Save as PDF)",
      "SetOkButtonLabel(Save)",
      "SetFileNameLabel(Name:)",
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
  const struct {
    const char16_t* filter;
    std::uint32_t index;
    const char16_t* extension;
    const char* calls;
    std::uint32_t kept;
  } cases[] = {
      {u"A|*.a|B|*.b", 1, u"*.pdf",
       "SetDefaultExtension(pdf) SetFileTypes(A=*.a;B=*.b) SetFileTypeIndex(2)", 1},
      {u"A|*.a||*.b|C|", 0, u".PDF",
       "SetDefaultExtension(PDF) SetFileTypes(A=*.a) SetFileTypeIndex(1)", 0},
      {u"A|*.a", 3, u"*.", "SetFileTypes(A=*.a)", 0},  // an index out of range is not passed
      {u"", 0, nullptr, "", 0},
  };
  RegisterFake();
  for (const auto& c : cases) {
    SCOPED_TRACE(Utf16ToUtf8(c.filter));
    fake_->calls.clear();
    FileDialogRequest request;
    request.Filter = c.filter;
    request.FilterIndex = c.index;
    request.DefaultExtension = c.extension;
    ASSERT_TRUE(Create(request));
    EXPECT_EQ(c.calls, fake_->CallsOf({"SetFileType", "SetDefaultExtension"}));
    EXPECT_EQ(c.kept, dialog_->FilterIndex());
  }
}

// Both variants force the default extension on a saved name by the same rule; the console
// dialog of the classic one adds it on its own to a name without any.
TEST_F(FileDialogTest, SaveResultGetsTheDefaultExtensionUnlessItEndsInIt) {
  const struct {
    std::u16string typed;
    std::uint32_t append;
    std::u16string shell;
    std::u16string classic;
  } cases[] = {
      {u"/out/report.txt", 1, u"/out/report.txt.pdf", u"/out/report.txt.pdf"},
      {u"/out/REPORT.PDF", 1, u"/out/REPORT.PDF", u"/out/REPORT.PDF"},
      {u"/out/report.Pdf", 1, u"/out/report.Pdf", u"/out/report.Pdf"},
      {u"/out/report", 1, u"/out/report.pdf", u"/out/report.pdf"},
      {u"/out/v1.2/report", 1, u"/out/v1.2/report.pdf", u"/out/v1.2/report.pdf"},
      {u"/out/report.txt", 0, u"/out/report.txt", u"/out/report.txt"},
      {u"/out/report", 0, u"/out/report", u"/out/report.pdf"},
  };
  RegisterFake();
  for (const auto& c : cases) {
    SCOPED_TRACE(Utf16ToUtf8(c.typed) + " append " + std::to_string(c.append));
    fake_->chosen = {c.typed};
    FileDialogRequest request = PdfRequest(u"report");
    request.AppendExtension = c.append;
    ASSERT_TRUE(Create(request));
    ASSERT_EQ(kFileDialogOk, Show());
    EXPECT_EQ(std::vector{c.shell}, Results());
    ASSERT_TRUE(Create(request, true));
    ASSERT_TRUE(platform::QueueFileDialogAnswer(c.typed));
    ASSERT_EQ(kFileDialogOk, Show());
    EXPECT_EQ(std::vector{c.classic}, Results());
  }
}

TEST_F(FileDialogTest, ShellShowAnswersCancelFailureAndTheTypeChosen) {
  RegisterFake();
  FileDialogRequest request = PdfRequest(u"report");
  request.Filter = u"PDF|*.pdf|PDF/A|*.pdf";
  fake_->chosen = {u"/out/report.pdf"};

  fake_->showResult = HRESULT_FROM_WIN32(ERROR_CANCELLED);
  ASSERT_TRUE(Create(request));
  EXPECT_EQ(kFileDialogCancelled, Show());
  EXPECT_TRUE(dialog_->Results().empty());
  EXPECT_EQ("Advise() Show() Unadvise(7)", fake_->CallsOf({"Advise", "Show", "Unadvise"}));

  fake_->showResult = E_FAIL;
  EXPECT_EQ(kFileDialogFailed, Show());
  EXPECT_TRUE(dialog_->Results().empty());

  fake_->showResult = S_OK;
  fake_->typeIndexShown = 2;
  EXPECT_EQ(kFileDialogOk, Show());
  EXPECT_EQ(std::vector<std::u16string>{u"/out/report.pdf"}, Results());
  EXPECT_EQ(1u, dialog_->FilterIndex());

  fake_->chosen.clear();  // the dialog cannot name its result
  EXPECT_EQ(kFileDialogFailed, Show());
  EXPECT_TRUE(dialog_->Results().empty());
}

TEST_F(FileDialogTest, ShellExtraControlsDependOnTheKindOfDialog) {
  RegisterFake();
  FileDialogRequest request = PdfRequest(u"report");
  request.Open = 1;
  request.ExtraButtonEnabled = 1;
  request.CheckLabel = u"Keep open";
  request.CheckState = 5;
  ASSERT_TRUE(Create(request));
  EXPECT_EQ("AddPushButton(1001,Settings) MakeProminent(1001) AddCheckButton(1002,Keep open,1)",
            fake_->CallsOf({"Add", "MakeProminent"}));

  fake_->calls.clear();
  request.Open = 0;
  request.ButtonLabel = u"Options";
  request.CheckLabel = nullptr;
  ASSERT_TRUE(Create(request));
  EXPECT_EQ("AddPushButton(1001,Options) AddText(1002,)", fake_->CallsOf({"Add", "MakeProminent"}));
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

TEST_F(FileDialogTest, ShellOpenListsEveryFileAndAsksWhetherTheExtraButtonIsEnabled) {
  RegisterFake();
  ButtonQuestion question;
  FileDialogRequest request = PdfRequest(nullptr);
  request.Open = 1;
  request.Options = FOS_ALLOWMULTISELECT;
  request.Filter = u"Mail|*.eml|All|*.*";
  request.FilterIndex = 1;
  request.ExtraButtonEnabled = 1;
  request.ExtraButtonCallback = &AskButton;
  request.ExtraButtonData = &question;
  const std::vector<std::u16string> chosen = {u"/mail/a.eml", u"/mail/b"};
  fake_->chosen = chosen;
  ASSERT_TRUE(Create(request));

  question.answer = true;
  ASSERT_EQ(kFileDialogOk, Show());
  EXPECT_EQ(chosen, Results()) << "open dialogs force no extension";
  EXPECT_EQ(1u, question.typeIndex);
  EXPECT_EQ(chosen, question.selection);
  question.answer = false;
  ASSERT_EQ(kFileDialogOk, Show());
  EXPECT_EQ("SetControlState(1001,3) SetControlState(1001,2)", fake_->CallsOf({"SetControlState"}));
}

// ---------------------------------------------------------------------------------------------
// Choosing the variant

TEST_F(FileDialogTest, ClassicDialogAnswersWhenTheShellDialogCannotBeBuilt) {
  const struct {
    const char* what;
    bool registered;
    HRESULT createFailure;
    std::string failOn;
    bool forceClassic;
    bool shellAnswers;
  } cases[] = {
      {"no class registered", false, S_OK, "", false, false},
      {"class object refuses", true, E_OUTOFMEMORY, "", false, false},
      {"a setup call fails", true, S_OK, "SetOptions", false, false},
      {"classic forced", true, S_OK, "", true, false},
      {"shell dialog registered", true, S_OK, "", false, true},
  };
  fake_->chosen = {folder_.WidePathOf("report.pdf")};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    platform::ClearFileDialogAnswers();
    fake_->calls.clear();
    fake_->failOn = c.failOn;
    if (c.registered) RegisterFake(c.createFailure);
    ASSERT_TRUE(Create(PdfRequest(u"report"), c.forceClassic));
    ASSERT_TRUE(platform::QueueFileDialogAnswer(u""));
    EXPECT_EQ(kFileDialogOk, Show());
    EXPECT_EQ(fake_->chosen, Results());
    EXPECT_EQ(c.shellAnswers ? 1u : 0u, platform::PendingFileDialogAnswers());
    EXPECT_EQ(c.shellAnswers ? "Show()" : "", fake_->CallsOf({"Show"}));
    Unregister();
  }
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
  for (const auto& c : cases) {
    SCOPED_TRACE(c.expected);
    ASSERT_TRUE(Create(PdfRequest(c.proposed), true));
    ASSERT_TRUE(platform::QueueFileDialogAnswer(u""));  // the proposal as it is shown
    ASSERT_EQ(kFileDialogOk, Show());
    EXPECT_EQ(std::vector{folder_.WidePathOf(c.expected)}, Results());
  }
}

TEST_F(FileDialogTest, ClassicOpenSplitsFolderAndNamesOrCancels) {
  FileDialogRequest request;
  request.Open = 1;
  request.Options = FOS_ALLOWMULTISELECT;
  request.FilterIndex = 1;
  request.Filter = u"Mail|*.eml|All|*.*";
  request.InitialFolder = base_.c_str();
  ASSERT_TRUE(Create(request, true));
  ASSERT_TRUE(platform::QueueFileDialogAnswer(u"a.eml\0b.eml"s));
  ASSERT_EQ(kFileDialogOk, Show());
  EXPECT_EQ((std::vector{folder_.WidePathOf("a.eml"), folder_.WidePathOf("b.eml")}), Results());
  EXPECT_EQ(1u, dialog_->FilterIndex());

  ASSERT_TRUE(platform::QueueFileDialogCancel());
  EXPECT_EQ(kFileDialogCancelled, Show());
  EXPECT_TRUE(dialog_->Results().empty());
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
