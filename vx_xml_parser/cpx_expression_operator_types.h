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

// The value types that have a column-lookup and a preference operator, one
// entry per type: M(X, type word, type name, column-lookup stem, preference
// stem). One entry here gives a type both operators: their names, classes,
// shapes and registrations all follow from it.
#define VX_LOOKUP_OPERATOR_TYPES(M, X)                                                          \
  M(X, Boolean, boolean, GetColumnByNameBoolean, GetPreferenceBoolean)                         \
  M(X, Integer, integer, GetColumnByNameInteger, GetPreferenceInteger)                         \
  M(X, Long, long, GetColumnByNameLong, GetPreferenceLong)                                     \
  M(X, Float, float, GetColumnByNameFloat, GetPreferenceFloat)                                 \
  M(X, String, string, GetColumnByNameString, GetPreferenceString)                             \
  M(X, Time, time, GetColumnByNameTime, GetPreferenceTime)                                     \
  M(X, IntervalD2S, interval, GetColumnByNameIntervalD2S, GetPreferenceIntervalD2S)            \
  M(X, Blob, blob, GetColumnByNameBlob, GetPreferenceBlob)                                     \
  M(X, Xml, xml, GetXmlColumnByName, GetXmlPreference)
#define VX_LOOKUP_TYPE_NAMES(X, Type, type, column, preference) X(column) X(preference)

// Time operators: the time family and the generic operators over time.
#define VX_TIME_TYPE_NAMES(X)                                                                  \
  X(NowTime) X(ToStringTime) X(FromStringTime) X(ToStringIntervalTime)                        \
  X(FromStringIntervalTime) X(MakeTimestampTime) X(TimeMinusTimeToIntervalD2S) X(YearTime)    \
  X(MonthTime) X(DayOfYearTime) X(DayOfMonthTime) X(DayOfWeekTime) X(HourTime) X(MinuteTime)  \
  X(SecondTime) X(MicrosecondTime) X(AbsTime) X(AddTime) X(AverageTime) X(SubtractTime)       \
  X(MultiplyTime) X(MultiplyTimeByFloat) X(MultiplyTimeByInteger) X(MultiplyTimeByLong)       \
  X(DivideTimeByFloat) X(DivideTimeByInteger) X(DivideTimeByLong) X(DivideTimeByInterval)     \
  X(DivideTimeByTime) X(DivideTimeByTimeToFloat) X(NegativeTime) X(SignTime) X(MinTime)       \
  X(MaxTime) X(InListTime) X(EqualTime) X(NotEqualTime) X(GreaterTime) X(GreaterOrEqualTime)  \
  X(LessTime) X(LessOrEqualTime) X(ToFloatTime) X(ToLongTime) X(FromFloatTime)                \
  X(FromLongTime)

// Day-to-second interval operators, and time plus or minus an interval.
#define VX_INTERVAL_TYPE_NAMES(X)                                                              \
  X(FromStringIntervalD2S) X(ToDSIntervalIntervalD2S) X(ToStringIntervalD2S)                  \
  X(DayToDSIntervalD2S) X(HourToDSIntervalD2S) X(MinuteToDSIntervalD2S)                       \
  X(SecondToDSIntervalD2S) X(DayToHourToDSIntervalD2S) X(DayToMinuteToDSIntervalD2S)          \
  X(DayToSecondToDSIntervalD2S) X(HourToMinuteToDSIntervalD2S)                                \
  X(HourToSecondToDSIntervalD2S) X(MinuteToSecondToDSIntervalD2S) X(NumToDSIntervalD2S)       \
  X(ExtractFromIntervalD2S) X(TimePlusIntervalD2S) X(TimeMinusIntervalD2S)                    \
  X(IntervalD2SPlusTime) X(AbsIntervalD2S) X(AddIntervalD2S) X(SubtractIntervalD2S)           \
  X(AverageIntervalD2S) X(NegativeIntervalD2S) X(SignIntervalD2S) X(MinIntervalD2S)           \
  X(MaxIntervalD2S) X(InListIntervalD2S) X(EqualIntervalD2S) X(NotEqualIntervalD2S)           \
  X(GreaterIntervalD2S) X(GreaterOrEqualIntervalD2S) X(LessIntervalD2S)                       \
  X(LessOrEqualIntervalD2S) X(MultiplyIntervalD2SByFloat) X(MultiplyIntervalD2SByInteger)     \
  X(MultiplyIntervalD2SByLong) X(MultiplyFloatByIntervalD2S) X(MultiplyIntegerByIntervalD2S)  \
  X(MultiplyLongByIntervalD2S) X(DivideIntervalD2SByFloat) X(DivideIntervalD2SByInteger)      \
  X(DivideIntervalD2SByLong) X(DivideIntervalD2SByIntervalD2SToFloat)                         \
  X(IntervalModIntervalToInterval) X(ToFloatIntervalD2S) X(ToLongIntervalD2S)                 \
  X(FromFloatIntervalD2S) X(FromLongIntervalD2S)

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
  /* first and last live rows, tuple copies and equality, sequences */                       \
  X(First) X(Last) X(GetFirstTimestamp) X(GetLastTimestamp) X(CopyByRef) X(IsEqualTuples)     \
  X(NextVal)                                                                                  \
  /* column lookup, preferences and the current user */                                      \
  VX_LOOKUP_OPERATOR_TYPES(VX_LOOKUP_TYPE_NAMES, X) X(GetCurrentUserName)                     \
  X(IsCurrentUserInGroup)                                                                     \
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
  /* time and day-to-second interval */                                                       \
  VX_TIME_TYPE_NAMES(X) VX_INTERVAL_TYPE_NAMES(X)                                             \
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
