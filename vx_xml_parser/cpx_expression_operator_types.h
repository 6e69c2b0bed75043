// The catalogue of operator type names.
//
// Each operator class returns its XML type name from one accessor here,
// named function + type + "OperatorType" (`AddIntegerOperatorType`); the
// name itself is the accessor's stem, in no namespace (`AddInteger`). The
// registry keys operators by these names.
#pragma once

#include "support/xml_object.h"

// The accumulators and the Threshold operator of one numeric, time or
// interval type T (AccumulatorSumInteger ... ThresholdInteger).
#define VX_ACCUMULATOR_TYPE_NAMES(X, T)                                                        \
  X(AccumulatorSum##T) X(AccumulatorSumDistinct##T) X(AccumulatorAvg##T)                      \
  X(AccumulatorAvgDistinct##T) X(AccumulatorMedian##T) X(AccumulatorMedianDistinct##T)        \
  X(AccumulatorStandardDeviation##T) X(AccumulatorStandardDeviationDistinct##T)               \
  X(AccumulatorMeanDeviation##T) X(AccumulatorMeanDeviationDistinct##T) X(AccumulatorMin##T)  \
  X(AccumulatorMinDistinct##T) X(AccumulatorMax##T) X(AccumulatorMaxDistinct##T)              \
  X(AccumulatorLast##T) X(AccumulatorCountDistinct##T) X(Threshold##T)

// Operator families add their stems to this list.
#define VX_OPERATOR_TYPE_NAMES(X)                                                              \
  /* control flow */                                                                          \
  X(Noop) X(Goto) X(IfTrueGoto) X(IfFalseGoto) X(IfTrueOrNullGoto) X(IfFalseOrNullGoto)       \
  X(IfTrueStop) X(IfFalseStop) X(GotoLabel) X(IfTrueGotoLabel) X(IfFalseGotoLabel)            \
  X(IfTrueOrNullGotoLabel) X(IfFalseOrNullGotoLabel) X(IfDefinedGotoLabel)                    \
  X(IfUndefinedGotoLabel)                                                                     \
  /* tuple attributes */                                                                      \
  X(IsDefined) X(IsUndefined) X(Undefine) X(GetTimestamp) X(SetTimestamp) X(CopyTupleType)   \
  /* row history */                                                                           \
  X(Prev) X(GetPrevTimestamp)                                                                 \
  /* accumulators and Threshold */                                                            \
  VX_ACCUMULATOR_TYPE_NAMES(X, Integer) VX_ACCUMULATOR_TYPE_NAMES(X, Long)                    \
  VX_ACCUMULATOR_TYPE_NAMES(X, Float) VX_ACCUMULATOR_TYPE_NAMES(X, Time)                      \
  VX_ACCUMULATOR_TYPE_NAMES(X, IntervalD2S)                                                   \
  X(AccumulatorCount) X(AccumulatorCountRows) X(AccumulatorLastBoolean)                       \
  X(AccumulatorCountDistinctBoolean) X(AccumulatorLastString)                                 \
  X(AccumulatorCountDistinctString) X(AccumulatorMinString) X(AccumulatorMaxString)           \
  X(AccumulatorMinDistinctString) X(AccumulatorMaxDistinctString)                             \
  X(AccumulatorCountDistinctBlob)                                                             \
  /* numeric arithmetic and comparison */                                                     \
  X(AddInteger) X(AddLong) X(AddFloat) X(SubtractInteger) X(SubtractLong) X(SubtractFloat)    \
  X(MultiplyInteger) X(MultiplyLong) X(MultiplyFloat)                                         \
  X(EqualInteger) X(EqualLong) X(EqualFloat) X(NotEqualInteger) X(NotEqualLong)               \
  X(NotEqualFloat) X(LessInteger) X(LessLong) X(LessFloat) X(LessOrEqualInteger)              \
  X(LessOrEqualLong) X(LessOrEqualFloat) X(GreaterInteger) X(GreaterLong) X(GreaterFloat)     \
  X(GreaterOrEqualInteger) X(GreaterOrEqualLong) X(GreaterOrEqualFloat)                       \
  X(DivideInteger) X(DivideLong) X(DivideFloat) X(ModuloInteger) X(ModuloLong) X(ModuloFloat) \
  X(PowerInteger) X(PowerLong) X(PowerFloat) X(SqrtInteger) X(SqrtLong) X(SqrtFloat)          \
  X(AbsInteger) X(AbsLong) X(AbsFloat) X(NegativeInteger) X(NegativeLong) X(NegativeFloat)    \
  X(SignInteger) X(SignLong) X(SignFloat) X(MinInteger) X(MinLong) X(MinFloat)                \
  X(MaxInteger) X(MaxLong) X(MaxFloat) X(AverageInteger) X(AverageLong) X(AverageFloat)       \
  X(DistanceInteger) X(DistanceLong) X(DistanceFloat) X(DistanceSquaredInteger)               \
  X(DistanceSquaredLong) X(DistanceSquaredFloat) X(InListInteger) X(InListLong)               \
  X(InListFloat) X(RandomInteger) X(RandomFloat)                                              \
  /* numeric conversions and text forms */                                                    \
  X(ToFloatInteger) X(ToFloatLong) X(ToLongInteger) X(ToIntegerLong) X(ToIntegerFloat)        \
  X(ToLongFloat) X(FromStringInteger) X(FromStringLong) X(FromStringFloat)                    \
  X(FromStringBoolean) X(ToStringInteger) X(ToStringLong) X(ToStringFloat) X(ToStringBoolean) \
  /* float mathematical functions */                                                          \
  X(ACosFloat) X(ASinFloat) X(ATanFloat) X(SinFloat) X(CosFloat) X(TanFloat) X(SinDFloat)     \
  X(CosDFloat) X(TanDFloat) X(SinhFloat) X(CoshFloat) X(TanhFloat) X(ExpFloat) X(LnFloat)     \
  X(Log2Float) X(Log10Float) X(LogFloat) X(ATan2Float)                                        \
  /* boolean */                                                                               \
  X(AndBoolean) X(OrBoolean) X(XorBoolean) X(NotBoolean) X(EqualBoolean) X(NotEqualBoolean)   \
  X(InListBoolean)                                                                            \
  /* string */                                                                                \
  X(LengthString) X(SubstrString) X(MidString) X(LeftString) X(RightString)                   \
  X(LeftTrimString) X(RightTrimString) X(TrimString) X(ConcatenateString) X(InstrString)      \
  X(ReplaceString) X(UpperString) X(LowerString) X(EqualString) X(NotEqualString)             \
  X(GreaterString) X(GreaterOrEqualString) X(LessString) X(LessOrEqualString) X(MaxString)    \
  X(MinString) X(InListString) X(LikeString) X(RegexMatchBoostString)                        \
  X(RegexSearchBoostString) X(RegexFirstSearchBoostString) X(RegexReplaceBoostString)         \
  /* blob */                                                                                  \
  X(BlobLength) X(BlobExtract) X(ConcatenateBlob) X(ToStringBlob) X(ToBlobString)             \
  X(ToBase64StringBlob) X(ToBlobBase64) X(EqualBlob) X(NotEqualBlob) X(LessBlob)              \
  X(LessOrEqualBlob) X(GreaterBlob) X(GreaterOrEqualBlob)                                    \
  /* xml */                                                                                   \
  X(XmlExists) X(XmlExtract) X(XmlExtractValue) X(XPathString) X(XmlAddElementNode)           \
  X(XmlAddAttributeNode) X(XmlAddChildTextNode) X(XmlAddChildCommentNode) X(XmlAddChildPINode) \
  X(XmlAddChildrenNodes) X(XmlAddNodes) X(XmlAddNamespaceNode) X(XmlInsertXml) X(XmlUpdateXml) \
  X(XmlDeleteXml) X(XmlTransform) X(ToStringXml) X(ToXmlString) X(XmlAggAccumulatorXml)

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
