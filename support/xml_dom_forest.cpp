#include "support/xml_dom_forest.h"

#include <libexslt/exslt.h>
#include <libxml/entities.h>
#include <libxml/parser.h>
#include <libxml/xmlerror.h>
#include <libxml/xmlmemory.h>
#include <libxml/xmlsave.h>
#include <libxml/xpath.h>
#include <libxml/xpathInternals.h>
#include <libxslt/documents.h>
#include <libxslt/security.h>
#include <libxslt/transform.h>
#include <libxslt/xslt.h>
#include <libxslt/xsltInternals.h>
#include <libxslt/xsltutils.h>
#include <malloc.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <mutex>
#include <new>
#include <utility>
#include <unordered_set>
#include <vector>

#include "support/log.h"
#include "support/tuple.h"

namespace vx {

namespace {

const xmlChar* X(const char* s) { return reinterpret_cast<const xmlChar*>(s); }
const char* C(const xmlChar* s) { return reinterpret_cast<const char*>(s); }

// Text is read as given: no network, no DTD loading, no entity substitution
// by the parser, no XML_PARSE_HUGE (so libxml2 keeps its own depth, text
// length and entity amplification checks). CDATA sections become text, so
// that a value has one text form.
constexpr int kParseOptions = XML_PARSE_NONET | XML_PARSE_NOCDATA;

// The element that a forest's text is read inside; never part of a value.
constexpr char kForestOpen[] = "<vx-forest>";
constexpr char kForestClose[] = "</vx-forest>";

XmlLimits g_limits;

// ---- per-thread routing of libxml2 and libxslt ----
//
// While a forest operation runs on a thread, that thread's libxml2 errors go
// to the operation's sink, the resource loaders refuse every URI, and (for
// XPath evaluations and transformations) the bytes that libxml2 allocates
// are counted against the work-memory bound.

struct ErrorSink {
  std::string errors;       // the errors reported, one a line
  std::string refusal;      // the first resource refused
  int xpath_code = 0;       // the code of the first XPath error
};
thread_local ErrorSink* t_sink = nullptr;

// Trivially constructed, so that the allocation hooks may read it at any
// time on any thread.
struct MemoryBudget {
  bool active;
  bool exceeded;
  int64_t used;
  int64_t limit;
  xmlXPathContextPtr xpath;
  xsltTransformContextPtr xslt;
};
constinit thread_local MemoryBudget t_budget{};

bool g_accounting = false;  // the hooks below are installed
xmlFreeFunc g_free = nullptr;
xmlMallocFunc g_malloc = nullptr;
xmlMallocFunc g_malloc_atomic = nullptr;
xmlReallocFunc g_realloc = nullptr;
xmlStrdupFunc g_strdup = nullptr;
xmlExternalEntityLoader g_entity_loader = nullptr;
xsltDocLoaderFunc g_xslt_loader = nullptr;

void NoteRefusal(const char* what, const char* uri) {
  if (t_sink && t_sink->refusal.empty())
    t_sink->refusal = std::string(what) + " \"" + (uri ? uri : "") + "\"";
}

// Stops the evaluation that the budget belongs to: libxslt checks its state
// between instructions, libxml2 its operation limit before every step.
void StopBudgetedWork() {
  if (t_budget.xslt) {
    t_budget.xslt->state = XSLT_STATE_STOPPED;
    if (t_budget.xslt->xpathCtxt) t_budget.xslt->xpathCtxt->opLimit = 1;
  }
  if (t_budget.xpath) t_budget.xpath->opLimit = 1;
}

void Charge(void* p) {
  if (!p) return;
  t_budget.used += static_cast<int64_t>(malloc_usable_size(p));
  if (t_budget.used > t_budget.limit && !t_budget.exceeded) {
    t_budget.exceeded = true;
    StopBudgetedWork();
  }
}
void Credit(void* p) {
  if (p) t_budget.used -= static_cast<int64_t>(malloc_usable_size(p));
}
// A single request larger than the whole bound is refused outright, so
// that one step cannot go far past it before the work stops.
bool Oversized(size_t size) {
  if (static_cast<int64_t>(size) <= t_budget.limit) return false;
  if (!t_budget.exceeded) {
    t_budget.exceeded = true;
    StopBudgetedWork();
  }
  return true;
}

void* CountedMalloc(xmlMallocFunc allocate, size_t size) {
  if (!t_budget.active) return allocate(size);
  if (Oversized(size)) return nullptr;
  void* p = allocate(size);
  Charge(p);
  return p;
}
void* CountingMalloc(size_t size) { return CountedMalloc(g_malloc, size); }
void* CountingMallocAtomic(size_t size) { return CountedMalloc(g_malloc_atomic, size); }
void* CountingRealloc(void* p, size_t size) {
  if (!t_budget.active) return g_realloc(p, size);
  if (Oversized(size)) return nullptr;
  const int64_t old = p ? static_cast<int64_t>(malloc_usable_size(p)) : 0;
  void* q = g_realloc(p, size);
  if (q) {
    t_budget.used -= old;
    Charge(q);
  }
  return q;
}
void CountingFree(void* p) {
  if (t_budget.active) Credit(p);
  g_free(p);
}
char* CountingStrdup(const char* s) {
  if (!t_budget.active) return g_strdup(s);
  if (Oversized(std::strlen(s) + 1)) return nullptr;
  char* p = g_strdup(s);
  Charge(p);
  return p;
}

xmlParserInputPtr RefusingEntityLoader(const char* url, const char* id, xmlParserCtxtPtr ctxt) {
  if (t_sink) {
    NoteRefusal("external resource", url ? url : id);
    return nullptr;
  }
  return g_entity_loader(url, id, ctxt);
}

xmlDocPtr RefusingXsltLoader(const xmlChar* uri, xmlDictPtr dict, int options, void* ctxt,
                             xsltLoadType type) {
  if (t_sink) {
    NoteRefusal("document", C(uri));
    return nullptr;
  }
  return g_xslt_loader(uri, dict, options, ctxt, type);
}

std::string Trimmed(std::string text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
  return text;
}

// Errors are kept in the order reported, up to kMaxErrorText bytes.
constexpr size_t kMaxErrorText = 600;

void AppendErrorText(std::string_view text) {
  std::string& errors = t_sink->errors;
  if (errors.size() < kMaxErrorText) errors.append(text.substr(0, kMaxErrorText - errors.size()));
}

void OnStructuredError(void*, xmlErrorPtr error) {
  if (!t_sink || !error || error->level < XML_ERR_ERROR) return;
  std::string text = Trimmed(error->message ? error->message : "unknown error");
  if (error->domain != XML_FROM_XPATH && error->line > 0)
    text = "line " + std::to_string(error->line) + ": " + text;
  AppendErrorText(text + "\n");
  if (error->domain == XML_FROM_XPATH && t_sink->xpath_code == 0) t_sink->xpath_code = error->code;
}

// libxslt reports through printf-style functions, a message possibly in
// several calls.
void OnFormattedError(void*, const char* format, ...) {
  char buffer[1024];
  va_list args;
  va_start(args, format);
  std::vsnprintf(buffer, sizeof buffer, format, args);
  va_end(args);
  if (!t_sink) {
    std::fputs(buffer, stderr);
    return;
  }
  AppendErrorText(buffer);
}

void IgnoreGenericError(void*, const char*, ...) {}

void InitializeOnce() {
  xmlInitParser();
  // Allocation accounting wraps the C library's allocator; it is skipped
  // when someone has already replaced libxml2's allocator.
  xmlFreeFunc f;
  xmlMallocFunc m, ma;
  xmlReallocFunc r;
  xmlStrdupFunc s;
  if (xmlGcMemGet(&f, &m, &ma, &r, &s) == 0 && f == &free && m == &malloc && r == &realloc) {
    g_free = f;
    g_malloc = m;
    g_malloc_atomic = ma;
    g_realloc = r;
    g_strdup = s;
    xmlGcMemSetup(&CountingFree, &CountingMalloc, &CountingMallocAtomic, &CountingRealloc,
                  &CountingStrdup);
    g_accounting = true;
  }
  g_entity_loader = xmlGetExternalEntityLoader();
  xmlSetExternalEntityLoader(&RefusingEntityLoader);
  g_xslt_loader = xsltDocDefaultLoader;
  xsltSetLoaderFunc(&RefusingXsltLoader);
  xsltSetGenericErrorFunc(nullptr, &OnFormattedError);
  exsltRegisterAll();
}

void EnsureInitialized() {
  static std::once_flag once;
  std::call_once(once, &InitializeOnce);
}

// One forest operation on this thread (see above). Scopes nest.
class XmlWorkScope {
 public:
  explicit XmlWorkScope(bool budget = false) {
    EnsureInitialized();
    m_previous_sink = t_sink;
    t_sink = &m_sink;
    m_structured = xmlStructuredError;
    m_structured_context = xmlStructuredErrorContext;
    m_generic = xmlGenericError;
    m_generic_context = xmlGenericErrorContext;
    xmlSetStructuredErrorFunc(nullptr, &OnStructuredError);
    xmlSetGenericErrorFunc(nullptr, &IgnoreGenericError);
    m_previous_budget = t_budget;
    if (budget && g_accounting) {
      t_budget = MemoryBudget{true, false, 0, static_cast<int64_t>(g_limits.max_work_memory_bytes),
                              nullptr, nullptr};
    }
  }
  ~XmlWorkScope() {
    xmlSetStructuredErrorFunc(m_structured_context, m_structured);
    xmlSetGenericErrorFunc(m_generic_context, m_generic);
    t_sink = m_previous_sink;
    t_budget = m_previous_budget;
  }
  XmlWorkScope(const XmlWorkScope&) = delete;
  XmlWorkScope& operator=(const XmlWorkScope&) = delete;

