// The desktop dialogs on a real X server (Xvfb, started by the tests), driven through the
// platform's RunModalDialog. The user's clicks are GTK's own signals on the widgets, found by the
// names the toolkit library gives them ("control-<id>").
#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <gtk/gtk.h>
#include <png.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/dialog.h"
#include "platform/file_dialog.h"
#include "platform/kernel.h"
#include "platform/ui.h"
#include "platform/utf.h"
#include "testing/temp_folder.h"

// GTK, fontconfig and GLib keep their caches for the life of the process.
extern "C" const char* __lsan_default_suppressions() {
  return "leak:libgtk-3\nleak:libgdk-3\nleak:libfontconfig\nleak:libglib-2.0\n"
         "leak:libgobject-2.0\nleak:libpango\nleak:libcairo\nleak:libharfbuzz\n"
         "leak:libgio-2.0\nleak:libX11\nleak:libatk\nleak:libepoxy\nleak:libdbus-1\n";
}

namespace mrwl::platform {
namespace {

using ::mrwl::testing::TempFolder;

// ---------------------------------------------------------------------------------------------
// The X server

bool childRun = std::getenv("MRWL_GTK_TEST_CHILD") != nullptr;
pid_t xvfbPid = -1;
bool xvfbReady = false;

class XvfbEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    if (childRun || access("/usr/bin/Xvfb", X_OK) != 0) return;
    int fds[2];
    if (pipe(fds) != 0) return;
    xvfbPid = fork();
    if (xvfbPid == 0) {
      close(fds[0]);
      const std::string fd = std::to_string(fds[1]);
      execl("/usr/bin/Xvfb", "Xvfb", "-displayfd", fd.c_str(), "-screen", "0", "1024x768x24",
            "-nolisten", "tcp", static_cast<char*>(nullptr));
      _exit(127);
    }
    close(fds[1]);
    std::string number;
    char c = 0;
    while (read(fds[0], &c, 1) == 1 && c != '\n') number += c;
    close(fds[0]);
    if (xvfbPid < 0 || number.empty()) return;
    setenv("DISPLAY", (":" + number).c_str(), 1);
    setenv("GSETTINGS_BACKEND", "memory", 1);
    setenv("NO_AT_BRIDGE", "1", 1);
    unsetenv("WAYLAND_DISPLAY");
    xvfbReady = true;
  }
  void TearDown() override {
    if (xvfbPid <= 0) return;
    kill(xvfbPid, SIGTERM);
    waitpid(xvfbPid, nullptr, 0);
  }
};

const auto* const xvfbEnvironment = ::testing::AddGlobalTestEnvironment(new XvfbEnvironment);

// ---------------------------------------------------------------------------------------------
// Templates of the tests' own

enum : int { kOk = 1, kCancel, kBrowse, kRemember = 10, kCount, kCountSpin, kKind, kSmall };
enum : int { kLarge = 15, kSecret, kMarker, kNote = 21, kTabs = 100 };

constexpr DialogControl kFrameControls[] = {
    {kTabs, ControlKind::kTabControl, u"", 6, 6, 188, 118},
    {kBrowse, ControlKind::kPushButton, u"&Browse...", 6, 130, 50, 14},
    {kOk, ControlKind::kDefaultPushButton, u"OK", 90, 130, 50, 14},
    {kCancel, ControlKind::kPushButton, u"Cancel", 145, 130, 50, 14},
};
constexpr DialogTemplate kFrame{900, u"Test Options", u"MS Shell Dlg", 8, 200,
                                150, false,           kFrameControls};

