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
      ASSERT_EQ(S_OK, CoRegisterClassObject(*clsid, fake_->Identity(), CLSCTX_INPROC_SERVER,
                                            REGCLS_MULTIPLEUSE, &cookies_.emplace_back()));
    }
  }
  void Unregister() {
    for (const DWORD cookie : cookies_) EXPECT_EQ(S_OK, CoRevokeClassObject(cookie));
    cookies_.clear();
  }
  // The add-in's own request, in the temporary folder.
  FileDialogRequest PdfRequest(const char16_t* name) {
    return {.DefaultExtension = u"pdf",
            .AppendExtension = 1,
            .FileName = name,
            .InitialFolder = base_.c_str(),
            .Filter = u"PDF Documents (*.pdf)|*.pdf",
            .Options = 0x10042};
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
  request.ButtonLabel = u"Options";
  request.ExtraButtonEnabled = 1;
  fake_->failOn = "AddPushButton";  // extra controls are decoration: a refusal is no failure
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
      "AddPushButton(1001,Options)",
      "AddText(1002,)",
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
    ASSERT_TRUE(
        Create({.DefaultExtension = c.extension, .Filter = c.filter, .FilterIndex = c.index}));
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
      {u"/out/REPORT.Pdf", 1, u"/out/REPORT.Pdf", u"/out/REPORT.Pdf"},
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
  ASSERT_TRUE(Create(request));
  fake_->showResult = HRESULT_FROM_WIN32(ERROR_CANCELLED);
  EXPECT_EQ(kFileDialogCancelled, Show());
  EXPECT_EQ("Advise() Show() Unadvise(7)", fake_->CallsOf({"Advise", "Show", "Unadvise"}));
  fake_->showResult = E_FAIL;
  EXPECT_EQ(kFileDialogFailed, Show());
  EXPECT_TRUE(dialog_->Results().empty());

  fake_->showResult = S_OK;
  fake_->typeIndexShown = 2;
  EXPECT_EQ(kFileDialogOk, Show());
  EXPECT_EQ(std::vector<std::u16string>{u"/out/report.pdf"}, Results());
  EXPECT_EQ(1u, dialog_->FilterIndex());
  fake_->chosen.clear();  // the dialog cannot name its result: the last results must not stay
  EXPECT_EQ(kFileDialogFailed, Show());
  EXPECT_TRUE(dialog_->Results().empty());
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
  ButtonQuestion question{.answer = true};
  const std::vector<std::u16string> chosen = {u"/mail/a.eml", u"/mail/b"};
  fake_->chosen = chosen;
  ASSERT_TRUE(Create({.Open = 1,
                      .DefaultExtension = u"pdf",
                      .AppendExtension = 1,
                      .Filter = u"Mail|*.eml|All|*.*",
                      .Options = FOS_ALLOWMULTISELECT,
                      .FilterIndex = 1,
                      .CheckLabel = u"Keep open",
                      .CheckState = 5,
                      .ExtraButtonCallback = &AskButton,
                      .ExtraButtonEnabled = 1,
                      .ExtraButtonData = &question}));
  EXPECT_EQ("AddPushButton(1001,Settings) MakeProminent(1001) AddCheckButton(1002,Keep open,1)",
            fake_->CallsOf({"Add", "MakeProminent"}));
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
  } cases[] = {
      {"no class registered", false, S_OK, "", false},
      {"class object refuses", true, E_OUTOFMEMORY, "", false},
      {"a setup call fails", true, S_OK, "SetOptions", false},
      {"classic forced", true, S_OK, "", true},
      {"shell dialog registered", true, S_OK, "", false},
  };
  // The classic name box refuses \ / : * ? " < > |, and the proposal it shows loses them.
  fake_->chosen = {folder_.WidePathOf("Q1 abcdefghi.pdf")};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const bool shellAnswers =
        c.registered && c.failOn.empty() && c.createFailure == S_OK && !c.forceClassic;
    platform::ClearFileDialogAnswers();
    fake_->calls.clear();
    fake_->failOn = c.failOn;
    if (c.registered) RegisterFake(c.createFailure);
    ASSERT_TRUE(Create(PdfRequest(u"Q1: a\\b/c*d?e\"f<g>h|i"), c.forceClassic));
    ASSERT_TRUE(platform::QueueFileDialogAnswer(u""));  // the proposal as it is shown
    EXPECT_EQ(kFileDialogOk, Show());
    EXPECT_EQ(fake_->chosen, Results());
    EXPECT_EQ(shellAnswers ? 1u : 0u, platform::PendingFileDialogAnswers());
    EXPECT_EQ(shellAnswers ? "Show()" : "", fake_->CallsOf({"Show"}));
    Unregister();
  }
}

// ---------------------------------------------------------------------------------------------
// Classic variant

TEST_F(FileDialogTest, ClassicOpenSplitsFolderAndNamesOrCancels) {
  ASSERT_TRUE(Create({.Open = 1,
                      .InitialFolder = base_.c_str(),
                      .Filter = u"Mail|*.eml|All|*.*",
                      .Options = FOS_ALLOWMULTISELECT,
                      .FilterIndex = 1},
                     true));
  ASSERT_TRUE(platform::QueueFileDialogAnswer(u"a.eml\0b.eml"s));
  ASSERT_EQ(kFileDialogOk, Show());
  EXPECT_EQ((std::vector{folder_.WidePathOf("a.eml"), folder_.WidePathOf("b.eml")}), Results());
  EXPECT_EQ(1u, dialog_->FilterIndex());

  ASSERT_TRUE(platform::QueueFileDialogCancel());
  EXPECT_EQ(kFileDialogCancelled, Show());
  EXPECT_TRUE(dialog_->Results().empty());
}

TEST(ClassicFilterText, EndsInTwoNulsWithoutExtendingWhatAlreadyDoes) {
  const std::pair<const char16_t*, std::u16string> cases[] = {
      {u"PDF|*.pdf", u"PDF\0*.pdf\0\0"s},
      {u"PDF|*.pdf|", u"PDF\0*.pdf\0\0"s},
      {u"PDF|*.pdf||", u"PDF\0*.pdf\0\0"s},
      {u"PDF|*.pdf|||", u"PDF\0*.pdf\0\0\0"s},
      {u"", u"\0\0"s},
  };
  for (const auto& [filter, expected] : cases) {
    SCOPED_TRACE(Utf16ToUtf8(filter));
    EXPECT_EQ(expected, std::u16string(file_dialog_internal::ClassicFilterText(filter).view()));
  }
}

TEST(ClassicDialogFlags, MapOptionsOntoTheClassicFlags) {
  const struct {
    const char* what;
    FileDialogRequest request;
    std::uint32_t expected;
  } cases[] = {
      {"plain save", {}, 0xA80024},
      {"default extension", {.DefaultExtension = u"*.pdf"}, 0xA80424},
      {"extension of marks only", {.DefaultExtension = u"*."}, 0xA80024},
      {"multiple selection on open", {.Open = 1, .Options = 0x200}, 0xA80224},
      {"multiple selection on save", {.Options = 0x200}, 0xA80024},
      {"every carried bit", {.Options = 0x1211F90A}, 0xA80024 | 0x1211F90A},
      {"bits without twin", {.Open = 1, .Options = 0x4 | 0x20 | 0x40 | 0x80 | 0x260000}, 0xA80024},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(c.expected, file_dialog_internal::ClassicDialogFlags(c.request));
  }
}

}  // namespace
}  // namespace mrwl
