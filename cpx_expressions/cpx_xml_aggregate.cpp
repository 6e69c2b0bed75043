// XML aggregation: XmlAggAccumulatorXml gathers the XML values of a group
// into one value whose top-level nodes are the values held, in the order in
// which they arrived.
//
// A held value is kept as its canonical text (XmlDomForest's text form).
// Reading a value and writing it back gives that text whatever the input's
// surface form, so two values are equal exactly when their texts are equal
// byte for byte, and the result, the top-level nodes of every held value
// gathered into one forest, is the held texts one after another: the text
// form of a forest is its top-level nodes' texts, and a top-level element
// always declares the namespaces it uses. The text is thus the whole value;
// keeping documents as well would only cost memory.
#include <algorithm>
#include <cstring>
#include <unordered_map>

#include "cpx_expressions/cpx_operator_registry.h"
#include "cpx_expressions/cpx_xml_operators.h"

namespace vxi {

using namespace vx;

// Inputs: 0 the XML value, 1 a boolean that is true when the row enters the
// group and false when it leaves; output: the aggregate. NULL policy: a NULL
// value (or a NULL boolean) changes nothing and leaves the output untouched;
// so does a value that cannot be read (logged). A leaving value that is not
// held changes nothing either.
class CpxExpressionOperator_XmlAggAccumulator_Engine final : public CpxExpressionOperator_Engine {
  VX_OPERATOR_TYPE(CpxExpressionOperator_Engine, XmlAggAccumulatorXml)

  // One held value: its text, the hash the index files it under, and (as
  // its key in the state) its arrival number.
  struct DomTreeValue {
    VxMemoryString text;
    uint64_t hash = 0;
  };

  // Per-group state. Items: 0 "XmlAggAccumulatorXml", one record per held
  // value keyed by its arrival number, holding its text; 1
  // "XmlAggAccumulatorAgg", the arrival counter. After a restart the counter
  // is at least the largest arrival number restored, so new values sort
  // after the old ones.
  class CpxExpressionOperatorState_Engine_XmlAggAccumulator final : public CpxAccumulatorState {
   public:
    static constexpr uint32_t kValueItem = 0;
    static constexpr uint32_t kCounterItem = 1;

    void AddValue(Batch* batch, std::string_view text) {
      const uint64_t arrival = ++m_arrivals;
      DomTreeValue& value = m_values[arrival];
      value.text.assign(text.data(), text.size());
      value.hash = XmlDomForest::HashText(text);
      m_index.emplace(value.hash, arrival);
      SaveKeyedRawBuffer(batch, kValueItem, arrival, text);
      SaveItem(batch, kCounterItem, m_arrivals);
    }
    // Removes the oldest held value equal to `text`, the one a window lets
    // go first; false when none is held.
    bool RemoveValue(Batch* batch, std::string_view text) {
      auto [first, last] = m_index.equal_range(XmlDomForest::HashText(text));
      auto oldest = last;
      for (auto it = first; it != last; ++it) {
        if ((oldest == last || it->second < oldest->second) &&
            ViewOf(m_values.at(it->second).text) == text)
          oldest = it;
      }
      if (oldest == last) return false;
      const uint64_t arrival = oldest->second;
      m_index.erase(oldest);
      m_values.erase(arrival);
      EraseKeyedRawBuffer(batch, kValueItem, arrival);
      return true;
    }
    // Appends the aggregate's text: every held text in arrival order.
    void AppendResult(std::string& out) const {
      for (const auto& [arrival, value] : m_values) out.append(value.text.data(), value.text.size());
    }

    void RestoreFromPersistentStorage(const PutMessage& message, unsigned block) override {
      std::string_view bytes;
      if (LoadRawBuffer(message, block, kValueItem, bytes)) {
        XmlDomForest forest;
        XmlDomLog log;
        if (!forest.Read(bytes, log)) {
          VX_RAISE_TEXT("Cannot find Xml value in {method}", "XmlAggAccumulator",
                        {"method", "RestoreFromPersistentStorage"}, {"error", log.GetText()});
        }
        const uint64_t arrival = LoadSubKey(message, block);
        if (auto held = m_values.find(arrival); held != m_values.end()) Unindex(arrival, held->second.hash);
        DomTreeValue& value = m_values[arrival];
        value.text.assign(bytes.data(), bytes.size());
        value.hash = XmlDomForest::HashText(bytes);
        m_index.emplace(value.hash, arrival);
        m_arrivals = std::max(m_arrivals, arrival);
      } else if (LoadRawBuffer(message, block, kCounterItem, bytes)) {
        if (bytes.size() != sizeof m_arrivals) RaiseUnknownItem(kCounterItem, "XmlAggAccumulatorAgg");
        uint64_t counter = 0;
        std::memcpy(&counter, bytes.data(), sizeof counter);
        m_arrivals = std::max(m_arrivals, counter);
      } else {
        RaiseUnknownItem(GetValueType(message, block), nullptr);
      }
    }