constexpr DialogControl kFirstControls[] = {
    {-1, ControlKind::kGroupBox, u"Options", 4, 2, 172, 96},
    {kRemember, ControlKind::kCheckBox, u"&Remember", 10, 12, 80, 10},
    {-1, ControlKind::kLabel, u"Count:", 10, 28, 40, 8},
    {kCount, ControlKind::kEdit, u"", 52, 26, 50, 12},
    {kCountSpin, ControlKind::kUpDown, u"", 102, 26, 10, 12},
    {kKind, ControlKind::kDropDownList, u"", 10, 44, 100, 60},
    {kSmall, ControlKind::kRadioButton, u"Small", 10, 62, 50, 10, true},
    {kLarge, ControlKind::kRadioButton, u"Large", 70, 62, 50, 10},
    {kSecret, ControlKind::kPasswordEdit, u"", 10, 78, 80, 12},
    {kMarker, ControlKind::kPlaceholder, u"SubPlaceHolder", 100, 78, 60, 8},
};
constexpr DialogTemplate kFirstPage{901, u"", u"MS Shell Dlg", 8, 180, 100, true, kFirstControls};

constexpr DialogControl kSecondControls[] = {
    {-1, ControlKind::kLabel, u"Note:", 10, 10, 40, 8},
    {kNote, ControlKind::kEdit, u"", 52, 8, 100, 12},
};
constexpr DialogTemplate kSecondPage{902, u"", u"MS Shell Dlg", 8, 180, 100, true, kSecondControls};

constexpr DialogControl kPlainControls[] = {
    {-1, ControlKind::kLabel, u"Nothing to choose here.", 10, 10, 120, 8},
    {kOk, ControlKind::kDefaultPushButton, u"OK", 40, 30, 50, 14},
};
constexpr DialogTemplate kPlain{903, u"Plain", u"MS Shell Dlg", 8, 130, 50, false, kPlainControls};

// ---------------------------------------------------------------------------------------------
// Handlers that record what they hear

struct Heard {
  int id;
  int code;
  bool checked;  // the control's state when the notification came
  int selection;
  bool operator==(const Heard&) const = default;
};

class PageHandler final : public DialogHandler {
 public:
  void OnInit(DialogWindow& window) override {
    window_ = &window;
    if (onInit) onInit(window);
  }
  void OnCommand(DialogWindow& window, int id, int code) override {
    heard.push_back({id, code, window.IsChecked(id), window.Selection(id)});
  }
  bool OnUpDown(DialogWindow&, int upDownId, int delta) override {
    spins.emplace_back(upDownId, delta);
    return handleSpins;
  }

  std::function<void(DialogWindow&)> onInit;
  std::vector<Heard> heard;
  std::vector<std::pair<int, int>> spins;
  bool handleSpins = false;
  DialogWindow* window_ = nullptr;
};

class FrameHandler final : public DialogHandler {
 public:
  void OnInit(DialogWindow& window) override {
    frame = &window;
    window.CenterOnOwner();
    pages[0] = window.CreateChild(kFirstPage, first, kTabs);
    pages[1] = window.CreateChild(kSecondPage, second, kTabs);
    window.InsertTab(kTabs, 0, u"First page");
    window.InsertTab(kTabs, 1, u"Second tab");
    window.SelectTab(kTabs, 0);
    ShowSelected(window);
    if (afterInit) afterInit(window);
  }
  void OnCommand(DialogWindow& window, int id, int) override {
    if (id == kOk || id == kCancel) window.EndDialog(id);
    if (id == kBrowse && onBrowse) onBrowse(window);
  }
  void OnTabChange(DialogWindow& window, int id) override {
    tabChanges.push_back(window.SelectedTab(id));
    ShowSelected(window);
  }

  void ShowSelected(DialogWindow& window) {
    const int selected = window.SelectedTab(kTabs);
    const DialogRect area = window.TabDisplayArea(kTabs);
    for (int i = 0; i < 2; ++i) {
      if (pages[i] == nullptr) continue;
      if (i == selected) pages[i]->SetPlace(area);
      pages[i]->ShowWindow(i == selected);
    }
  }

  PageHandler first;
  PageHandler second;
  DialogWindow* frame = nullptr;
  std::array<DialogWindow*, 2> pages{};
  std::vector<int> tabChanges;
  std::function<void(DialogWindow&)> afterInit;
  std::function<void(DialogWindow&)> onBrowse;
};

// ---------------------------------------------------------------------------------------------
// The fixture: runs dialogs and plays the user

