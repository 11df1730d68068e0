// The portfolio: one PDF collection holding the mails of a run, with a cover page listing them.
#include <algorithm>
#include <exception>
#include <string>
#include <string_view>
#include <vector>

#include "converter/pdf_finish.h"

// qpdf's own smart pointers only, not its deprecated PointerHolder.
#define POINTERHOLDER_TRANSITION 4
#include <qpdf/QPDF.hh>
#include <qpdf/QPDFEFStreamObjectHelper.hh>
#include <qpdf/QPDFEmbeddedFileDocumentHelper.hh>
#include <qpdf/QPDFFileSpecObjectHelper.hh>
#include <qpdf/QPDFObjectHandle.hh>

#include "platform/utf.h"

namespace mrwl::converter {
namespace {

// The columns of the collection, in their display order. The four that most mails fill are
// shown at first; the rest are there for the reader to switch on.
struct SchemaField {
  const char* key;  // the /CI key and the schema key, without the slash
  const char* subtype;
  bool visible;
};

constexpr SchemaField kSchema[] = {
    {"From", "/S", true},        {"To", "/S", true},           {"Cc", "/S", false},
    {"Bcc", "/S", false},        {"Subject", "/S", true},      {"Received", "/D", true},
    {"Importance", "/S", false}, {"Sensitivity", "/S", false},
};

QPDFObjectHandle Name(const std::string& name) { return QPDFObjectHandle::newName(name); }

QPDFObjectHandle Text(std::u16string_view text) {
  return QPDFObjectHandle::newUnicodeString(platform::Utf16ToUtf8(text));
}

QPDFObjectHandle CollectionSchema() {
  QPDFObjectHandle schema = QPDFObjectHandle::newDictionary();
  schema.replaceKey("/Type", Name("/CollectionSchema"));
  int order = 1;
  for (const SchemaField& field : kSchema) {
    QPDFObjectHandle entry = QPDFObjectHandle::newDictionary();
    entry.replaceKey("/Type", Name("/CollectionField"));
    entry.replaceKey("/Subtype", Name(field.subtype));
    entry.replaceKey("/N", QPDFObjectHandle::newUnicodeString(field.key));
    entry.replaceKey("/O", QPDFObjectHandle::newInteger(order++));
    entry.replaceKey("/V", QPDFObjectHandle::newBool(field.visible));
    schema.replaceKey(std::string("/") + field.key, entry);
  }
  return schema;
}

// A mail's values for the columns. A received time of 0 is a mail never received (a draft);
// it gets no date rather than one in 1899.
QPDFObjectHandle CollectionItem(const MailRecord& record) {
  QPDFObjectHandle item = QPDFObjectHandle::newDictionary();
  item.replaceKey("/Type", Name("/CollectionItem"));
  item.replaceKey("/From", Text(record.from));
  item.replaceKey("/To", Text(record.to));
  item.replaceKey("/Cc", Text(record.cc));
  item.replaceKey("/Bcc", Text(record.bcc));
  item.replaceKey("/Subject", Text(record.subject));
  if (record.receivedTime != 0.0) {
    item.replaceKey("/Received",
                    QPDFObjectHandle::newString(OleDateToPdfDate(record.receivedTime)));
  }
  item.replaceKey("/Importance", Text(record.importance));
  item.replaceKey("/Sensitivity", Text(record.sensitivity));
  return item;
}

void AddCollection(QPDF& pdf) {
  QPDFObjectHandle collection = QPDFObjectHandle::newDictionary();
  collection.replaceKey("/Type", Name("/Collection"));
  collection.replaceKey("/Schema", CollectionSchema());
  QPDFObjectHandle sort = QPDFObjectHandle::newDictionary();
  sort.replaceKey("/Type", Name("/CollectionSort"));
  sort.replaceKey("/S", Name("/Received"));
  sort.replaceKey("/A", QPDFObjectHandle::newBool(true));
  collection.replaceKey("/Sort", sort);
  collection.replaceKey("/View", Name("/D"));
  QPDFObjectHandle root = pdf.getRoot();
  root.replaceKey("/Collection", pdf.makeIndirectObject(collection));
  root.replaceKey("/PageMode", Name("/UseAttachments"));
}

// qpdf 11.3 splits a name tree of 49 and more entries into kids and leaves /Limits on the root
// node, which a root must not carry; readers that trust it then miss names outside the range.
void RemoveRootLimits(QPDF& pdf) {
  QPDFObjectHandle names = pdf.getRoot().getKey("/Names");
  if (!names.isDictionary()) return;
  QPDFObjectHandle tree = names.getKey("/EmbeddedFiles");
  if (tree.isDictionary() && tree.hasKey("/Limits")) tree.removeKey("/Limits");
}

std::string Escape(std::u16string_view text) {
  std::string escaped;
  for (char c : platform::Utf16ToUtf8(text)) {
    switch (c) {
      case '&':
        escaped += "&amp;";
        break;
      case '<':
        escaped += "&lt;";
        break;
      case '>':
        escaped += "&gt;";
        break;
      case '"':
        escaped += "&quot;";
        break;
      case '\'':
        escaped += "&#39;";
        break;
      default:
        escaped += c;
    }
  }
  return escaped;
}

// "2024-03-05 14:07" from the PDF date, or nothing for a mail never received.
std::string DisplayDate(double oleDate) {
  if (oleDate == 0.0) return {};
  const std::string date = OleDateToPdfDate(oleDate);  // D:YYYYMMDDHHmmSS
  return date.substr(2, 4) + "-" + date.substr(6, 2) + "-" + date.substr(8, 2) + " " +
         date.substr(10, 2) + ":" + date.substr(12, 2);
}

// The entries in the order of the collection's sort, ties in their given order.
std::vector<const PortfolioEntry*> ByReceived(const std::vector<PortfolioEntry>& entries) {
  std::vector<const PortfolioEntry*> sorted;
  for (const PortfolioEntry& entry : entries) sorted.push_back(&entry);
  std::stable_sort(sorted.begin(), sorted.end(), [](const auto* a, const auto* b) {
    return a->record.receivedTime < b->record.receivedTime;
  });
  return sorted;
}

}  // namespace

std::string PortfolioCoverHtml(std::u16string_view folder, std::u16string_view user,
                               const std::vector<PortfolioEntry>& entries) {
  std::string html =
      "<!DOCTYPE html>\n<html><head><meta charset=\"utf-8\"><title>" + Escape(folder) +
      "</title>\n<style>body{font-family:sans-serif;margin:2em}"
      "table{border-collapse:collapse;width:100%}"
      "th,td{text-align:left;padding:4px 8px;border-bottom:1px solid #ccc;vertical-align:top}"
      "th{border-bottom:2px solid #666}</style></head>\n<body>\n<h1>" +
      Escape(folder) + "</h1>\n<p class=\"user\">" + Escape(user) + "</p>\n";
  if (entries.empty()) {
    html += "<p class=\"empty\">No mails</p>\n";
  } else {
    html += "<table>\n<tr><th>From</th><th>Subject</th><th>Received</th></tr>\n";
    for (const PortfolioEntry* entry : ByReceived(entries)) {
      html += "<tr><td>" + Escape(entry->record.from) + "</td><td>" +
              Escape(entry->record.subject) + "</td><td>" +
              DisplayDate(entry->record.receivedTime) + "</td></tr>\n";
    }
    html += "</table>\n";
  }
  html += "</body></html>\n";
  return html;
}

bool BuildPortfolio(std::string_view coverPdf, const std::vector<PortfolioEntry>& entries,
                    const FinishOptions& options, const std::string& outputPath,
                    std::vector<std::string>& notes, std::string& error) {
  try {
    QPDF portfolio;
    portfolio.setSuppressWarnings(true);
    portfolio.processMemoryFile("the portfolio's cover page", coverPdf.data(), coverPdf.size());
    QPDFEmbeddedFileDocumentHelper embedded(portfolio);

    int number = 0;
    for (const PortfolioEntry& entry : entries) {
      ++number;
      const MailRecord& record = entry.record;
      const std::u16string fileName =
          record.fileName.empty()
              ? u"Mail " + platform::Utf8ToUtf16(std::to_string(number)) + u".pdf"
              : record.fileName;
      // The mail itself goes in as an embedded file like its attachments, but from memory.
      QPDFEFStreamObjectHelper stream =
          QPDFEFStreamObjectHelper::createEFStream(portfolio, entry.pdf);
      stream.setSubtype("application/pdf");
      const std::string name = platform::Utf16ToUtf8(fileName);
      QPDFFileSpecObjectHelper fileEntry =
          QPDFFileSpecObjectHelper::createFileSpec(portfolio, name, stream);
      std::string key = name;
      for (int n = 2; embedded.getEmbeddedFile(key) != nullptr; ++n) {
        key = name + " (" + std::to_string(n) + ")";
      }
      // The attachments share the mail's values, so the sort on Received keeps them beside it.
      QPDFObjectHandle item = portfolio.makeIndirectObject(CollectionItem(record));
      fileEntry.getObjectHandle().replaceKey("/CI", item);
      embedded.replaceEmbeddedFile(key, fileEntry);

      std::vector<QPDFObjectHandle> attachmentEntries;
      if (!internal::EmbedFiles(portfolio, entry.attachments, &attachmentEntries, error)) {
        error = "Mail \"" + name + "\": " + error;
        return false;
      }
      for (QPDFObjectHandle& attachment : attachmentEntries) attachment.replaceKey("/CI", item);
    }

    AddCollection(portfolio);
    RemoveRootLimits(portfolio);
    return internal::WritePdf(portfolio, options, outputPath, notes, error);
  } catch (const std::exception& exception) {
    error = std::string("The portfolio could not be made: ") + exception.what();
  } catch (...) {
    error = "The portfolio could not be made";
  }
  return false;
}

}  // namespace mrwl::converter