   private:
    using Index = std::unordered_multimap<uint64_t, uint64_t, std::hash<uint64_t>,
                                          std::equal_to<uint64_t>,
                                          VxMemoryObjectAllocator<std::pair<const uint64_t, uint64_t>>>;

    static std::string_view ViewOf(const VxMemoryString& s) { return {s.data(), s.size()}; }
    void Unindex(uint64_t arrival, uint64_t hash) {
      auto [first, last] = m_index.equal_range(hash);
      auto it = std::find_if(first, last, [&](const auto& entry) { return entry.second == arrival; });
      if (it != last) m_index.erase(it);
    }

    uint64_t m_arrivals = 0;
    VxMemoryMap<uint64_t, DomTreeValue> m_values;  // by arrival number
    Index m_index;                                 // hash -> arrival number
  };

  using State = CpxExpressionOperatorState_Engine_XmlAggAccumulator;
  static constexpr char kCount[] = "Expected exactly 2 parameters XmlAggAccumulator: xml, bool, xml";

  Ptr<CpxExpressionOperatorState_Engine> CreateState() const override { return MakePtr<State>(); }
  // The input is read in full before the output is written.
  bool ProhibitInputEqualOutputTuple() const override { return false; }
  void InsureValidParameters() const override {
    if (GetInputParameters().size() != 2) CpxRaiseXmlText<kCount>(__func__, GetName(), {});
    InsureParameterCounts(2, 1);
    InsureInputType(0, CpxFieldKind::Xml);
    InsureInputType(1, CpxFieldKind::Boolean);
    InsureOutputType(0, CpxFieldKind::Xml);
  }
  void Execute(CpxExpressionEvaluator_Engine* ev, unsigned position) const override {
    unsigned value_pos = 0, enter_pos = 0, out_pos = 0;
    const CpxTuple* value = GetInputTupleField(ev, 0, value_pos);
    const CpxTuple* enter = GetInputTupleField(ev, 1, enter_pos);
    if (!value->HasFieldValue(value_pos) || !enter->HasFieldValue(enter_pos)) return;
    XmlDomForest forest;
    if (!CpxReadXmlField(GetName(), *value, value_pos, forest)) return;
    std::string& text = t_text;
    text.clear();
    XmlDomLog log;
    if (!CpxTupleField_Xml::ToString(forest, text, log)) return LogUnwritable(log);
    State& state = static_cast<State&>(*ev->GetOperatorState(position));
    if (CpxTupleField_Boolean::GetValue(enter, enter_pos)) {
      state.AddValue(ev->GetPersistentBatch(), text);
    } else {
      state.RemoveValue(ev->GetPersistentBatch(), text);
    }
    text.clear();
    state.AppendResult(text);
    CpxTuple* out = GetOutputTupleField(ev, 0, out_pos);
    if (text.size() > GetXmlLimits().max_document_bytes) {
      log.Fail(XmlDomLog::Fault::kRefused, "the aggregate is longer than " +
                                               std::to_string(GetXmlLimits().max_document_bytes) +
                                               " bytes");
      LogUnwritable(log);
      return out->ClearFieldValue(out_pos);
    }
    CpxTupleField_Xml::SetValue(*out, out_pos, text);
  }

 private:
  void LogUnwritable(const XmlDomLog& log) const {
    VX_LOG_TEXT(LogLevel::Warning, "{operation}: the XML aggregate cannot be written: {error}",
                GetName(), {"operation", GetName()}, {"error", log.GetText()});
  }

  static inline thread_local std::string t_text;
};

}  // namespace vxi

namespace vx {

void RegisterXmlAggregateOperators(CpxExpressionOperatorRegistry& registry) {
  static const CpxOperatorInfo kTable[] = {
      VX_OPERATOR(vxi::CpxExpressionOperator_XmlAggAccumulator_Engine,
                  "1 xml, 1 boolean (true: enters, false: leaves)", "1 xml",
                  "a NULL input changes nothing and leaves the output as it is",
                  "The group's XML values as top-level nodes, in arrival order."),
  };
  registry.Register(kTable, std::size(kTable));
}

}  // namespace vx