GtkWidget* FindNamed(GtkWidget* widget, const std::string& name) {
  if (name == gtk_widget_get_name(widget)) return widget;
  if (!GTK_IS_CONTAINER(widget)) return nullptr;
  GList* children = gtk_container_get_children(GTK_CONTAINER(widget));
  GtkWidget* found = nullptr;
  for (GList* child = children; child != nullptr && found == nullptr; child = child->next) {
    found = FindNamed(GTK_WIDGET(child->data), name);
  }
  g_list_free(children);
  return found;
}

class GtkDialogsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!xvfbReady) GTEST_SKIP() << "Xvfb is not installed";
    ASSERT_TRUE(CanShowDialogs());
  }

  // Runs the frame of the tests; `user` plays once the dialog is up and should end it.
  int Run(FrameHandler& handler, std::function<void(GtkWidget*)> user) {
    handler.afterInit = [this, user = std::move(user)](DialogWindow& window) {
      user_ = user;
      window_ = static_cast<GtkWidget*>(window.Handle());
      g_timeout_add(50, &GtkDialogsTest::PlayUser, this);
    };
    return RunModalDialog(kFrame, handler, nullptr);
  }

  static gboolean PlayUser(gpointer data) {
    auto* test = static_cast<GtkDialogsTest*>(data);
    test->user_(test->window_);
    return G_SOURCE_REMOVE;
  }

  static GtkWidget* Widget(GtkWidget* window, const std::string& name) {
    GtkWidget* widget = FindNamed(window, name);
    EXPECT_NE(widget, nullptr) << name;
    return widget;
  }

  // Clicks the control with `id` as the user would.
  static void Click(GtkWidget* window, int id, const char* part = "") {
    GtkWidget* widget = Widget(window, "control-" + std::to_string(id) + part);
    if (widget != nullptr) gtk_button_clicked(GTK_BUTTON(widget));
  }

  std::function<void(GtkWidget*)> user_;
  GtkWidget* window_ = nullptr;
};

TEST_F(GtkDialogsTest, SettersReadBackWithoutNotifying) {
  FrameHandler handler;
  handler.first.onInit = [](DialogWindow& page) {
    page.SetText(kSecret, u"p\u00e4ss");
    EXPECT_EQ(page.GetText(kSecret), u"p\u00e4ss");
    int next = 0;
    for (const char16_t* row : {u"Alpha", u"Beta", u"Gamma"}) {
      EXPECT_EQ(page.AddRow(kKind, row), next++);
    }
    page.Select(kKind, 1);
    EXPECT_EQ(page.GetText(kKind), u"Beta");
    EXPECT_EQ(page.RowText(kKind, 2), u"Gamma");
    page.Select(kKind, 7);
    EXPECT_EQ(page.Selection(kKind), -1);
    page.Select(kKind, 2);
    page.SetText(kCount, u"42");

    // Radio buttons start unchecked, as a template's do, and can all be cleared again.
    EXPECT_FALSE(page.IsChecked(kSmall) || page.IsChecked(kLarge));
    page.SetChecked(kLarge, true);
    EXPECT_TRUE(page.IsChecked(kLarge));
    page.SetChecked(kLarge, false);
    EXPECT_FALSE(page.IsChecked(kSmall) || page.IsChecked(kLarge));
    page.SetChecked(kRemember, true);
    EXPECT_TRUE(page.IsChecked(kRemember));

    page.Enable(kSecret, false);
    EXPECT_FALSE(page.IsEnabled(kSecret));
    EXPECT_TRUE(page.IsVisible(kMarker));
    page.Show(kMarker, false);
    EXPECT_FALSE(page.IsVisible(kMarker));

    // Ids the page does not hold.
    page.SetText(999, u"x");
    EXPECT_EQ(page.GetText(999), u"");
    EXPECT_FALSE(page.IsChecked(999));
    EXPECT_EQ(page.Selection(999), -1);
    EXPECT_EQ(page.AddRow(kCount, u"not a list"), -1);
    EXPECT_EQ(page.ControlRect(999), DialogRect{});
  };
  int selectedAtEnd = -2;
  std::u16string countAtEnd;
  EXPECT_EQ(Run(handler,
                [&](GtkWidget*) {
                  selectedAtEnd = handler.pages[0]->Selection(kKind);
                  countAtEnd = handler.pages[0]->GetText(kCount);
                  handler.frame->EndDialog(42);
                }),
            42);
  EXPECT_TRUE(handler.first.heard.empty() && handler.tabChanges.empty());
  EXPECT_EQ(selectedAtEnd, 2);
  EXPECT_EQ(countAtEnd, u"42");
}

