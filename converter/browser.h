// Headless Chromium, started once per run and driven over its DevTools pipe, as the renderer of
// the exported pages.
//
// The browser gets a fresh private profile in a temporary folder, which goes with the Browser
// object. Pages load only file: URLs below the allowed folder; every other request (remote
// images, fonts, links followed by the page) is failed before it leaves the machine. JavaScript
// is off for every page.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace mrwl::converter {

struct BrowserOptions {
  // The browser binary; empty: MRWL_CHROMIUM, else chromium or chromium-browser on PATH.
  std::string executable;
  // Only file: URLs below this folder are loaded (UTF-8 path, ending without a separator).
  std::string allowedFolder;
};

// One page to print. Lengths of paper and margins are in points.
struct PrintRequest {
  std::string pagePath;          // UTF-8 path of the HTML page
  std::uint32_t viewportWidth;   // layout width in CSS pixels (\iw)
  std::uint32_t viewportHeight;  // (\ih)
  std::uint32_t loadDelayMs;     // waited after the load event (\ld)
  double paperWidth;             // already exchanged with the height for landscape
  double paperHeight;
  double marginTop, marginBottom, marginLeft, marginRight;
  bool backgrounds;  // print background colours and images (\b)
};

class Browser {
 public:
  virtual ~Browser() = default;
  // Starts the browser. Null with `error` in plain words when no browser is found (naming the
  // Debian package to install) or it does not start.
  static std::unique_ptr<Browser> Start(const BrowserOptions& options, std::string& error);
  // Renders one page to PDF bytes, scaled so that the viewport width fits the printable width.
  // False with `error` in plain words; the browser stays usable for the next page unless it died.
  virtual bool PrintToPdf(const PrintRequest& request, std::string& pdf, std::string& error) = 0;
  // Renders an HTML document given as text (the portfolio's cover page) at the paper's own width.
  virtual bool PrintHtmlToPdf(std::string_view html, const PrintRequest& paper, std::string& pdf,
                              std::string& error) = 0;
};

}  // namespace mrwl::converter
