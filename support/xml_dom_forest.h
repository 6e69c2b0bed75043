// XML values: a forest of nodes in one libxml2 document.
//
// An `XmlDomForest` is the in-memory form of an XML value: a libxml2 document
// (`xmlDoc`) whose top-level nodes, in order, are the value. Unlike a
// well-formed document it may hold several top-level elements, and text,
// comments and processing instructions between them. A forest either owns its
// document (frees it when destroyed) or only refers to one that someone else
// owns. Tuple fields keep XML values as their text (see CpxTupleField_Xml);
// a forest is what the XML operators build and query between reading that
// text and writing the result back.
//
// Text form. `Read` accepts a forest ("<a/>text<b/>") or a document with a
// prolog (XML declaration, document type declaration); `ToString` writes the
// top-level nodes one after another, UTF-8, no XML declaration, no document
// type declaration. Reading and writing back is canonical: two texts that
// read to the same nodes write the same bytes, which is what comparison,
// hashing and the tuple harness rely on. Top-level text that is only white
// space is not part of a forest.
//
// Hostile input. Every value may come from outside the server, so reading
// never leaves the text it is given and every cost is bounded (XmlLimits):
//   - external entities and external DTD subsets are never loaded: no
//     network (XML_PARSE_NONET), no DTD loading, no entity substitution by
//     the parser, and while any forest operation runs, libxml2's and
//     libxslt's resource loaders refuse every URI on that thread;
//   - internal entities are expanded by the forest itself, within a byte
//     budget that also charges every expansion, after libxml2's own
//     amplification checks (XML_PARSE_HUGE is never set); a reference to an
//     external or undeclared entity refuses the document;
//   - element nesting, document size, XPath work and the memory that one
//     XPath evaluation or transformation may take are bounded;
//   - a stylesheet may not include or import other stylesheets, read
//     documents, write files, create directories or reach the network.
// A refusal is reported in the operation's XmlDomLog; nothing is thrown by
// this class except std::bad_alloc.
//
// Threads: a forest is used by one thread at a time. Forests that share no
// document may be used on different threads at once; the process-wide set-up
// (resource loaders, error routing, allocation accounting) is done once,
// on first use, under a once-flag.
#pragma once

#include <libxml/tree.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace vx {

// Bounds applied to XML values. Process-wide; set once at start-up (tests
// lower them to reach them quickly).
struct XmlLimits {
  // Longest text read as a value, and longest text written from one.
  uint32_t max_document_bytes = 64u << 20;
  // Deepest element nesting of a value.
  uint32_t max_depth = 200;
  // Bytes that internal entity references of one document may expand to;
  // every expansion also costs kEntityReferenceCost bytes.
  uint32_t max_entity_expansion_bytes = 1u << 20;
  // libxml2 XPath operations of one XPath evaluation or one transformation.
  uint64_t max_xpath_operations = 10'000'000;
  // Bytes that libxml2 and libxslt may hold at once for one XPath evaluation
  // or one transformation, beyond what they held when it started.
  uint64_t max_work_memory_bytes = 64u << 20;
  // Nesting of template calls in one transformation.
  int max_template_depth = 1000;

  static constexpr uint32_t kEntityReferenceCost = 16;
};
const XmlLimits& GetXmlLimits();
void SetXmlLimits(const XmlLimits& limits);

// The status block of forest operations: the first fault, its kind and its
// text. An operation that fails leaves its forest in a valid state (possibly
// partly changed by an edit).
class XmlDomLog {
 public:
  enum class Fault {
    kNone,
    kMalformed,     // the text is not XML
    kRefused,       // the text is XML but breaks a rule or bound of this class
    kInvalidXPath,  // an XPath expression does not compile or evaluate
    kLimit,         // an XPath evaluation or transformation went past a bound
    kTransform,     // a stylesheet does not compile or its transformation fails
    kInvalidNode,   // a name, text or target cannot form the node asked for
  };

  bool Failed() const { return m_fault != Fault::kNone; }
  Fault GetFault() const { return m_fault; }
  const std::string& GetText() const { return m_text; }
  // Records a fault; the first one recorded is kept.
  void Fail(Fault fault, std::string text);
  void Clear();