  void WatchXPath(xmlXPathContextPtr ctx) { t_budget.xpath = ctx; }
  void WatchXslt(xsltTransformContextPtr ctx) { t_budget.xslt = ctx; }
  bool MemoryExceeded() const { return t_budget.active && t_budget.exceeded; }
  const ErrorSink& Sink() const { return m_sink; }
  // The errors reported, joined by "; ", or `fallback`.
  std::string Error(const char* fallback) const {
    std::string text = Trimmed(m_sink.errors);
    if (text.empty()) return fallback;
    for (size_t at = text.find('\n'); at != std::string::npos; at = text.find('\n', at))
      text.replace(at, 1, "; ");
    return text;
  }
  // True when an XPath evaluation or instruction went past the operation bound.
  bool OperationLimitReached() const {
    return m_sink.xpath_code == static_cast<int>(XML_XPATH_EXPRESSION_OK) +
                                    static_cast<int>(XPATH_OP_LIMIT_EXCEEDED) ||
           m_sink.errors.find("Operation limit exceeded") != std::string::npos;
  }

 private:
  ErrorSink m_sink;
  ErrorSink* m_previous_sink;
  xmlStructuredErrorFunc m_structured;
  void* m_structured_context;
  xmlGenericErrorFunc m_generic;
  void* m_generic_context;
  MemoryBudget m_previous_budget;
};

std::string OperationLimitText() {
  return "the work needs more than " + std::to_string(g_limits.max_xpath_operations) +
         " XPath operations";
}

std::string MemoryLimitText() {
  return "the work needs more than " + std::to_string(g_limits.max_work_memory_bytes) +
         " bytes of memory";
}

// ---- tree helpers ----

bool IsDtd(xmlNodePtr n) { return n->type == XML_DTD_NODE; }

bool IsBlank(const xmlChar* s) {
  for (; s && *s; ++s)
    if (*s != ' ' && *s != '\t' && *s != '\n' && *s != '\r') return false;
  return true;
}

// Links `node` (detached, of the parent's document) into `parent` before
// `next` (null: at the end) without merging text, so that selected nodes
// keep their content until every edit of an operation is done.
void LinkBefore(xmlNodePtr parent, xmlNodePtr next, xmlNodePtr node) {
  node->parent = parent;
  node->next = next;
  node->prev = next ? next->prev : parent->last;
  if (node->prev) {
    node->prev->next = node;
  } else {
    parent->children = node;
  }
  if (next) {
    next->prev = node;
  } else {
    parent->last = node;
  }
}

// Replaces `node` by the detached list starting at `first`; returns the
// node that now stands where `node` stood (the list's head, or the node
// after `node` for an empty list).
xmlNodePtr Splice(xmlNodePtr node, xmlNodePtr first) {
  xmlNodePtr parent = node->parent;
  xmlNodePtr next = node->next;
  xmlUnlinkNode(node);
  xmlFreeNode(node);
  for (xmlNodePtr n = first; n;) {
    xmlNodePtr following = n->next;
    n->next = n->prev = nullptr;
    LinkBefore(parent, next, n);
    n = following;
  }
  return first ? first : next;
}

// Merges adjacent text nodes among the children of `parent`.
void MergeAdjacentText(xmlNodePtr parent) {
  for (xmlNodePtr n = parent->children; n && n->next;) {
    if (n->type == XML_TEXT_NODE && n->next->type == XML_TEXT_NODE && n->name == n->next->name) {
      xmlTextMerge(n, n->next);
    } else {
      n = n->next;
    }
  }
}

// Calls fn(node, depth) for every node of the tree below `top` (children
// lists only; attributes are reached through their elements), depth 1 for
// the children of `top`. Iterative, so deep trees cost no stack.
template <class Fn>
void ForEachNode(xmlNodePtr top, Fn&& fn) {
  xmlNodePtr n = top->children;
  uint32_t depth = 1;
  while (n) {
    fn(n, depth);
    if (n->type == XML_ELEMENT_NODE && n->children) {
      n = n->children;
      ++depth;
      continue;
    }
    while (n && !n->next) {
      n = n->parent;
      --depth;
      if (n == top) return;
    }
    if (n) n = n->next;
  }
}

uint32_t MaxDepth(xmlNodePtr top) {
  uint32_t max = 0;
  ForEachNode(top, [&](xmlNodePtr n, uint32_t depth) {
    if (n->type == XML_ELEMENT_NODE && depth > max) max = depth;
  });
  return max;
}

std::string DepthText() {
  return "the value nests elements deeper than " + std::to_string(g_limits.max_depth) + " levels";
}

// ---- entities ----

// Expands every entity reference of a freshly read document in place
// (element content and attribute values), within the expansion budget. An
// internal entity's replacement is copied from the nodes libxml2 built for
// it (content) or read from its replacement text (attributes); nested
// references are expanded as the walk reaches them.
bool ExpandEntityReferences(xmlDocPtr doc, XmlDomLog& log) {
  uint64_t budget = g_limits.max_entity_expansion_bytes;
  bool expanded = false;
  std::vector<xmlNodePtr> lists{doc->children};
  while (!lists.empty()) {
    xmlNodePtr n = lists.back();
    lists.pop_back();
    while (n) {
      if (n->type == XML_ENTITY_REF_NODE) {
        xmlEntityPtr entity = xmlGetDocEntity(doc, n->name);
        if (!entity || entity->etype != XML_INTERNAL_GENERAL_ENTITY) {
          log.Fail(XmlDomLog::Fault::kRefused,
                   std::string("the value refers to the external or undeclared entity '") +
                       C(n->name) + "', which is not loaded");
          return false;
        }
        const uint64_t cost = static_cast<uint64_t>(entity->length) + XmlLimits::kEntityReferenceCost;
        if (cost > budget) {
          log.Fail(XmlDomLog::Fault::kRefused,
                   "the value's entity references expand to more than " +
                       std::to_string(g_limits.max_entity_expansion_bytes) + " bytes");
          return false;
        }
        budget -= cost;
        xmlNodePtr replacement = nullptr;
        if (n->parent && n->parent->type == XML_ATTRIBUTE_NODE) {
          replacement = xmlStringGetNodeList(doc, entity->content);
        } else if (entity->children) {
          replacement = xmlDocCopyNodeList(doc, entity->children);
        } else if (entity->content && !std::strchr(C(entity->content), '<')) {
          replacement = xmlStringGetNodeList(doc, entity->content);
        } else if (entity->content && *entity->content) {
          log.Fail(XmlDomLog::Fault::kMalformed,
                   std::string("the replacement of entity '") + C(n->name) + "' cannot be read");
          return false;
        }
        expanded = true;
        n = Splice(n, replacement);
        continue;
      }
      if (n->type == XML_ELEMENT_NODE) {
        for (xmlAttrPtr a = n->properties; a; a = a->next)
          if (a->children) lists.push_back(a->children);
        if (n->children) lists.push_back(n->children);
      }
      n = n->next;
    }
  }
  if (expanded) {
    MergeAdjacentText(reinterpret_cast<xmlNodePtr>(doc));
    ForEachNode(reinterpret_cast<xmlNodePtr>(doc), [](xmlNodePtr n, uint32_t) {
      if (n->type != XML_ELEMENT_NODE) return;
      MergeAdjacentText(n);
      for (xmlAttrPtr a = n->properties; a; a = a->next) MergeAdjacentText(reinterpret_cast<xmlNodePtr>(a));
    });
  }
  return true;
}

// Removes the document type declaration and what depends on it: the ID and
// IDREF tables, whose declarations go with it.
void DropDocumentType(xmlDocPtr doc) {
  // Unlinking a declaration also clears the document's pointer to it.
  while (xmlDtdPtr dtd = doc->intSubset ? doc->intSubset : doc->extSubset) {
    xmlUnlinkNode(reinterpret_cast<xmlNodePtr>(dtd));
    doc->intSubset = doc->intSubset == dtd ? nullptr : doc->intSubset;
    doc->extSubset = doc->extSubset == dtd ? nullptr : doc->extSubset;
    xmlFreeDtd(dtd);
  }
  if (doc->ids) {
    xmlFreeIDTable(static_cast<xmlIDTablePtr>(doc->ids));
    doc->ids = nullptr;
  }
  if (doc->refs) {
    xmlFreeRefTable(static_cast<xmlRefTablePtr>(doc->refs));
    doc->refs = nullptr;
  }
  ForEachNode(reinterpret_cast<xmlNodePtr>(doc), [](xmlNodePtr n, uint32_t) {
    if (n->type == XML_ELEMENT_NODE)
      for (xmlAttrPtr a = n->properties; a; a = a->next) a->atype = XML_ATTRIBUTE_CDATA;
  });
}

// True when the text starts (after white space, comments and processing
// instructions) with an XML declaration or a document type declaration: it
// is then read as a document rather than as a forest.
bool IsSpace(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

bool HasProlog(const char* text, size_t length) {
  std::string_view t(text, length);
  if (t.substr(0, 3) == "\xEF\xBB\xBF") t.remove_prefix(3);
  for (;;) {
    const size_t start = t.find_first_not_of(" \t\r\n");
    if (start == std::string_view::npos) return false;
    t.remove_prefix(start);
    if (t.substr(0, 5) == "<?xml" && t.size() > 5 && IsSpace(t[5])) return true;
    if (t.substr(0, 9) == "<!DOCTYPE") return true;
    size_t end = std::string_view::npos;
    if (t.substr(0, 4) == "<!--") {
      end = t.find("-->");
      if (end != std::string_view::npos) end += 3;
    } else if (t.substr(0, 2) == "<?") {
      end = t.find("?>");
      if (end != std::string_view::npos) end += 2;
    } else {
      return false;
    }
    if (end == std::string_view::npos) return false;
    t.remove_prefix(end);
  }
}

// ---- XPath ----

void RegisterDocumentNamespaces(xmlXPathContextPtr ctx, xmlDocPtr doc) {
  ForEachNode(reinterpret_cast<xmlNodePtr>(doc), [&](xmlNodePtr n, uint32_t) {
    if (n->type != XML_ELEMENT_NODE) return;
    for (xmlNsPtr ns = n->nsDef; ns; ns = ns->next) {
      if (ns->prefix && ns->href && !xmlXPathNsLookup(ctx, ns->prefix))
        xmlXPathRegisterNs(ctx, ns->prefix, ns->href);
    }
  });
}

// The result of one XPath evaluation; null (with the fault in `log`) when
// the expression does not compile or evaluate or goes past a bound.
class XPathResult {
 public:
  XPathResult(xmlDocPtr doc, xmlNodePtr start, const char* xpath, XmlDomLog& log) {
    if (!doc) {
      m_owned_doc = xmlNewDoc(X("1.0"));
      doc = m_owned_doc;
    }
    XmlWorkScope scope(true);
    xmlXPathContextPtr ctx = xmlXPathNewContext(doc);
    if (!ctx) throw std::bad_alloc();
    RegisterDocumentNamespaces(ctx, doc);
    ctx->node = start ? start : reinterpret_cast<xmlNodePtr>(doc);
    ctx->opLimit = g_limits.max_xpath_operations;
    ctx->opCount = 0;
    scope.WatchXPath(ctx);
    xmlXPathCompExprPtr comp = xmlXPathCtxtCompile(ctx, X(xpath));
    if (comp) {
      m_result = xmlXPathCompiledEval(comp, ctx);
      xmlXPathFreeCompExpr(comp);
    }
    if (scope.MemoryExceeded()) {
      Fail(log, XmlDomLog::Fault::kLimit, MemoryLimitText());
    } else if (scope.OperationLimitReached()) {
      Fail(log, XmlDomLog::Fault::kLimit, OperationLimitText());
    } else if (!m_result) {
      Fail(log, XmlDomLog::Fault::kInvalidXPath, scope.Error("the expression does not evaluate"));
    }
    xmlXPathFreeContext(ctx);
  }
  ~XPathResult() {
    if (m_result) xmlXPathFreeObject(m_result);
    if (m_owned_doc) xmlFreeDoc(m_owned_doc);
  }
  XPathResult(const XPathResult&) = delete;
  XPathResult& operator=(const XPathResult&) = delete;

  xmlXPathObjectPtr Get() const { return m_result; }
  bool IsNodeSet() const { return m_result && m_result->type == XPATH_NODESET; }
  // The selected nodes in document order (empty for other results).
  std::vector<xmlNodePtr> Nodes() const {
    std::vector<xmlNodePtr> nodes;
    if (IsNodeSet() && m_result->nodesetval)
      nodes.assign(m_result->nodesetval->nodeTab,
                   m_result->nodesetval->nodeTab + m_result->nodesetval->nodeNr);
    return nodes;
  }

 private:
  void Fail(XmlDomLog& log, XmlDomLog::Fault fault, std::string text) {
    log.Fail(fault, std::move(text));
    if (m_result) {
      xmlXPathFreeObject(m_result);
      m_result = nullptr;
    }
  }

  xmlXPathObjectPtr m_result = nullptr;
  xmlDocPtr m_owned_doc = nullptr;
};

bool OneMatch(xmlDocPtr doc, xmlNodePtr start, const char* xpath, XmlDomLog& log) {
  XPathResult r(doc, start, xpath, log);
  return r.Get() && xmlXPathCastToBoolean(r.Get()) == 1;
}

xmlChar* FirstString(xmlDocPtr doc, xmlNodePtr start, const char* xpath, XmlDomLog& log) {
  XPathResult r(doc, start, xpath, log);
  if (!r.Get()) return nullptr;
  if (!r.IsNodeSet()) return xmlXPathCastToString(r.Get());
  const std::vector<xmlNodePtr> nodes = r.Nodes();
  if (nodes.empty()) return nullptr;
  return xmlXPathCastNodeToString(nodes.front());
}

// True when an ancestor of `n` is in `selected`.
bool HasSelectedAncestor(xmlNodePtr n, const std::unordered_set<xmlNodePtr>& selected) {
  for (xmlNodePtr p = n->parent; p; p = p->parent)
    if (selected.count(p)) return true;
  return false;
}

// The selected nodes that an edit acts on: document order, namespace nodes
// left out, and (when `outermost`) nodes inside another selected node too.
std::vector<xmlNodePtr> EditTargets(const XPathResult& r, bool outermost) {
  std::vector<xmlNodePtr> nodes = r.Nodes();
  std::unordered_set<xmlNodePtr> selected(nodes.begin(), nodes.end());
  std::vector<xmlNodePtr> targets;
  for (xmlNodePtr n : nodes) {
    if (n->type == XML_NAMESPACE_DECL) continue;
    if (outermost && HasSelectedAncestor(n, selected)) continue;
    targets.push_back(n);
  }
  return targets;
}

bool IsValidName(const char* name) {
  return name && *name && !std::strchr(name, ':') && xmlValidateNameValue(X(name)) == 1;
}

bool InvalidName(XmlDomLog& log, const char* what, const char* name) {
  log.Fail(XmlDomLog::Fault::kInvalidNode,
           std::string("\"") + (name ? name : "") + "\" is not a valid " + what +
               " name (an XML name without a colon; a prefix is given on its own)");
  return false;
}

// ---- XSLT ----

constexpr char kXsltNamespace[] = "http://www.w3.org/1999/XSL/Transform";

bool IncludesOrImports(xmlNodePtr top) {
  auto is_link = [](xmlNodePtr n) {
    return n->type == XML_ELEMENT_NODE && n->ns && xmlStrEqual(n->ns->href, X(kXsltNamespace)) &&
           (xmlStrEqual(n->name, X("include")) || xmlStrEqual(n->name, X("import")));
  };
  bool found = is_link(top);
  ForEachNode(top, [&](xmlNodePtr n, uint32_t) { found = found || is_link(n); });
  return found;
}

template <xsltSecurityOption kOption>
int RefuseAccess(xsltSecurityPrefsPtr, xsltTransformContextPtr ctxt, const char* value) {
  static constexpr const char* kWhat[] = {"", "may not read the file", "may not write the file",
                                          "may not create the directory", "may not read from",
                                          "may not write to"};
  NoteRefusal((std::string("the stylesheet ") + kWhat[kOption]).c_str(), value);
  if (ctxt) ctxt->state = XSLT_STATE_STOPPED;
  return 0;
}

}  // namespace

// ---- limits and log ----

const XmlLimits& GetXmlLimits() { return g_limits; }
void SetXmlLimits(const XmlLimits& limits) { g_limits = limits; }

void XmlDomLog::Fail(Fault fault, std::string text) {
  if (m_fault != Fault::kNone) return;
  m_fault = fault;
  m_text = std::move(text);
}

void XmlDomLog::Clear() {
  m_fault = Fault::kNone;
  m_text.clear();
}

// ---- life cycle ----

XmlDomForest::XmlDomForest() = default;

XmlDomForest::XmlDomForest(xmlDocPtr doc, bool owner) : m_doc(doc), m_owner(doc && owner) {}

XmlDomForest::~XmlDomForest() { Set(nullptr, false); }

XmlDomForest::XmlDomForest(XmlDomForest&& other) noexcept
    : m_doc(std::exchange(other.m_doc, nullptr)), m_owner(std::exchange(other.m_owner, false)) {}

XmlDomForest& XmlDomForest::operator=(XmlDomForest&& other) noexcept {
  if (this != &other) {
    Set(nullptr, false);
    m_doc = std::exchange(other.m_doc, nullptr);
    m_owner = std::exchange(other.m_owner, false);
  }
  return *this;
}

void XmlDomForest::Set(xmlDocPtr doc, bool owner) {
  if (m_doc && m_owner && m_doc != doc) xmlFreeDoc(m_doc);
  m_doc = doc;
  m_owner = doc && owner;
}

bool XmlDomForest::Release(xmlDocPtr* doc) {
  const bool owned = m_owner;
  if (doc) *doc = m_doc;
  m_doc = nullptr;
  m_owner = false;
  return owned;
}

xmlDocPtr XmlDomForest::Doc() {
  if (!m_doc) {
    EnsureInitialized();
    m_doc = xmlNewDoc(X("1.0"));
    if (!m_doc) throw std::bad_alloc();
    m_owner = true;
  }
  return m_doc;
}

void XmlDomForest::AppendTop(xmlNodePtr node) { xmlAddChild(reinterpret_cast<xmlNodePtr>(Doc()), node); }

// ---- reading ----

bool XmlDomForest::Read(const char* text, size_t length, XmlDomLog& log) {
  VX_TRACE_SCOPE();
  Set(nullptr, false);
  if (length > g_limits.max_document_bytes) {
    log.Fail(XmlDomLog::Fault::kRefused,
             "the value is " + std::to_string(length) + " bytes long, more than the limit of " +
                 std::to_string(g_limits.max_document_bytes) + " bytes");
    return false;
  }
  XmlWorkScope scope;
  const bool document = HasProlog(text, length);
  std::string wrapped;
  if (!document) {
    wrapped.reserve(length + sizeof kForestOpen + sizeof kForestClose);
    wrapped.append(kForestOpen).append(text, length).append(kForestClose);
    text = wrapped.data();
    length = wrapped.size();
  }
  xmlParserCtxtPtr ctxt = xmlNewParserCtxt();
  if (!ctxt) throw std::bad_alloc();
  xmlDocPtr doc = xmlCtxtReadMemory(ctxt, text, static_cast<int>(length), nullptr,
                                    document ? nullptr : "UTF-8", kParseOptions);
  const bool well_formed = ctxt->wellFormed;
  xmlFreeParserCtxt(ctxt);
  if (!doc || !well_formed) {
    if (doc) xmlFreeDoc(doc);
    const std::string& errors = scope.Sink().errors;
    if (!scope.Sink().refusal.empty()) {
      log.Fail(XmlDomLog::Fault::kRefused, scope.Sink().refusal + " is not loaded");
    } else if (errors.find("Excessive depth in document") != std::string::npos) {
      log.Fail(XmlDomLog::Fault::kRefused, DepthText());
    } else if (errors.find("entity reference loop") != std::string::npos ||
               errors.find("amplification") != std::string::npos) {
      const std::string first = scope.Error("");
      log.Fail(XmlDomLog::Fault::kRefused, "the value's entity references expand too much (" +
                                               first.substr(0, first.find("; ")) + ")");
    } else {
      log.Fail(XmlDomLog::Fault::kMalformed, scope.Error("the text is not XML"));
    }
    return false;
  }
  Set(doc, true);
  if (doc->intSubset || doc->extSubset) {
    if (!ExpandEntityReferences(doc, log)) {
      Set(nullptr, false);
      return false;
    }
    DropDocumentType(doc);
  }
  xmlNodePtr top = reinterpret_cast<xmlNodePtr>(doc);
  if (!document) {
    // The forest is the wrapper's content, blank top-level text left out.
    xmlNodePtr wrapper = xmlDocGetRootElement(doc);
    xmlUnlinkNode(wrapper);
    for (xmlNodePtr n = wrapper->children; n;) {
      xmlNodePtr next = n->next;
      xmlUnlinkNode(n);
      if (n->type == XML_TEXT_NODE && IsBlank(n->content)) {
        xmlFreeNode(n);
      } else {
        LinkBefore(top, nullptr, n);
      }
      n = next;
    }
    xmlFreeNode(wrapper);
  }
  if (MaxDepth(top) > g_limits.max_depth) {
    Set(nullptr, false);
    log.Fail(XmlDomLog::Fault::kRefused, DepthText());
    return false;
  }
  return true;
}

// ---- text ----

namespace {

int AppendToString(void* context, const char* bytes, int length) {
  static_cast<std::string*>(context)->append(bytes, static_cast<size_t>(length));
  return length;
}

}  // namespace

bool XmlDomForest::ToString(std::string& out, XmlDomLog& log, bool format) const {
  VX_TRACE_SCOPE();
  if (!m_doc) return true;
  XmlWorkScope scope;
  xmlNodePtr top = reinterpret_cast<xmlNodePtr>(m_doc);
  if (MaxDepth(top) > g_limits.max_depth) {
    log.Fail(XmlDomLog::Fault::kRefused, DepthText());
    return false;
  }
  const size_t start = out.size();
  // libxml2 writes non-ASCII characters of attribute values as character
  // references when the document names no encoding, and literally when it
  // does; naming UTF-8 while saving keeps the text the same however the
  // document was made (parsed with or without a declaration, built, or
  // transformed), so that the canonical text reads back to itself.
  struct EncodingScope {
    xmlDocPtr doc;
    bool set;
    explicit EncodingScope(xmlDocPtr d) : doc(d), set(d->encoding == nullptr) {
      if (set) doc->encoding = xmlStrdup(reinterpret_cast<const xmlChar*>("UTF-8"));
    }
    ~EncodingScope() {
      if (!set) return;
      xmlFree(const_cast<xmlChar*>(doc->encoding));
      doc->encoding = nullptr;
    }
  } encoding(m_doc);
  int options = XML_SAVE_NO_DECL | XML_SAVE_AS_XML;
  if (format) options |= XML_SAVE_FORMAT;
  xmlSaveCtxtPtr save = xmlSaveToIO(&AppendToString, nullptr, &out, "UTF-8", options);
  if (!save) throw std::bad_alloc();
  // Formatting puts top-level nodes on lines of their own, but never next
  // to text, whose value the line break would change.
  xmlNodePtr previous = nullptr;
  for (xmlNodePtr n = m_doc->children; n; n = n->next) {
    if (IsDtd(n)) continue;
    if (format && previous && previous->type != XML_TEXT_NODE && n->type != XML_TEXT_NODE) {
      xmlSaveFlush(save);
      out.push_back('\n');
    }
    xmlSaveTree(save, n);
    previous = n;
  }
  xmlSaveClose(save);
  if (out.size() - start > g_limits.max_document_bytes) {
    out.resize(start);
    log.Fail(XmlDomLog::Fault::kRefused, "the value's text would be longer than " +
                                             std::to_string(g_limits.max_document_bytes) +
                                             " bytes");
    return false;
  }
  return true;
}

uint64_t XmlDomForest::HashText(std::string_view text) {
  // 64-bit FNV-1a: stable across runs and platforms.
  uint64_t h = 14695981039346656037ull;
  for (unsigned char c : text) {
    h ^= c;
    h *= 1099511628211ull;
  }
  return text.empty() ? 0 : h;
}

uint64_t XmlDomForest::Hash() const {
  std::string text;
  XmlDomLog log;
  ToString(text, log);
  return HashText(text);
}

// ---- queries ----

size_t XmlDomForest::GetTopElementsCount() const {
  size_t count = 0;
  if (m_doc)
    for (xmlNodePtr n = m_doc->children; n; n = n->next) count += IsDtd(n) ? 0 : 1;
  return count;
}

xmlNodePtr XmlDomForest::GetTopElement(size_t i) const {
  if (!m_doc) return nullptr;
  for (xmlNodePtr n = m_doc->children; n; n = n->next) {
    if (IsDtd(n)) continue;
    if (i-- == 0) return n;
  }
  return nullptr;
}

xmlNodePtr XmlDomForest::GetSingleTopElement() const {
  xmlNodePtr element = nullptr;
  if (!m_doc) return nullptr;
  for (xmlNodePtr n = m_doc->children; n; n = n->next) {
    if (n->type == XML_ELEMENT_NODE) {
      if (element) return nullptr;
      element = n;
    } else if (n->type != XML_COMMENT_NODE && n->type != XML_PI_NODE && !IsDtd(n)) {
      return nullptr;
    }
  }
  return element;
}

bool XmlDomForest::HasExactlyOneTopElement() const { return GetSingleTopElement() != nullptr; }

// ---- XPath ----

bool XmlDomForest::ExecuteXPathForOneMatch(const char* xpath, XmlDomLog& log) const {
  return OneMatch(m_doc, nullptr, xpath, log);
}

xmlChar* XmlDomForest::ExecuteXPathForFirstString(const char* xpath, XmlDomLog& log) const {
  return FirstString(m_doc, nullptr, xpath, log);
}

bool XmlDomForest::ExecuteXPathForOneMatchWithStartNode(xmlNodePtr root, xmlNodePtr start,
                                                        const char* xpath, XmlDomLog& log) {
  return OneMatch(root->doc, start, xpath, log);
}

xmlChar* XmlDomForest::ExecuteXPathForFirstStringWithStartNode(xmlNodePtr root, xmlNodePtr start,
                                                               const char* xpath, XmlDomLog& log) {
  return FirstString(root->doc, start, xpath, log);
}

namespace {

// A node ready to enter `target` at any place: a copy, or (when `copy` is
// false) the node taken out of its document. Taking out is done as a copy
// followed by freeing the original: a copy declares on itself the
// namespaces it used from its ancestors and owns its names, which libxml2's
// adoption of a node into another document does not do faithfully for a
// default namespace.
xmlNodePtr Take(xmlNodePtr n, xmlDocPtr target, bool copy) {
  xmlNodePtr c = xmlDocCopyNode(n, target, 1);
  if (!c) throw std::bad_alloc();
  if (!copy && n->doc != target) {
    xmlUnlinkNode(n);
    xmlFreeNode(n);
  }
  return c;
}

// Appends what an XPath result selects (see AddAsTopElementsFromXPath);
// `move` takes nodes out of their document.
void AppendSelection(xmlDocPtr target, const XPathResult& r, bool move,
                     const std::function<void(xmlNodePtr)>& append) {
  if (!r.IsNodeSet()) {
    xmlChar* text = xmlXPathCastToString(r.Get());
    if (text && *text) append(xmlNewDocText(target, text));
    xmlFree(text);
    return;
  }
  for (xmlNodePtr n : r.Nodes()) {
    switch (n->type) {
      case XML_DOCUMENT_NODE:
      case XML_HTML_DOCUMENT_NODE:
        for (xmlNodePtr c = n->children; c; c = c->next)
          if (!IsDtd(c)) append(xmlDocCopyNode(c, target, 1));
        break;
      case XML_ATTRIBUTE_NODE:
      case XML_NAMESPACE_DECL: {
        xmlChar* text = xmlXPathCastNodeToString(n);
        append(xmlNewDocText(target, text));
        xmlFree(text);
        break;
      }
      default:
        append(Take(n, target, true));
        break;
    }
  }
  // Moving takes the outermost selected nodes out of their document once
  // every selected node has been copied.
  if (move) {
    for (xmlNodePtr n : EditTargets(r, true)) {
      if (n->type == XML_ATTRIBUTE_NODE || n->type == XML_DOCUMENT_NODE ||
          n->type == XML_HTML_DOCUMENT_NODE)
        continue;
      xmlUnlinkNode(n);
      xmlFreeNode(n);
    }
  }
}

}  // namespace

bool XmlDomForest::AddAsTopElementsFromXPath(XmlDomForest& source, const char* xpath,
                                             XmlDomLog& log, bool copy) {
  XPathResult r(source.m_doc, nullptr, xpath, log);
  if (!r.Get()) return false;
  xmlDocPtr target = Doc();
  const bool move = !copy && source.m_doc != target;
  AppendSelection(target, r, move, [&](xmlNodePtr n) { AppendTop(n); });
  return true;
}

bool XmlDomForest::AddAsTopElementsFromXPathWithStartNode(xmlNodePtr root, xmlNodePtr start,
                                                          const char* xpath, XmlDomLog& log) {
  XPathResult r(root->doc, start, xpath, log);
  if (!r.Get()) return false;
  xmlDocPtr target = Doc();
  AppendSelection(target, r, false, [&](xmlNodePtr n) { AppendTop(n); });
  return true;
}

// ---- editing ----

namespace {

// The namespace `prefix` bound to `uri` for `element`: an existing binding
// in scope, or a new declaration on `element`. Null when `prefix` is
// declared on `element` itself for another URI.
xmlNsPtr BindNamespace(xmlDocPtr doc, xmlNodePtr element, const char* uri, const char* prefix) {
  const xmlChar* p = prefix && *prefix ? X(prefix) : nullptr;
  xmlNsPtr ns = xmlSearchNs(doc, element, p);
  if (ns && xmlStrEqual(ns->href, X(uri))) return ns;
  return xmlNewNs(element, X(uri), p);
}

}  // namespace

xmlNodePtr XmlDomForest::AddTopElement(const char* name, const char* namespace_uri,
                                       const char* prefix, XmlDomLog* log) {
  XmlDomLog ignored;
  XmlDomLog& l = log ? *log : ignored;
  const bool has_prefix = prefix && *prefix;
  if (!IsValidName(name)) {
    InvalidName(l, "element", name);
    return nullptr;
  }
  if (has_prefix && !IsValidName(prefix)) {
    InvalidName(l, "prefix", prefix);
    return nullptr;
  }
  if (has_prefix && !(namespace_uri && *namespace_uri)) {
    l.Fail(XmlDomLog::Fault::kInvalidNode,
           std::string("the prefix \"") + prefix + "\" has no namespace URI");
    return nullptr;
  }
  xmlDocPtr doc = Doc();
  xmlNodePtr element = xmlNewDocNode(doc, nullptr, X(name), nullptr);
  if (!element) throw std::bad_alloc();
  if (namespace_uri && *namespace_uri) {
    xmlNsPtr ns = xmlNewNs(element, X(namespace_uri), prefix && *prefix ? X(prefix) : nullptr);
    xmlSetNs(element, ns);
  }
  AppendTop(element);
  return element;
}

bool XmlDomForest::AddAttributeNode(xmlNodePtr element, const char* name, const char* value,
                                    const char* namespace_uri, const char* prefix,
                                    XmlDomLog& log) {
  if (!IsValidName(name)) return InvalidName(log, "attribute", name);
  if (prefix && *prefix && !IsValidName(prefix)) return InvalidName(log, "prefix", prefix);
  xmlNsPtr ns = nullptr;
  if (namespace_uri && *namespace_uri) {
    if (prefix && *prefix) {
      ns = BindNamespace(Doc(), element, namespace_uri, prefix);
    } else {
      // An attribute without a prefix is in no namespace: find or make one.
      ns = xmlSearchNsByHref(Doc(), element, X(namespace_uri));
      for (int i = 0; !(ns && ns->prefix); ++i) {
        const std::string generated = "ns" + std::to_string(i);
        if (!xmlSearchNs(Doc(), element, X(generated.c_str())))
          ns = xmlNewNs(element, X(namespace_uri), X(generated.c_str()));
      }
    }
    if (!ns) {
      log.Fail(XmlDomLog::Fault::kInvalidNode,
               std::string("the prefix \"") + prefix + "\" is already bound to another namespace");
      return false;
    }
  }
  if (!xmlSetNsProp(element, ns, X(name), X(value ? value : ""))) throw std::bad_alloc();
  return true;
}

bool XmlDomForest::AddChildTextNode(xmlNodePtr element, const char* text, XmlDomLog&) {
  if (!text || !*text) return true;  // an empty text node would not read back
  xmlNodePtr node = xmlNewDocText(Doc(), X(text));
  if (!node) throw std::bad_alloc();
  xmlAddChild(element, node);
  return true;
}

bool XmlDomForest::AddChildCommentNode(xmlNodePtr element, const char* text, XmlDomLog& log) {
  const std::string_view t(text ? text : "");
  if (t.find("--") != std::string_view::npos || (!t.empty() && t.back() == '-')) {
    log.Fail(XmlDomLog::Fault::kInvalidNode,
             "a comment may not contain \"--\" nor end with \"-\": \"" + std::string(t) + "\"");
    return false;
  }
  xmlNodePtr node = xmlNewDocComment(Doc(), X(text ? text : ""));
  if (!node) throw std::bad_alloc();
  xmlAddChild(element, node);
  return true;
}

bool XmlDomForest::AddChildPINode(xmlNodePtr element, const char* target, const char* content,
                                  XmlDomLog& log) {
  if (!IsValidName(target) || xmlStrcasecmp(X(target), X("xml")) == 0)
    return InvalidName(log, "processing-instruction target (other than \"xml\")", target);
  if (content && std::strstr(content, "?>")) {
    log.Fail(XmlDomLog::Fault::kInvalidNode,
             std::string("processing-instruction content may not contain \"?>\": \"") + content +
                 "\"");
    return false;
  }
  xmlNodePtr node = xmlNewDocPI(Doc(), X(target), content && *content ? X(content) : nullptr);
  if (!node) throw std::bad_alloc();
  xmlAddChild(element, node);
  return true;
}

bool XmlDomForest::AddNamespaceNode(xmlNodePtr element, const char* uri, const char* prefix,
                                    XmlDomLog& log) {
  const bool has_prefix = prefix && *prefix;
  if (has_prefix && (!IsValidName(prefix) || xmlStrEqual(X(prefix), X("xml")) ||
                     xmlStrEqual(X(prefix), X("xmlns"))))
    return InvalidName(log, "namespace prefix (other than \"xml\" and \"xmlns\")", prefix);
  if (has_prefix && !(uri && *uri)) {
    log.Fail(XmlDomLog::Fault::kInvalidNode,
             std::string("the prefix \"") + prefix + "\" cannot be bound to an empty namespace URI");
    return false;
  }
  for (xmlNsPtr ns = element->nsDef; ns; ns = ns->next) {
    if (has_prefix ? xmlStrEqual(ns->prefix, X(prefix)) : ns->prefix == nullptr) {
      if (xmlStrEqual(ns->href, X(uri ? uri : ""))) return true;
      log.Fail(XmlDomLog::Fault::kInvalidNode,
               std::string("the element already declares the prefix \"") +
                   (has_prefix ? prefix : "") + "\" for another namespace");
      return false;
    }
  }
  if (!xmlNewNs(element, X(uri ? uri : ""), has_prefix ? X(prefix) : nullptr))
    throw std::bad_alloc();
  return true;
}

namespace {

// The top-level nodes of `source` (a snapshot, so that a forest may be
// added to itself).
std::vector<xmlNodePtr> TopNodes(xmlDocPtr doc) {
  std::vector<xmlNodePtr> nodes;
  if (doc)
    for (xmlNodePtr n = doc->children; n; n = n->next)
      if (!IsDtd(n)) nodes.push_back(n);
  return nodes;
}

}  // namespace

void XmlDomForest::AddAsChildElements(xmlNodePtr element, XmlDomForest& source, bool copy) {
  xmlDocPtr target = Doc();
  for (xmlNodePtr n : TopNodes(source.m_doc)) xmlAddChild(element, Take(n, target, copy));
}

void XmlDomForest::AddAsTopElements(XmlDomForest& source, bool copy) {
  xmlDocPtr target = Doc();
  for (xmlNodePtr n : TopNodes(source.m_doc)) AppendTop(Take(n, target, copy));
}

bool XmlDomForest::InsertElementsFromXPath(const XmlDomForest& source, const char* xpath,
                                           XmlInsertLocation location, XmlDomLog& log) {
  xmlDocPtr doc = Doc();
  XPathResult r(doc, nullptr, xpath, log);
  if (!r.Get()) return false;
  const std::vector<xmlNodePtr> inserted = TopNodes(source.m_doc);
  std::unordered_set<xmlNodePtr> touched;
  for (xmlNodePtr target : EditTargets(r, false)) {
    const bool container = target->type == XML_ELEMENT_NODE || target->type == XML_DOCUMENT_NODE;
    const bool sibling = target->type != XML_ATTRIBUTE_NODE && target->type != XML_DOCUMENT_NODE &&
                         target->parent;
    xmlNodePtr parent = nullptr;
    xmlNodePtr next = nullptr;
    switch (location) {
      case XmlInsertLocation::kFirst:
        if (!container) continue;
        parent = target;
        next = target->children;
        break;
      case XmlInsertLocation::kLast:
        if (!container) continue;
        parent = target;
        break;
      case XmlInsertLocation::kBefore:
        if (!sibling) continue;
        parent = target->parent;
        next = target;
        break;
      case XmlInsertLocation::kAfter:
        if (!sibling) continue;
        parent = target->parent;
        next = target->next;
        break;
    }
    for (xmlNodePtr n : inserted) LinkBefore(parent, next, Take(n, doc, true));
    touched.insert(parent);
  }
  for (xmlNodePtr parent : touched) MergeAdjacentText(parent);
  return true;
}

bool XmlDomForest::UpdateElementsFromXPath(const XmlDomForest& source, const char* xpath,
                                           XmlDomLog& log) {
  xmlDocPtr doc = Doc();
  XPathResult r(doc, nullptr, xpath, log);
  if (!r.Get()) return false;
  const std::vector<xmlNodePtr> replacement = TopNodes(source.m_doc);
  std::unordered_set<xmlNodePtr> touched;
  for (xmlNodePtr target : EditTargets(r, true)) {
    if (target->type == XML_ATTRIBUTE_NODE) {
      std::string value;
      for (xmlNodePtr n : replacement) {
        xmlChar* text = xmlNodeGetContent(n);
        if (text) value += C(text);
        xmlFree(text);
      }
      xmlSetNsProp(target->parent, target->ns, target->name, X(value.c_str()));
      continue;
    }
    xmlNodePtr parent = target;
    xmlNodePtr next = nullptr;
    if (target->type == XML_DOCUMENT_NODE) {
      for (xmlNodePtr n : TopNodes(doc)) {
        xmlUnlinkNode(n);
        xmlFreeNode(n);
      }
    } else {
      parent = target->parent;
      next = target->next;
      xmlUnlinkNode(target);
      xmlFreeNode(target);
    }
    for (xmlNodePtr n : replacement) LinkBefore(parent, next, Take(n, doc, true));
    touched.insert(parent);
  }
  for (xmlNodePtr parent : touched) MergeAdjacentText(parent);
  return true;
}

bool XmlDomForest::DeleteElementsFromXPath(const char* xpath, XmlDomLog& log) {
  xmlDocPtr doc = Doc();
  XPathResult r(doc, nullptr, xpath, log);
  if (!r.Get()) return false;
  std::unordered_set<xmlNodePtr> touched;
  for (xmlNodePtr target : EditTargets(r, true)) {
    if (target->type == XML_ATTRIBUTE_NODE) {
      xmlRemoveProp(reinterpret_cast<xmlAttrPtr>(target));
    } else if (target->type == XML_DOCUMENT_NODE) {
      for (xmlNodePtr n : TopNodes(doc)) {
        xmlUnlinkNode(n);
        xmlFreeNode(n);
      }
    } else {
      touched.insert(target->parent);
      xmlUnlinkNode(target);
      xmlFreeNode(target);
    }
  }
  for (xmlNodePtr parent : touched) MergeAdjacentText(parent);
  return true;
}

// ---- XSLT ----

XmlXsltStylesheet::~XmlXsltStylesheet() { Clear(); }

void XmlXsltStylesheet::Clear() {
  if (m_style) xsltFreeStylesheet(static_cast<xsltStylesheetPtr>(m_style));
  m_style = nullptr;
}

bool XmlXsltStylesheet::Compile(const XmlDomForest& stylesheet, XmlDomLog& log) {
  Clear();
  if (!stylesheet.HasExactlyOneTopElement()) {
    log.Fail(XmlDomLog::Fault::kTransform, "a stylesheet must be exactly one element");
    return false;
  }
  xmlNodePtr top = stylesheet.GetSingleTopElement();
  if (IncludesOrImports(top)) {
    log.Fail(XmlDomLog::Fault::kRefused,
             "a stylesheet may not include or import other stylesheets");
    return false;
  }
  XmlWorkScope scope(true);
  xmlDocPtr doc = xmlNewDoc(X("1.0"));
  if (!doc) throw std::bad_alloc();
  xmlDocSetRootElement(doc, xmlDocCopyNode(top, doc, 1));
  xsltStylesheetPtr style = xsltParseStylesheetDoc(doc);
  if (!style || style->errors > 0) {
    if (style) {
      xsltFreeStylesheet(style);  // frees the document too
    } else {
      xmlFreeDoc(doc);
    }
    if (!scope.Sink().refusal.empty()) {
      log.Fail(XmlDomLog::Fault::kRefused, scope.Sink().refusal + " is refused");
    } else {
      log.Fail(XmlDomLog::Fault::kTransform, scope.Error("the stylesheet does not compile"));
    }
    return false;
  }
  m_style = style;
  return true;
}

bool XmlDomForest::AddAsTopElementsFromXslt(const XmlDomForest& source,
                                            const XmlDomForest& stylesheet, XmlDomLog& log) {
  XmlXsltStylesheet compiled;
  if (!compiled.Compile(stylesheet, log)) return false;
  return AddAsTopElementsFromXslt(source, compiled, log);
}

bool XmlDomForest::AddAsTopElementsFromXslt(const XmlDomForest& source,
                                            const XmlXsltStylesheet& stylesheet, XmlDomLog& log) {
  auto* style = static_cast<xsltStylesheetPtr>(stylesheet.m_style);
  if (!style) {
    log.Fail(XmlDomLog::Fault::kTransform, "no stylesheet");
    return false;
  }
  XmlDomForest empty;
  xmlDocPtr input = source.m_doc ? source.m_doc : empty.Doc();
  XmlWorkScope scope(true);
  xsltTransformContextPtr ctxt = xsltNewTransformContext(style, input);
  xsltSecurityPrefsPtr security = xsltNewSecurityPrefs();
  if (!ctxt || !security) throw std::bad_alloc();
  xsltSetSecurityPrefs(security, XSLT_SECPREF_READ_FILE, &RefuseAccess<XSLT_SECPREF_READ_FILE>);
  xsltSetSecurityPrefs(security, XSLT_SECPREF_WRITE_FILE, &RefuseAccess<XSLT_SECPREF_WRITE_FILE>);
  xsltSetSecurityPrefs(security, XSLT_SECPREF_CREATE_DIRECTORY,
                       &RefuseAccess<XSLT_SECPREF_CREATE_DIRECTORY>);
  xsltSetSecurityPrefs(security, XSLT_SECPREF_READ_NETWORK,
                       &RefuseAccess<XSLT_SECPREF_READ_NETWORK>);
  xsltSetSecurityPrefs(security, XSLT_SECPREF_WRITE_NETWORK,
                       &RefuseAccess<XSLT_SECPREF_WRITE_NETWORK>);
  xsltSetCtxtSecurityPrefs(security, ctxt);
  xsltSetTransformErrorFunc(ctxt, nullptr, &OnFormattedError);
  xsltSetCtxtParseOptions(ctxt, kParseOptions);
  ctxt->maxTemplateDepth = g_limits.max_template_depth;
  ctxt->opLimit = g_limits.max_xpath_operations;
  if (ctxt->xpathCtxt) {
    ctxt->xpathCtxt->opLimit = g_limits.max_xpath_operations;
    ctxt->xpathCtxt->opCount = 0;
  }
  scope.WatchXslt(ctxt);
  xmlDocPtr result = xsltApplyStylesheetUser(style, input, nullptr, nullptr, nullptr, ctxt);
  const bool completed = ctxt->state == XSLT_STATE_OK;
  scope.WatchXslt(nullptr);
  xsltFreeTransformContext(ctxt);
  xsltFreeSecurityPrefs(security);
  if (!result || !completed || scope.MemoryExceeded() || !scope.Sink().refusal.empty()) {
    if (result) xmlFreeDoc(result);
    if (scope.MemoryExceeded()) {
      log.Fail(XmlDomLog::Fault::kLimit, MemoryLimitText());
    } else if (!scope.Sink().refusal.empty()) {
      log.Fail(XmlDomLog::Fault::kRefused, scope.Sink().refusal);
    } else if (scope.OperationLimitReached()) {
      log.Fail(XmlDomLog::Fault::kLimit, OperationLimitText());
    } else {
      log.Fail(XmlDomLog::Fault::kTransform, scope.Error("the transformation failed"));
    }
    return false;
  }
  xmlDocPtr target = Doc();
  for (xmlNodePtr n : TopNodes(result)) AppendTop(Take(n, target, true));
  xmlFreeDoc(result);
  return true;
}

}  // namespace vx

// ---- tuple field conversions ----

namespace vx {

namespace {
// The text of results on their way into a field; keeps its capacity.
thread_local std::string t_xml_text;
}  // namespace

bool CpxTupleField_Xml::ToString(const XmlDomForest& forest, std::string& out, XmlDomLog& log,
                                 bool format) {
  return forest.ToString(out, log, format);
}

bool CpxTupleField_Xml::FromString(XmlDomForest& forest, std::string_view text, XmlDomLog& log) {
  return forest.Read(text, log);
}

bool CpxTupleField_Xml::GetValue(PtrView<const CpxTuple> t, unsigned p, XmlDomForest& forest,
                                 XmlDomLog& log) {
  return forest.Read(GetView(t, p), log);
}

bool CpxTupleField_Xml::SetValue(CpxTuple& t, unsigned p, XmlDomForest&& forest, XmlDomLog& log) {
  t_xml_text.clear();
  const bool written = forest.ToString(t_xml_text, log);
  forest.Set(nullptr, false);
  if (!written) return false;
  t.SetFieldValue(p, static_cast<uint32_t>(t_xml_text.size()), t_xml_text.data());
  return true;
}

std::optional<std::string> CpxTupleField_Xml::Canonical(std::string_view text, XmlDomLog& log) {
  XmlDomForest forest;
  std::string out;
  if (!forest.Read(text, log) || !forest.ToString(out, log)) return std::nullopt;
  return out;
}

}  // namespace vx