TEST_F(GtkDialogsTest, PlacesControlsInDialogUnitsOfTheFont) {
  FrameHandler handler;
  DialogRect frame, button, tabs, area, edit, spin;
  Run(handler, [&](GtkWidget*) {
    frame = handler.frame->TemplateSize();
    button = handler.frame->ControlRect(kOk);
    tabs = handler.frame->ControlRect(kTabs);
    area = handler.frame->TabDisplayArea(kTabs);
    edit = handler.pages[0]->ControlRect(kCount);
    spin = handler.pages[0]->ControlRect(kCountSpin);
    handler.frame->EndDialog(kCancel);
  });
  // A sans font at 8 points is 5 to 8 pixels wide on average and 11 to 16 high.
  EXPECT_TRUE(frame.Width() >= 200 * 5 / 4 && frame.Width() <= 200 * 8 / 4) << frame.Width();
  EXPECT_TRUE(frame.Height() >= 150 * 11 / 8 && frame.Height() <= 150 * 16 / 8) << frame.Height();
  // The same scale for every rectangle: the OK button is 50 of the frame's 200 units wide.
  EXPECT_NEAR(button.Width() * 4.0, frame.Width(), 4.0);
  EXPECT_NEAR(button.left * 200.0 / 90.0, frame.Width(), 4.0);
  // The display area lies inside the tab control, below its row of tabs.
  EXPECT_TRUE(area.top > 12 && area.left > 0 && area.right < tabs.Width() &&
              area.bottom < tabs.Height());
  // The arrows take the right end of the edit before them.
  EXPECT_EQ(spin, (DialogRect{edit.right, edit.top, edit.right + spin.Width(), spin.bottom}));
}

TEST_F(GtkDialogsTest, UserActionsNotifyAfterTheStateChanged) {
  FrameHandler handler;
  handler.first.onInit = [](DialogWindow& page) {
    page.SetText(kCount, u"42");
    for (const char16_t* row : {u"Alpha", u"Beta", u"Gamma"}) page.AddRow(kKind, row);
    page.SetChecked(kSmall, true);
  };
  std::vector<std::u16string> countAfterSpins;
  std::vector<bool> pagesShown;
  EXPECT_EQ(
      Run(handler,
          [&](GtkWidget* window) {
            Click(window, kRemember);
            Click(window, kLarge);
            gtk_combo_box_set_active(GTK_COMBO_BOX(Widget(window, "control-13")), 2);
            Click(window, kCountSpin, "-up");  // not handled: the edit steps itself
            countAfterSpins.push_back(handler.pages[0]->GetText(kCount));
            handler.first.handleSpins = true;
            Click(window, kCountSpin, "-down");
            countAfterSpins.push_back(handler.pages[0]->GetText(kCount));
            gtk_notebook_set_current_page(GTK_NOTEBOOK(Widget(window, "control-100")), 1);
            pagesShown = {handler.pages[0]->IsWindowVisible(), handler.pages[1]->IsWindowVisible()};
            Click(window, kOk);
          }),
      kOk);
  // Only the radio button turned on is heard, not the one the group turned off.
  EXPECT_EQ(handler.first.heard, (std::vector<Heard>{{kRemember, BN_CLICKED, true, -1},
                                                     {kLarge, BN_CLICKED, true, -1},
                                                     {kKind, CBN_SELCHANGE, false, 2}}));
  EXPECT_EQ(handler.first.spins,
            (std::vector<std::pair<int, int>>{{kCountSpin, 1}, {kCountSpin, -1}}));
  EXPECT_EQ(countAfterSpins, (std::vector<std::u16string>{u"43", u"43"}));
  EXPECT_EQ(handler.tabChanges, std::vector<int>{1});
  EXPECT_EQ(pagesShown, (std::vector<bool>{false, true}));
}

