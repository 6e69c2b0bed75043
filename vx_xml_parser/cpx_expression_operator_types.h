// The catalogue of operator type names.
//
// Each operator class returns its XML type name from one accessor here,
// named function + type + "OperatorType" (`AddIntegerOperatorType`); the
// name itself is the accessor's stem, in no namespace (`AddInteger`). The
// registry keys operators by these names.
#pragma once

#include "support/xml_object.h"

// Operator families add their stems to this list.
#define VX_OPERATOR_TYPE_NAMES(X)                                                              \
  /* control flow */                                                                          \
  X(Noop) X(Goto) X(IfTrueGoto) X(IfFalseGoto) X(IfTrueOrNullGoto) X(IfFalseOrNullGoto)       \
  X(IfTrueStop) X(IfFalseStop) X(GotoLabel) X(IfTrueGotoLabel) X(IfFalseGotoLabel)            \
  X(IfTrueOrNullGotoLabel) X(IfFalseOrNullGotoLabel) X(IfDefinedGotoLabel)                    \
  X(IfUndefinedGotoLabel)                                                                     \
  /* tuple attributes */                                                                      \
  X(IsDefined) X(IsUndefined) X(Undefine) X(GetTimestamp) X(SetTimestamp) X(CopyTupleType)   \
  /* numeric arithmetic and comparison */                                                     \
  X(AddInteger) X(AddLong) X(AddFloat) X(SubtractInteger) X(SubtractLong) X(SubtractFloat)    \
  X(MultiplyInteger) X(MultiplyLong) X(MultiplyFloat)                                         \
  X(EqualInteger) X(EqualLong) X(EqualFloat) X(NotEqualInteger) X(NotEqualLong)               \
  X(NotEqualFloat) X(LessInteger) X(LessLong) X(LessFloat) X(LessOrEqualInteger)              \
  X(LessOrEqualLong) X(LessOrEqualFloat) X(GreaterInteger) X(GreaterLong) X(GreaterFloat)     \
  X(GreaterOrEqualInteger) X(GreaterOrEqualLong) X(GreaterOrEqualFloat)

namespace vx {

struct CpxExpressionOperatorTypes {
#define VX_OPERATOR_TYPE_ACCESSOR(stem)            \
  static const XmlQName& stem##OperatorType() {    \
    static const XmlQName name(#stem);             \
    return name;                                   \
  }
  VX_OPERATOR_TYPE_NAMES(VX_OPERATOR_TYPE_ACCESSOR)
#undef VX_OPERATOR_TYPE_ACCESSOR
};

}  // namespace vx
