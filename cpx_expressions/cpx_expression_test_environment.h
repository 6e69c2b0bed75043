// What a test suite offers its context beyond the rows of its tests: named
// tuple storages, named sequences and the authentication token of the user
// the suite runs as. The suite declares them before its context:
//
// <TuplesStorages>
//   <TuplesStorage Name="rates">
//     <TupleDescriptor Name="Rate">
//       <Field Name="currency" Type="string"/> <Field Name="rate" Type="float"/>
//     </TupleDescriptor>
//     <Tuple Descriptor="Rate"><Field Name="currency">EUR</Field>...</Tuple>
//   </TuplesStorage>
// </TuplesStorages>
// <Sequences>
//   <Sequence Name="order_id" Start="1000" Increment="10"/>
// </Sequences>
// <AuthenticationToken UserName="alice">
//   <Group Name="traders"/>
//   <Preference Name="currency">EUR</Preference>
// </AuthenticationToken>
//
// Each element is optional. Rows of a storage are listed oldest first.
// "Start" and "Increment" default to 1; an increment of 0 is refused. Without
// an AuthenticationToken the suite runs with no current user.
//
// With persistence the sequences keep their values in the suite's store
// (AttachStore), so a draw commits with its row and survives the restart
// that precedes every test.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "cpx_expressions/cpx_context_services.h"

namespace vx {

class CpxExpressionTestEnvironment {
 public:
  // Reads whichever of the three elements stand at the reader, in the order
  // above; stops at the first other element.
  void ReadXml(XmlReaderContext& reader);
  // Writes them back as they were read (sequences as declared).
  void WriteXml(XmlWriterContext& writer) const;

  const CpxTuplesStorage* FindTuplesStorage(std::string_view name) const;
  CpxNextvalStorage_Sequences* GetSequences() { return m_has_sequences ? &m_sequences : nullptr; }
  const CpxExpressionAuthenticationToken* GetToken() const { return m_token.get(); }

  // Sequences: every declared sequence back at its start.
  void ResetSequences();

 private:
  struct Storage {
    std::string name;
    Ptr<CpxTupleDescriptor> descriptor;
    std::unique_ptr<CpxTuplesStorage_Vector> rows;
  };
  struct SequenceDeclaration {
    std::string name;
    int64_t start;
    int64_t increment;
  };
  void ReadStorages(XmlReaderContext& reader);
  void ReadSequences(XmlReaderContext& reader);
  void ReadToken(XmlReaderContext& reader);

  std::vector<Storage> m_storages;
  bool m_has_storages = false;
  std::vector<SequenceDeclaration> m_declarations;
  CpxNextvalStorage_Sequences m_sequences;
  bool m_has_sequences = false;
  std::unique_ptr<CpxExpressionAuthenticationToken_Simple> m_token;
};

}  // namespace vx
