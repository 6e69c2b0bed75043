// The XML object framework: reading and writing engine objects as XML.
//
// Reading goes through libxml2's streaming reader (`XmlReaderContext`), which
// keeps the file name and line of every node so that every load error can
// name them; writing goes through libxml2's text writer (`XmlWriterContext`).
// An `XmlObject` reads itself from its start element (`XmlRead`: attributes,
// then content, then its end element) and writes itself back in the same
// form. Named objects live in `XmlNamedObjectList`s, which reject duplicates.
// Typed objects carry an `xsi:type` QName that selects the class to create.
//
// Parsing never loads external DTDs or entities and never touches the
// network.
#pragma once

#include <libxml/xmlreader.h>
#include <libxml/xmlwriter.h>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "support/log.h"
#include "support/ptr.h"

namespace vx {

extern const char* const kXsiNamespace;  // http://www.w3.org/2001/XMLSchema-instance

// A qualified name: namespace URI (empty for no namespace) and local name.
struct XmlQName {
  std::string ns;
  std::string local;

  XmlQName() = default;
  XmlQName(std::string local_name) : local(std::move(local_name)) {}
  XmlQName(const char* local_name) : local(local_name) {}
  XmlQName(std::string ns_uri, std::string local_name)
      : ns(std::move(ns_uri)), local(std::move(local_name)) {}

  bool operator==(const XmlQName& o) const { return ns == o.ns && local == o.local; }
  bool operator!=(const XmlQName& o) const { return !(*this == o); }
  bool operator<(const XmlQName& o) const {
    return ns != o.ns ? ns < o.ns : local < o.local;
  }
  // "local" in no namespace, "{uri}local" otherwise.
  std::string ToString() const;
};

class XmlReaderContext {
 public:
  // Throws ExceptionType when the file cannot be opened.
  static std::unique_ptr<XmlReaderContext> FromFile(const std::string& path);
  // `name` is the document name used in messages.
  static std::unique_ptr<XmlReaderContext> FromMemory(std::string text, std::string name);
  ~XmlReaderContext();
  XmlReaderContext(const XmlReaderContext&) = delete;
  XmlReaderContext& operator=(const XmlReaderContext&) = delete;

  const std::string& GetFileName() const { return m_file; }
  // Line of the current node (1-based), 0 before the first read.
  int GetLine() const;

  // Skips whitespace, comments, processing instructions and the doctype.
  // Returns false at the end of the document.
  bool MoveToContent();
  bool IsStartElement() const;
  bool IsStartElement(std::string_view local_name) const;
  bool IsEndElement() const;
  bool IsEmptyElement() const;
  std::string GetLocalName() const;
  // Advances to the next node; raises on a parse error.
  void Next();
  // Skips the current element with its subtree.
  void Skip();

  std::optional<std::string> GetAttribute(const char* name) const;
  // Raises "Missing required attribute ..." with the element, file and line.
  std::string GetRequiredAttribute(const char* name) const;
  // The xsi:type of the current element, resolved through the in-scope
  // namespace declarations; nullopt when absent.
  std::optional<XmlQName> GetXsiType() const;

  // Moves to content and requires a start element named `local_name`.
  void ExpectStartElement(std::string_view local_name);
  // Moves to content, requires the end of the current element and passes it.
  void ReadEndElement(std::string_view local_name);
  // At a start element: its text content (descendants' text included); the
  // reader moves past the element.
  std::string ReadElementText();
  // At a start element: the markup of its children; the reader moves past the
  // element.
  std::string ReadInnerXml();

  // Raises "Unexpected ..." naming what was found instead of `expected`.
  [[noreturn]] void RaiseUnexpected(std::string_view expected) const;

 private:
  XmlReaderContext(xmlTextReaderPtr reader, std::string file, std::string buffer);
  [[noreturn]] void RaiseParseError() const;
  // Raises when the current node nests deeper than the document-depth bound.
  void CheckDepth() const;
  static void OnError(void* self, xmlErrorPtr error);

  xmlTextReaderPtr m_reader = nullptr;
  std::string m_file;
  std::string m_buffer;  // keeps in-memory documents alive while read
  std::string m_error;
  int m_error_line = 0;
};

class XmlWriterContext {
 public:
  static std::unique_ptr<XmlWriterContext> ToMemory();
  ~XmlWriterContext();
  XmlWriterContext(const XmlWriterContext&) = delete;
  XmlWriterContext& operator=(const XmlWriterContext&) = delete;

  void StartElement(std::string_view name);
  void EndElement();
  void WriteAttribute(std::string_view name, std::string_view value);
  void WriteXsiType(const XmlQName& type);
  void WriteString(std::string_view text);
  void WriteRaw(std::string_view markup);
  // Ends the document and returns what was written.
  std::string Finish();

 private:
  XmlWriterContext() = default;
  void Check(int rc, const char* what) const;

  xmlBufferPtr m_buffer = nullptr;
  xmlTextWriterPtr m_writer = nullptr;
  int m_depth = 0;
};

class XmlObject : public RefCounted {
 public:
  ~XmlObject() override = default;

