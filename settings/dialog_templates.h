// The dialogs of the settings as data: one template per dialog, with the control ids by which the
// pages speak of their controls. The Windows build turns the templates into resource scripts
// (WriteResourceScript); on Linux the desktop toolkit builds its windows from them.
#pragma once

#include <span>

#include "foundation/wide_string.h"
#include "platform/dialog.h"

namespace mrwl {

// Dialog ids.
inline constexpr int kOptionsFrameDialog = 201;
inline constexpr int kPdfPageDialog = 202;
inline constexpr int kSecurityPageDialog = 215;
inline constexpr int kPermissions40Dialog = 217;
inline constexpr int kPermissions128Dialog = 219;
inline constexpr int kAdvancedPageDialog = 207;
inline constexpr int kAdvancedSubPageDialog = 103;

// Frame 201.
inline constexpr int kIdOk = 1;
inline constexpr int kIdCancel = 2;
inline constexpr int kIdReset = 3;
inline constexpr int kIdTabs = 1002;

// Page 202.
inline constexpr int kIdPaperSize = 1029;
inline constexpr int kIdPageWidth = 1003;
inline constexpr int kIdPageWidthSpin = 1004;
inline constexpr int kIdPageHeight = 1005;
inline constexpr int kIdPageHeightSpin = 1007;
inline constexpr int kIdUnits = 1028;
inline constexpr int kIdPortrait = 1008;
inline constexpr int kIdLandscape = 1009;
inline constexpr int kIdMarginTop = 1010;
inline constexpr int kIdMarginTopSpin = 1011;
inline constexpr int kIdMarginLeft = 1012;
inline constexpr int kIdMarginLeftSpin = 1013;
inline constexpr int kIdMarginBottom = 1014;
inline constexpr int kIdMarginBottomSpin = 1015;
inline constexpr int kIdMarginRight = 1016;
inline constexpr int kIdMarginRightSpin = 1017;

// Shared by several dialogs, each resolving it in its own window: the first check box of the
// security page and of both permission panels, "Convert attachments", and "Run Application After
// conversion".
inline constexpr int kIdFirstCheck = 206;
// The hidden static that marks where a page places its sub-dialog.
inline constexpr int kIdPlaceholder = 291;

// Page 215.
inline constexpr int kIdUseSecurity = 206;
inline constexpr int kIdHasUserPassword = 285;
inline constexpr int kIdUserPassword = 287;
inline constexpr int kIdHasOwnerPassword = 286;
inline constexpr int kIdOwnerPassword = 288;
inline constexpr int kIdEncryptionLevel = 290;

// Panel 217.
inline constexpr int kIdAllowPrinting40 = 206;
inline constexpr int kIdAllowChanging40 = 293;
inline constexpr int kIdAllowCopying40 = 294;
inline constexpr int kIdAllowComments40 = 295;

// Panel 219.
inline constexpr int kIdContentAccess = 292;
inline constexpr int kIdAllowCopying128 = 206;
inline constexpr int kIdChangesAllowed = 297;
inline constexpr int kIdPrinting = 298;
inline constexpr int kIdEncryptMetadata = 296;

// Page 207.
inline constexpr int kIdConvertAttachments = 206;

// Sub-page 103.
inline constexpr int kIdTargetWidth = 1020;
inline constexpr int kIdTargetWidthSpin = 1025;
inline constexpr int kIdCompression = 1031;
inline constexpr int kIdPdfVersion = 1030;
inline constexpr int kIdRunApplication = 206;
inline constexpr int kIdDefaultApplication = 207;
inline constexpr int kIdCustomApplication = 208;
inline constexpr int kIdApplicationPath = 209;
inline constexpr int kIdApplicationParameters = 210;
inline constexpr int kIdBrowse = 211;

// The template of dialog `id`; null for an id that is not one of the seven.
[[nodiscard]] const platform::DialogTemplate* FindDialogTemplate(int id) noexcept;
// All seven, in the order of their ids above.
[[nodiscard]] std::span<const platform::DialogTemplate* const> AllDialogTemplates() noexcept;

// Appends the resource-script form of `dialog` to `out`: a DIALOGEX statement with its style,
// caption, font and one control statement per control, in dialog units.
void WriteResourceScript(const platform::DialogTemplate& dialog, WideString& out);

// Gives a page the look of the tab it stands on, where the system's theme library offers it;
// skipped without a word where it does not.
void EnableThemeTexture(platform::DialogWindow& page) noexcept;

}  // namespace mrwl
