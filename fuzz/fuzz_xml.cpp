// XML values and the XML functions' building blocks. The input is a
// document, an XPath expression and a stylesheet separated by NUL bytes.
// A document that reads has a canonical text that reads back to the same
// text; XPath queries, deletion by XPath and the transformation either work
// or record their fault. Parsing refuses external entities, DTDs and the
// network, and a stylesheet cannot reach files, so nothing outside the
// input is ever read.
#include <libxml/xmlmemory.h>

#include <cstdlib>
#include <string>
#include <string_view>

#include "fuzz/fuzz_common.h"
#include "support/xml_dom_forest.h"

namespace {

void Check(bool ok) {
  if (!ok) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace vx;
  fuzz::Setup();
  if (size > 65536) return 0;
  std::string_view in(reinterpret_cast<const char*>(data), size);
  std::string parts[3];
  for (std::string& part : parts) {
    const size_t cut = in.find('\0');
    part = std::string(in.substr(0, cut));
    in = cut == std::string_view::npos ? std::string_view() : in.substr(cut + 1);
  }
  XmlDomLog log;
  XmlDomForest doc;
  if (!doc.Read(parts[0], log)) return 0;
  std::string canonical;
  if (doc.ToString(canonical, log)) {
    XmlDomForest again;
    XmlDomLog again_log;
    Check(again.Read(canonical, again_log));
    std::string twice;
    Check(again.ToString(twice, again_log) && twice == canonical);
  }
  log.Clear();
  doc.ExecuteXPathForOneMatch(parts[1].c_str(), log);
  log.Clear();
  if (xmlChar* first = doc.ExecuteXPathForFirstString(parts[1].c_str(), log)) xmlFree(first);
  log.Clear();
  XmlDomForest stylesheet;
  if (stylesheet.Read(parts[2], log)) {
    XmlDomForest result;
    log.Clear();
    result.AddAsTopElementsFromXslt(doc, stylesheet, log);
  }
  log.Clear();
  doc.DeleteElementsFromXPath(parts[1].c_str(), log);
  return 0;
}