  // Reads the object from its start element (where the reader must stand)
  // through its end element.
  virtual void XmlRead(XmlReaderContext& reader);
  virtual void XmlWrite(XmlWriterContext& writer) const;
  // Checks the object after reading; raises on the first fault.
  virtual void EnsureValid() {}
  const std::string& GetSourceFile() const { return m_source_file; }
  int64_t GetSourcePosition() const { return m_source_line; }
  void SetSourceLocation(std::string file, int64_t line) {
    m_source_file = std::move(file);
    m_source_line = line;
  }
  virtual const char* GetXmlElementName() const = 0;

  // Errors of the framework, shared by every object.
  static LogMessageDefinition msg_index_out_of_range();
  static LogMessageDefinition msg_parent_not_set();
  static LogMessageDefinition msg_duplicate_object();
  static LogMessageDefinition msg_missing_required_attribute();
  static LogMessageDefinition msg_cannot_create_object();
  static LogMessageDefinition msg_unexpected_content();
  static LogMessageDefinition msg_xml_parse_error();
  static LogMessageDefinition msg_invalid_attribute_value();
  static LogMessageDefinition msg_cannot_open_file();

  [[noreturn]] static void RaiseIndexOutOfRange(uint64_t index, uint64_t size,
                                                const std::string& object);
  [[noreturn]] static void RaiseParentNotSet(const std::string& object);

 protected:
  virtual void DoReadAttributes(XmlReaderContext&) {}
  virtual void DoReadContent(XmlReaderContext&) {}
  virtual void DoWriteAttributes(XmlWriterContext&) const {}
  virtual void DoWriteContent(XmlWriterContext&) const {}

 private:
  std::string m_source_file;
  int64_t m_source_line = 0;
};

class XmlNamedObject : public XmlObject, public AliasTarget {
 public:
  XmlNamedObject() = default;
  explicit XmlNamedObject(std::string name) : m_name(std::move(name)) {}

  const std::string& GetName() const { return m_name; }
  const std::string& GetNameAttribute() const { return m_name; }
  void SetName(std::string name) { m_name = std::move(name); }
  int CompareName(const std::string& other) const { return m_name.compare(other); }
  const std::string& GetAliasName() const override { return m_name; }
  static const char* GetNameAttributeName() { return "Name"; }

 protected:
  // Reads "Name" (required unless IsNameRequired() is false).
  void DoReadAttributes(XmlReaderContext& reader) override;
  void DoWriteAttributes(XmlWriterContext& writer) const override;
  virtual bool IsNameRequired() const { return true; }

 private:
  std::string m_name;
};

// An ordered list of named objects; a second object of one name is rejected
// with "Duplicate object: '{name}' at line {line} in file {file}".
template <class T>
class XmlNamedObjectList {
 public:
  void Add(Ptr<T> object) {
    const std::string& name = object->GetName();
    if (m_index.count(name)) RaiseDuplicate(*object);
    m_index.emplace(name, static_cast<unsigned>(m_items.size()));
    m_items.push_back(std::move(object));
  }
  T* Find(const std::string& name) const {
    auto it = m_index.find(name);
    return it == m_index.end() ? nullptr : m_items[it->second].Get();
  }
  bool FindPos(const std::string& name, unsigned& pos) const {
    auto it = m_index.find(name);
    if (it == m_index.end()) return false;
    pos = it->second;
    return true;
  }
  T* GetObjectByPos(unsigned pos) const {
    if (pos >= m_items.size()) XmlObject::RaiseIndexOutOfRange(pos, m_items.size(), "list");
    return m_items[pos].Get();
  }
  const Ptr<T>& GetPtrByPos(unsigned pos) const {
    if (pos >= m_items.size()) XmlObject::RaiseIndexOutOfRange(pos, m_items.size(), "list");
    return m_items[pos];
  }
  unsigned GetSize() const { return static_cast<unsigned>(m_items.size()); }
  bool IsEmpty() const { return m_items.empty(); }
  auto begin() const { return m_items.begin(); }
  auto end() const { return m_items.end(); }

 private:
  static void RaiseDuplicate(const XmlNamedObject& object);
  std::vector<Ptr<T>> m_items;
  std::unordered_map<std::string, unsigned> m_index;
};

[[noreturn]] void RaiseDuplicateObject(const XmlNamedObject& object);

template <class T>
void XmlNamedObjectList<T>::RaiseDuplicate(const XmlNamedObject& object) {
  RaiseDuplicateObject(object);
}

// Gives a load fault its document location: the "file" and "line" the
// message names when it names them (the element at fault), otherwise where
// the reader stands.
void SetFaultLocation(ExceptionType& e, const XmlReaderContext& reader);

// A factory of objects keyed by type, with three creation arguments.
template <class Base, class Key, class A1, class A2, class A3>
class Factory_3 {
 public:
  using Creator = Ptr<Base> (*)(A1, A2, A3);
  bool Register(const Key& key, Creator creator) {
    return m_creators.emplace(key, creator).second;
  }
  // Null when no creator is registered under `key`.
  Ptr<Base> Create(const Key& key, A1 a1, A2 a2, A3 a3) const {
    auto it = m_creators.find(key);
    return it == m_creators.end() ? Ptr<Base>() : it->second(a1, a2, a3);
  }
  bool Contains(const Key& key) const { return m_creators.count(key) != 0; }

 private:
  std::map<Key, Creator> m_creators;
};

}  // namespace vx
