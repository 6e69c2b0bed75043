#include "support/xml_object.h"

#include <libxml/parser.h>
#include <libxml/tree.h>

#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "support/limits.h"

namespace vx {

const char* const kXsiNamespace = "http://www.w3.org/2001/XMLSchema-instance";

namespace {

const xmlChar* X(const char* s) { return reinterpret_cast<const xmlChar*>(s); }

std::string TakeXmlString(xmlChar* s) {
  if (!s) return {};
  std::string out(reinterpret_cast<const char*>(s));
  xmlFree(s);
  return out;
}

// Documents never reach the network and never load external DTDs; entities
// are not substituted.
constexpr int kParseOptions = XML_PARSE_NONET | XML_PARSE_NOCDATA;

}  // namespace

std::string XmlQName::ToString() const { return ns.empty() ? local : "{" + ns + "}" + local; }

// ---- framework messages ----

LogMessageDefinition XmlObject::msg_index_out_of_range() {
  return {"XML_OBJECT_INDEX_OUT_OF_RANGE", "Index {index} is out of range of {object} (size {size})",
          LogLevel::Error};
}
LogMessageDefinition XmlObject::msg_parent_not_set() {
  return {"XML_OBJECT_PARENT_NOT_SET", "Parent is not set for object '{object}'", LogLevel::Error};
}
LogMessageDefinition XmlObject::msg_duplicate_object() {
  return {"XML_OBJECT_DUPLICATE", "Duplicate object: '{name}' at line {line} in file {file}",
          LogLevel::Error};
}
LogMessageDefinition XmlObject::msg_missing_required_attribute() {
  return {"XML_OBJECT_MISSING_ATTRIBUTE",
          "Missing required attribute '{attribute}' in element '{element}' at line {line} in file "
          "{file}",
          LogLevel::Error};
}
LogMessageDefinition XmlObject::msg_cannot_create_object() {
  return {"XML_OBJECT_UNKNOWN_TYPE",
          "Cannot create object of unknown type '{type}' for element '{element}' at line {line} in "
          "file {file}",
          LogLevel::Error};
}
LogMessageDefinition XmlObject::msg_unexpected_content() {
  return {"XML_OBJECT_UNEXPECTED_CONTENT",
          "Expected {expected} but found {found} at line {line} in file {file}", LogLevel::Error};
}
LogMessageDefinition XmlObject::msg_xml_parse_error() {
  return {"XML_PARSE_ERROR", "Malformed XML at line {line} in file {file}: {error}",
          LogLevel::Error};
}
LogMessageDefinition XmlObject::msg_invalid_attribute_value() {
  return {"XML_OBJECT_INVALID_ATTRIBUTE",
          "Invalid value '{Value}' for attribute '{attribute}' at line {line} in file {file}",
          LogLevel::Error};
}
LogMessageDefinition XmlObject::msg_cannot_open_file() {
  return {"XML_CANNOT_OPEN_FILE", "Cannot open XML file '{file}'", LogLevel::Error};
}

void XmlObject::RaiseIndexOutOfRange(uint64_t index, uint64_t size, const std::string& object) {
  VX_RAISE(msg_index_out_of_range, object, {"index", index}, {"size", size}, {"object", object});
}

void XmlObject::RaiseParentNotSet(const std::string& object) {
  VX_RAISE(msg_parent_not_set, object, {"object", object});
}

void RaiseDuplicateObject(const XmlNamedObject& object) {
  VX_RAISE(XmlObject::msg_duplicate_object, object.GetName(), {"name", object.GetName()},
           {"line", object.GetSourcePosition()}, {"file", object.GetSourceFile()});
}

void SetFaultLocation(ExceptionType& e, const XmlReaderContext& reader) {
  const LogMessage& m = e.GetMessage();
  const std::string* line = m.FindValue("line");
  const std::string* file = m.FindValue("file");
  if (line && file && !line->empty()) {
    e.SetDocumentLocation(file->empty() ? reader.GetFileName() : *file, std::atoll(line->c_str()));
  } else {
    e.SetDocumentLocation(reader.GetFileName(), reader.GetLine());
  }
}

// ---- XmlReaderContext ----

XmlReaderContext::XmlReaderContext(xmlTextReaderPtr reader, std::string file, std::string buffer)
    : m_reader(reader), m_file(std::move(file)), m_buffer(std::move(buffer)) {
  if (m_reader) xmlTextReaderSetStructuredErrorHandler(m_reader, &XmlReaderContext::OnError, this);
}

XmlReaderContext::~XmlReaderContext() {
  if (m_reader) xmlFreeTextReader(m_reader);
}

std::unique_ptr<XmlReaderContext> XmlReaderContext::FromFile(const std::string& path) {
  std::error_code ec;
  const uintmax_t size = std::filesystem::file_size(path, ec);
  if (!ec && size > GetVxLimits().max_document_bytes) RaiseDocumentTooLarge(path, size);
  xmlTextReaderPtr reader = xmlReaderForFile(path.c_str(), nullptr, kParseOptions);
  if (!reader) VX_RAISE(XmlObject::msg_cannot_open_file, path, {"file", path});
  std::unique_ptr<XmlReaderContext> ctx(new XmlReaderContext(reader, path, {}));
  return ctx;
}

std::unique_ptr<XmlReaderContext> XmlReaderContext::FromMemory(std::string text, std::string name) {
  if (text.size() > GetVxLimits().max_document_bytes) RaiseDocumentTooLarge(name, text.size());
  std::unique_ptr<XmlReaderContext> ctx(new XmlReaderContext(nullptr, std::move(name), std::move(text)));
  ctx->m_reader = xmlReaderForMemory(ctx->m_buffer.data(), static_cast<int>(ctx->m_buffer.size()),
                                     nullptr, nullptr, kParseOptions);
  if (!ctx->m_reader) VX_RAISE(XmlObject::msg_cannot_open_file, ctx->m_file, {"file", ctx->m_file});
  xmlTextReaderSetStructuredErrorHandler(ctx->m_reader, &XmlReaderContext::OnError, ctx.get());
  return ctx;
}

void XmlReaderContext::OnError(void* self, xmlErrorPtr error) {
  auto* ctx = static_cast<XmlReaderContext*>(self);
  if (!error || !ctx->m_error.empty()) return;
  ctx->m_error = error->message ? error->message : "unknown error";
  while (!ctx->m_error.empty() && (ctx->m_error.back() == '\n' || ctx->m_error.back() == ' '))
    ctx->m_error.pop_back();
  ctx->m_error_line = error->line;
}

int XmlReaderContext::GetLine() const {
  xmlNodePtr node = xmlTextReaderCurrentNode(m_reader);
  if (node) {
    long line = xmlGetLineNo(node);
    if (line > 0) return static_cast<int>(line);
  }
  return xmlTextReaderGetParserLineNumber(m_reader);
}

void XmlReaderContext::RaiseParseError() const {
  std::string error = m_error.empty() ? "unexpected end of document" : m_error;
  int line = m_error_line > 0 ? m_error_line : xmlTextReaderGetParserLineNumber(m_reader);
  VX_RAISE(XmlObject::msg_xml_parse_error, m_file, {"line", line}, {"file", m_file},
           {"error", error});
}

void XmlReaderContext::CheckDepth() const {
  const uint32_t limit = GetVxLimits().max_document_depth;
  const int depth = xmlTextReaderDepth(m_reader);
  if (depth >= 0 && static_cast<uint32_t>(depth) >= limit) {
    VX_RAISE(VX_SERVER_LIMIT_DOCUMENT_TOO_DEEP, m_file, {"limit", limit}, {"line", GetLine()},
             {"file", m_file});
  }
}

void XmlReaderContext::Next() {
  int rc = xmlTextReaderRead(m_reader);
  if (rc < 0 || !m_error.empty()) RaiseParseError();
  CheckDepth();
}

void XmlReaderContext::Skip() {
  int rc = xmlTextReaderNext(m_reader);
  if (rc < 0 || !m_error.empty()) RaiseParseError();
  CheckDepth();
}

bool XmlReaderContext::MoveToContent() {
  for (;;) {
    int type = xmlTextReaderNodeType(m_reader);
    switch (type) {
      case XML_READER_TYPE_ELEMENT:
      case XML_READER_TYPE_END_ELEMENT:
      case XML_READER_TYPE_TEXT:
      case XML_READER_TYPE_CDATA:
      case XML_READER_TYPE_ENTITY_REFERENCE:
        return true;
      default:
        break;
    }
    int rc = xmlTextReaderRead(m_reader);
    if (rc < 0 || !m_error.empty()) RaiseParseError();
    if (rc == 0) return false;
    CheckDepth();
  }
}

bool XmlReaderContext::IsStartElement() const {
  return xmlTextReaderNodeType(m_reader) == XML_READER_TYPE_ELEMENT;
}

bool XmlReaderContext::IsStartElement(std::string_view local_name) const {
  if (!IsStartElement()) return false;
  const xmlChar* name = xmlTextReaderConstLocalName(m_reader);
  return name && local_name == reinterpret_cast<const char*>(name);
}

bool XmlReaderContext::IsEndElement() const {
  return xmlTextReaderNodeType(m_reader) == XML_READER_TYPE_END_ELEMENT;
}

bool XmlReaderContext::IsEmptyElement() const { return xmlTextReaderIsEmptyElement(m_reader) == 1; }

std::string XmlReaderContext::GetLocalName() const {
  const xmlChar* name = xmlTextReaderConstLocalName(m_reader);
  return name ? reinterpret_cast<const char*>(name) : "";
}

std::optional<std::string> XmlReaderContext::GetAttribute(const char* name) const {
  xmlChar* value = xmlTextReaderGetAttribute(m_reader, X(name));
  if (!value) return std::nullopt;
  return TakeXmlString(value);
}

std::string XmlReaderContext::GetRequiredAttribute(const char* name) const {
  std::optional<std::string> value = GetAttribute(name);
  if (!value) {
    VX_RAISE(XmlObject::msg_missing_required_attribute, GetLocalName(), {"attribute", name},
             {"element", GetLocalName()}, {"line", GetLine()}, {"file", m_file});
  }
  return *value;
}

std::optional<XmlQName> XmlReaderContext::GetXsiType() const {
  xmlChar* raw = xmlTextReaderGetAttributeNs(m_reader, X("type"), X(kXsiNamespace));
  if (!raw) return std::nullopt;
  std::string value = TakeXmlString(raw);
  size_t colon = value.find(':');
  if (colon == std::string::npos) return XmlQName(value);
  std::string prefix = value.substr(0, colon);
  xmlChar* uri = xmlTextReaderLookupNamespace(m_reader, X(prefix.c_str()));
  // An undeclared prefix keeps the prefix itself in place of a namespace URI,
  // so that the name can still be reported (as an unknown type).
  std::string ns = uri ? TakeXmlString(uri) : prefix + ":";
  return XmlQName(ns, value.substr(colon + 1));
}

void XmlReaderContext::RaiseUnexpected(std::string_view expected) const {
  std::string found;
  int type = xmlTextReaderNodeType(m_reader);
  if (type == XML_READER_TYPE_ELEMENT) {
    found = "element '" + GetLocalName() + "'";
  } else if (type == XML_READER_TYPE_END_ELEMENT) {
    found = "end of element '" + GetLocalName() + "'";
  } else if (type == XML_READER_TYPE_TEXT || type == XML_READER_TYPE_CDATA) {
    found = "text";
  } else {
    found = "end of document";
  }
  VX_RAISE(XmlObject::msg_unexpected_content, m_file, {"expected", std::string(expected)},
           {"found", found}, {"line", GetLine()}, {"file", m_file});
}

void XmlReaderContext::ExpectStartElement(std::string_view local_name) {
  if (!MoveToContent() || !IsStartElement(local_name))
    RaiseUnexpected("element '" + std::string(local_name) + "'");
}

void XmlReaderContext::ReadEndElement(std::string_view local_name) {
  if (!MoveToContent() || !IsEndElement())
    RaiseUnexpected("end of element '" + std::string(local_name) + "'");
  Next();
}

std::string XmlReaderContext::ReadElementText() {
  if (IsEmptyElement()) {
    Next();
    return {};
  }
  std::string text = TakeXmlString(xmlTextReaderReadString(m_reader));
  Skip();
  return text;
}

std::string XmlReaderContext::ReadInnerXml() {
  if (IsEmptyElement()) {
    Next();
    return {};
  }
  std::string text = TakeXmlString(xmlTextReaderReadInnerXml(m_reader));
  Skip();
  return text;
}

// ---- XmlWriterContext ----

std::unique_ptr<XmlWriterContext> XmlWriterContext::ToMemory() {
  std::unique_ptr<XmlWriterContext> ctx(new XmlWriterContext());
  ctx->m_buffer = xmlBufferCreate();
  ctx->m_writer = xmlNewTextWriterMemory(ctx->m_buffer, 0);
  if (!ctx->m_writer) throw std::bad_alloc();
  xmlTextWriterSetIndent(ctx->m_writer, 1);
  xmlTextWriterSetIndentString(ctx->m_writer, X("  "));
  ctx->Check(xmlTextWriterStartDocument(ctx->m_writer, nullptr, "UTF-8", nullptr), "document");
  return ctx;
}

XmlWriterContext::~XmlWriterContext() {
  if (m_writer) xmlFreeTextWriter(m_writer);
  if (m_buffer) xmlBufferFree(m_buffer);
}

void XmlWriterContext::Check(int rc, const char* what) const {
  if (rc < 0) {
    VX_RAISE_TEXT("XML writer failed while writing {what}", "XmlWriterContext", {"what", what});
  }
}

void XmlWriterContext::StartElement(std::string_view name) {
  std::string n(name);
  Check(xmlTextWriterStartElement(m_writer, X(n.c_str())), "an element");
  if (m_depth == 0) WriteAttribute("xmlns:xsi", kXsiNamespace);
  ++m_depth;
}

void XmlWriterContext::EndElement() {
  Check(xmlTextWriterEndElement(m_writer), "an end element");
  --m_depth;
}

void XmlWriterContext::WriteAttribute(std::string_view name, std::string_view value) {
  std::string n(name), v(value);
  Check(xmlTextWriterWriteAttribute(m_writer, X(n.c_str()), X(v.c_str())), "an attribute");
}

void XmlWriterContext::WriteXsiType(const XmlQName& type) {
  if (type.ns.empty()) {
    WriteAttribute("xsi:type", type.local);
  } else {
    WriteAttribute("xmlns:t", type.ns);
    WriteAttribute("xsi:type", "t:" + type.local);
  }
}

void XmlWriterContext::WriteString(std::string_view text) {
  std::string t(text);
  Check(xmlTextWriterWriteString(m_writer, X(t.c_str())), "text");
}

void XmlWriterContext::WriteRaw(std::string_view markup) {
  std::string t(markup);
  Check(xmlTextWriterWriteRaw(m_writer, X(t.c_str())), "markup");
}

std::string XmlWriterContext::Finish() {
  Check(xmlTextWriterEndDocument(m_writer), "the end of the document");
  xmlTextWriterFlush(m_writer);
  return std::string(reinterpret_cast<const char*>(xmlBufferContent(m_buffer)),
                     static_cast<size_t>(xmlBufferLength(m_buffer)));
}

// ---- XmlObject ----

void XmlObject::XmlRead(XmlReaderContext& reader) {
  reader.ExpectStartElement(GetXmlElementName());
  SetSourceLocation(reader.GetFileName(), reader.GetLine());
  DoReadAttributes(reader);
  bool empty = reader.IsEmptyElement();
  reader.Next();
  if (!empty) {
    DoReadContent(reader);
    reader.ReadEndElement(GetXmlElementName());
  }
}

void XmlObject::XmlWrite(XmlWriterContext& writer) const {
  writer.StartElement(GetXmlElementName());
  DoWriteAttributes(writer);
  DoWriteContent(writer);
  writer.EndElement();
}

void XmlNamedObject::DoReadAttributes(XmlReaderContext& reader) {
  if (IsNameRequired()) {
    m_name = reader.GetRequiredAttribute(GetNameAttributeName());
  } else if (auto name = reader.GetAttribute(GetNameAttributeName())) {
    m_name = *name;
  }
}

void XmlNamedObject::DoWriteAttributes(XmlWriterContext& writer) const {
  writer.WriteAttribute(GetNameAttributeName(), m_name);
}

}  // namespace vx