void PressEscape(GtkWidget* window) {
  GdkEvent* key = gdk_event_new(GDK_KEY_PRESS);
  key->key.window = GDK_WINDOW(g_object_ref(gtk_widget_get_window(window)));
  key->key.keyval = GDK_KEY_Escape;
  gdk_event_set_device(
      key, gdk_seat_get_keyboard(gdk_display_get_default_seat(gdk_display_get_default())));
  gtk_widget_event(window, key);
  gdk_event_free(key);
}

TEST_F(GtkDialogsTest, CloseBoxAndEscapeEndAsCancel) {
  for (void (*user)(GtkWidget*) :
       {+[](GtkWidget* window) { gtk_window_close(GTK_WINDOW(window)); }, &PressEscape}) {
    SCOPED_TRACE(user == &PressEscape ? "escape" : "close box");
    FrameHandler handler;
    EXPECT_EQ(Run(handler, user), kCancel);
  }
}

// Once a file chooser shows: picks the file named by `data` (a std::string) and accepts, or
// cancels for no data.
gboolean AnswerChooser(gpointer data) {
  GtkFileChooser* chooser = nullptr;
  GList* windows = gtk_window_list_toplevels();
  for (GList* window = windows; window != nullptr; window = window->next) {
    if (GTK_IS_FILE_CHOOSER_DIALOG(window->data) &&
        gtk_widget_get_visible(GTK_WIDGET(window->data))) {
      chooser = GTK_FILE_CHOOSER(window->data);
    }
  }
  g_list_free(windows);
  if (chooser == nullptr) return G_SOURCE_CONTINUE;
  const auto* path = static_cast<const std::string*>(data);
  if (path != nullptr) {
    gchar* current = gtk_file_chooser_get_filename(chooser);
    const bool picked = current != nullptr && *path == current;
    g_free(current);
    if (!picked) {
      gtk_file_chooser_set_filename(chooser, path->c_str());
      return G_SOURCE_CONTINUE;
    }
  }
  gtk_dialog_response(GTK_DIALOG(chooser),
                      path != nullptr ? GTK_RESPONSE_ACCEPT : GTK_RESPONSE_CANCEL);
  return G_SOURCE_REMOVE;
}

TEST_F(GtkDialogsTest, BrowseOpensTheFileChooserOverTheDialog) {
  TempFolder folder;
  std::string chosen = folder.Write("tool.sh", "#!/bin/sh\n", true);
  const std::u16string initial = folder.WidePathOf("");
  const struct {
    const char* name;
    bool accept;
    bool queued;  // an answer queued in advance is taken without showing the chooser
  } cases[] = {{"accepted", true, false}, {"cancelled", false, false}, {"queued", true, true}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    FrameHandler handler;
    BOOL answered = -1;
    std::array<char16_t, 512> buffer{};
    handler.onBrowse = [&](DialogWindow& window) {
      OpenFileNameW question{};
      question.lStructSize = sizeof(question);
      question.hwndOwner = window.Handle();
      question.lpstrFilter = u"Scripts\0*.sh\0All files\0*\0";
      question.nFilterIndex = 1;
      question.lpstrFile = buffer.data();
      question.nMaxFile = static_cast<DWORD>(buffer.size());
      question.lpstrInitialDir = initial.c_str();
      if (c.queued) {
        ASSERT_TRUE(QueueFileDialogAnswer(Utf8ToUtf16(chosen)));
      }
      // A chooser shown against the queued answer is cancelled, and the test fails rather than
      // hangs.
      const guint player =
          g_timeout_add(100, &AnswerChooser, c.accept && !c.queued ? &chosen : nullptr);
      answered = GetOpenFileNameW(&question);
      if (g_main_context_find_source_by_id(nullptr, player) != nullptr) g_source_remove(player);
    };
    Run(handler, [](GtkWidget* window) {
      Click(window, kBrowse);
      Click(window, kCancel);
    });
    EXPECT_EQ(answered, c.accept ? TRUE : FALSE);
    EXPECT_EQ(buffer.data(), c.accept ? Utf8ToUtf16(chosen) : u"");
  }
}

