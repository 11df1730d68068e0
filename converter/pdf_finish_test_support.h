// What the tests of the PDF finishing and the portfolio share: a small real PDF made with qpdf,
// the qpdf tool run over a result, and the embedded files of a result. For tests only.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <utility>

// qpdf's own smart pointers only, not its deprecated PointerHolder.
#ifndef POINTERHOLDER_TRANSITION
#define POINTERHOLDER_TRANSITION 4
#endif
#include <qpdf/Buffer.hh>
#include <qpdf/QPDF.hh>
#include <qpdf/QPDFEmbeddedFileDocumentHelper.hh>
#include <qpdf/QPDFFileSpecObjectHelper.hh>
#include <qpdf/QPDFObjectHandle.hh>
#include <qpdf/QPDFPageDocumentHelper.hh>
#include <qpdf/QPDFWriter.hh>

#include "testing/temp_folder.h"

namespace mrwl::converter {

// The document's metadata, looked for among a result's bytes.
inline constexpr const char* kMetadataText = "<x:xmpmeta>marrowline metadata</x:xmpmeta>";

// A one-page PDF 1.4 showing `text` in an uncompressed content stream, with a metadata stream, a
// /Text note and, with `withLink`, a /Link annotation to a web address.
inline std::string MakePagePdf(const std::string& text, bool withLink) {
  QPDF pdf;
  pdf.emptyPDF();
  QPDFObjectHandle page = pdf.makeIndirectObject(QPDFObjectHandle::parse(
      "<< /Type /Page /MediaBox [0 0 612 792] /Resources << /Font << /F1 << /Type /Font"
      " /Subtype /Type1 /BaseFont /Helvetica >> >> >> >>"));
  page.replaceKey("/Contents", pdf.newStream("BT /F1 24 Tf 72 720 Td (" + text + ") Tj ET\n"));
  const std::string link =
      " << /Type /Annot /Subtype /Link /Rect [72 700 300 740] /A << /S /URI /URI "
      "(https://example.org/) >> >>";
  page.replaceKey("/Annots", QPDFObjectHandle::parse("[ << /Type /Annot /Subtype /Text /Rect [9 9 "
                                                     "30 30] >>" +
                                                     (withLink ? link : "") + " ]"));
  QPDFPageDocumentHelper(pdf).addPage(page, false);
  QPDFObjectHandle metadata = pdf.newStream(std::string(kMetadataText));
  metadata.replaceDict(QPDFObjectHandle::parse("<< /Type /Metadata /Subtype /XML >>"));
  pdf.getRoot().replaceKey("/Metadata", metadata);
  QPDFWriter writer(pdf);
  writer.setOutputMemory();
  writer.setCompressStreams(false);
  writer.forcePDFVersion("1.4");
  writer.write();
  std::shared_ptr<Buffer> buffer = writer.getBufferSharedPointer();
  return std::string(reinterpret_cast<const char*>(buffer->getBuffer()), buffer->getSize());
}

// Runs the qpdf tool with `arguments` over the file `path`.
inline ::mrwl::testing::CommandOutcome RunQpdf(const std::string& arguments,
                                               const std::string& path,
                                               const ::mrwl::testing::TempFolder& folder) {
  return ::mrwl::testing::RunCommand("qpdf " + arguments + " " + ::mrwl::testing::ShellQuote(path),
                                     folder);
}

// The embedded files of `path` by name-tree key: the name readers show, and the bytes.
inline std::map<std::string, std::pair<std::string, std::string>> EmbeddedFilesOf(
    const std::string& path, const std::string& password = "") {
  QPDF pdf;
  pdf.processFile(path.c_str(), password.c_str());
  std::map<std::string, std::pair<std::string, std::string>> files;
  for (const auto& [key, fileSpec] : QPDFEmbeddedFileDocumentHelper(pdf).getEmbeddedFiles()) {
    std::shared_ptr<Buffer> data = fileSpec->getEmbeddedFileStream().getStreamData();
    files[key] = {fileSpec->getFilename(),
                  std::string(reinterpret_cast<const char*>(data->getBuffer()), data->getSize())};
  }
  return files;
}

}  // namespace mrwl::converter