 private:
  Fault m_fault = Fault::kNone;
  std::string m_text;
};

// Where a selected node gets the inserted nodes (InsertElementsFromXPath).
enum class XmlInsertLocation { kFirst, kLast, kBefore, kAfter };

// A compiled stylesheet, for transformations that reuse one.
class XmlXsltStylesheet;

class XmlDomForest {
 public:
  // An empty forest that owns a new, empty document.
  XmlDomForest();
  // A forest over `doc` (may be null: no document); `owner` says whether the
  // forest frees it.
  XmlDomForest(xmlDocPtr doc, bool owner);
  ~XmlDomForest();
  XmlDomForest(XmlDomForest&& other) noexcept;
  XmlDomForest& operator=(XmlDomForest&& other) noexcept;
  XmlDomForest(const XmlDomForest&) = delete;
  XmlDomForest& operator=(const XmlDomForest&) = delete;

  // ---- life cycle and ownership ----

  // Attaches `doc` with the given mode, freeing an owned previous document.
  void Set(xmlDocPtr doc, bool owner);
  xmlDocPtr Get() const { return m_doc; }
  bool IsDocOwner() const { return m_owner; }
  // Detaches the document (stored in `doc` when given) and returns whether
  // the forest owned it; the forest is then empty and owns nothing.
  bool Release(xmlDocPtr* doc = nullptr);
  // Replaces the forest by the value read from `length` bytes of `text`.
  // False (the forest then empty) when the text is not XML or is refused.
  bool Read(const char* text, size_t length, XmlDomLog& log);
  bool Read(std::string_view text, XmlDomLog& log) { return Read(text.data(), text.size(), log); }

  // ---- text ----

  // Appends the text form to `out`; `format` indents elements whose content
  // is only elements. False when the text would exceed the document bound.
  bool ToString(std::string& out, XmlDomLog& log, bool format = false) const;
  // The hash of the text form (0 for an empty forest).
  uint64_t Hash() const;
  static uint64_t HashText(std::string_view text);

  // ---- queries ----

  size_t GetTopElementsCount() const;
  // The i-th top-level node, or null.
  xmlNodePtr GetTopElement(size_t i) const;
  // True when the forest is exactly one element, with nothing beside it but
  // comments and processing instructions (as around a document's element).
  bool HasExactlyOneTopElement() const;
  // That element, or null when HasExactlyOneTopElement is false.
  xmlNodePtr GetSingleTopElement() const;

  // ---- XPath ----
  //
  // Expressions see the namespace prefixes declared anywhere in the
  // document (the first declaration of a prefix wins); without a start node
  // they are evaluated from the document node.

  // True when the expression selects something (its boolean() value).
  bool ExecuteXPathForOneMatch(const char* xpath, XmlDomLog& log) const;
  // The string value of the first selected node (of the result itself when
  // it is not a node set) as a libxml2 string the caller frees with xmlFree;
  // null when nothing is selected or on a fault.
  xmlChar* ExecuteXPathForFirstString(const char* xpath, XmlDomLog& log) const;
  // Appends the nodes that `xpath` selects in `source` as top-level nodes:
  // copies when `copy`, otherwise nodes moved out of `source` (a node inside
  // another selected node is copied, so both modes give the same forest). A
  // selected attribute or namespace, or a result that is not a node set,
  // becomes a text node holding its string value; the document node gives
  // its top-level nodes.
  bool AddAsTopElementsFromXPath(XmlDomForest& source, const char* xpath, XmlDomLog& log,
                                 bool copy);
  // The same three evaluated from `start` (in the document of `root`).
  static bool ExecuteXPathForOneMatchWithStartNode(xmlNodePtr root, xmlNodePtr start,
                                                   const char* xpath, XmlDomLog& log);
  static xmlChar* ExecuteXPathForFirstStringWithStartNode(xmlNodePtr root, xmlNodePtr start,
                                                          const char* xpath, XmlDomLog& log);
  bool AddAsTopElementsFromXPathWithStartNode(xmlNodePtr root, xmlNodePtr start,
                                              const char* xpath, XmlDomLog& log);