// ---------------------------------------------------------------------------------------------
// Snapshots

struct Picture {
  int width = 0;
  int height = 0;
  int colours = 0;  // distinct colours, counted up to 16
};

Picture ReadPicture(const std::string& path) {
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  if (!png_image_begin_read_from_file(&image, path.c_str())) return {};
  image.format = PNG_FORMAT_RGB;
  std::vector<png_byte> pixels(PNG_IMAGE_SIZE(image));
  if (!png_image_finish_read(&image, nullptr, pixels.data(), 0, nullptr)) return {};
  std::vector<std::uint32_t> seen;
  for (std::size_t i = 0; i + 2 < pixels.size() && seen.size() < 16; i += 3) {
    const std::uint32_t colour = pixels[i] << 16 | pixels[i + 1] << 8 | pixels[i + 2];
    if (std::find(seen.begin(), seen.end(), colour) == seen.end()) seen.push_back(colour);
  }
  return {static_cast<int>(image.width), static_cast<int>(image.height),
          static_cast<int>(seen.size())};
}

TEST_F(GtkDialogsTest, SnapshotsShowEveryTabOrTheWholeDialogAndEndAsCancel) {
  TempFolder folder;
  ::mrwl::testing::ScopedEnv snapshots("MRWL_DIALOG_SNAPSHOTS", folder.path().string());
  FrameHandler handler;
  DialogRect size;
  handler.afterInit = [&](DialogWindow& window) { size = window.TemplateSize(); };
  EXPECT_EQ(RunModalDialog(kFrame, handler, nullptr), kCancel);
  // Every tab came to the front as the user's choice, so the logic placed its page.
  EXPECT_EQ(handler.tabChanges, (std::vector<int>{0, 1}));
  for (const char* name : {"0-first-page.png", "1-second-tab.png"}) {
    SCOPED_TRACE(name);
    const Picture picture = ReadPicture(folder.PathOf(name));
    EXPECT_EQ(picture.width, size.Width());
    EXPECT_EQ(picture.height, size.Height());
    EXPECT_GE(picture.colours, 3);
  }
  EXPECT_NE(folder.Read("0-first-page.png"), folder.Read("1-second-tab.png"));

  PageHandler plain;  // a dialog without tabs: one snapshot
  EXPECT_EQ(RunModalDialog(kPlain, plain, nullptr), kCancel);
  const Picture picture = ReadPicture(folder.PathOf("0-dialog.png"));
  EXPECT_GT(picture.width, 130);
  EXPECT_GE(picture.colours, 3);
}

// ---------------------------------------------------------------------------------------------
// No display

TEST(GtkDialogsNoDisplay, RunModalDialogIsNotSupported) {
  if (!childRun) {
    // The toolkit is looked for once per process, so a process of its own without a display.
    TempFolder folder;
    const std::string self = std::filesystem::read_symlink("/proc/self/exe").string();
    const auto outcome = ::mrwl::testing::RunCommand(
        "env -u DISPLAY -u WAYLAND_DISPLAY MRWL_GTK_TEST_CHILD=1 " +
            ::mrwl::testing::ShellQuote(self) + " --gtest_filter=GtkDialogsNoDisplay.*",
        folder);
    EXPECT_EQ(outcome.status, 0) << outcome.out << outcome.err;
    EXPECT_NE(outcome.out.find("[  PASSED  ] 1 test"), std::string::npos) << outcome.out;
    return;
  }
  PageHandler handler;
  EXPECT_FALSE(CanShowDialogs());
  SetLastError(0);
  EXPECT_EQ(RunModalDialog(kPlain, handler, nullptr), -1);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NOT_SUPPORTED));
  EXPECT_EQ(handler.window_, nullptr);
}

}  // namespace
}  // namespace mrwl::platform