  // ---- editing ----
  //
  // Names are checked as XML names; a namespace URI with an empty prefix
  // makes the default namespace of a new element.

  // Appends a new empty element; returns it, or null on a fault.
  xmlNodePtr AddTopElement(const char* name, const char* namespace_uri = nullptr,
                           const char* prefix = nullptr, XmlDomLog* log = nullptr);
  // Sets attribute `name` of `element` to `value` (replacing one of the same
  // name). An attribute in a namespace needs a prefix: without one, a prefix
  // already bound to the URI is used, or a new one (ns0, ns1, ...) declared.
  bool AddAttributeNode(xmlNodePtr element, const char* name, const char* value,
                        const char* namespace_uri, const char* prefix, XmlDomLog& log);
  bool AddChildTextNode(xmlNodePtr element, const char* text, XmlDomLog& log);
  // A comment may not contain "--" nor end with "-".
  bool AddChildCommentNode(xmlNodePtr element, const char* text, XmlDomLog& log);
  // The target must be a name other than "xml" (any case); the content may
  // not contain "?>".
  bool AddChildPINode(xmlNodePtr element, const char* target, const char* content,
                      XmlDomLog& log);
  // Declares `prefix` (empty: the default namespace) for `uri` on `element`.
  bool AddNamespaceNode(xmlNodePtr element, const char* uri, const char* prefix, XmlDomLog& log);
  // Appends the top-level nodes of `source` as children of `element`
  // (copies when `copy`, else moved out of `source`).
  void AddAsChildElements(xmlNodePtr element, XmlDomForest& source, bool copy);
  // Appends the top-level nodes of `source` as top-level nodes.
  void AddAsTopElements(XmlDomForest& source, bool copy);
  // Inserts copies of the top-level nodes of `source` at every node that
  // `xpath` selects: as its first or last children (elements and the
  // document node) or as its preceding or following siblings (nodes other
  // than attributes, namespaces and the document node). Selected nodes that
  // cannot take the nodes at `location` are left as they are.
  bool InsertElementsFromXPath(const XmlDomForest& source, const char* xpath,
                               XmlInsertLocation location, XmlDomLog& log);
  // Replaces every selected node by copies of the top-level nodes of
  // `source`. A selected attribute takes the string value of `source` as
  // its value; the document node is replaced as a whole. A node inside
  // another selected node goes with it.
  bool UpdateElementsFromXPath(const XmlDomForest& source, const char* xpath, XmlDomLog& log);
  // Deletes every selected node (attributes included; the document node
  // deletes every top-level node).
  bool DeleteElementsFromXPath(const char* xpath, XmlDomLog& log);

  // ---- XSLT ----

  // Appends the result of transforming `source` with the stylesheet that is
  // the single top element of `stylesheet`, as top-level nodes.
  bool AddAsTopElementsFromXslt(const XmlDomForest& source, const XmlDomForest& stylesheet,
                                XmlDomLog& log);
  bool AddAsTopElementsFromXslt(const XmlDomForest& source, const XmlXsltStylesheet& stylesheet,
                                XmlDomLog& log);

 private:
  xmlDocPtr Doc();  // the document, created when the forest has none
  void AppendTop(xmlNodePtr node);

  xmlDocPtr m_doc = nullptr;
  bool m_owner = false;
};

// A stylesheet compiled from a forest whose single top element is an
// xsl:stylesheet (or a literal result element). Immutable once compiled; a
// compiled stylesheet may be used by one transformation at a time.
class XmlXsltStylesheet {
 public:
  XmlXsltStylesheet() = default;
  ~XmlXsltStylesheet();
  XmlXsltStylesheet(const XmlXsltStylesheet&) = delete;
  XmlXsltStylesheet& operator=(const XmlXsltStylesheet&) = delete;

  // Compiles the stylesheet; false (and no stylesheet) on a fault.
  bool Compile(const XmlDomForest& stylesheet, XmlDomLog& log);
  bool IsCompiled() const { return m_style != nullptr; }
  void Clear();

 private:
  friend class XmlDomForest;
  void* m_style = nullptr;  // xsltStylesheetPtr
};

}  // namespace vx
