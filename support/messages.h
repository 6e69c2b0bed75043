// The server's message definitions used by the expression engine.
//
// Each definition is a function returning a `LogMessageDefinition`; the text
// carries `{name}` placeholders for the named values that the raising code
// attaches. Parameter faults carry "operation" (the operator's name),
// "class_name" (its display name), "number_input_params",
// "number_output_params", "last_err_str" and, where a type is expected,
// "type_name" or "input_type1".
#pragma once

#include <vector>

#include "support/log.h"

#define VX_MESSAGE_DEFINITIONS(X)                                                                  \
  X(VX_SERVER_EXPRESSION_INVALID_PARAMETERS, Error,                                                \
    "Invalid parameters for operator '{operation}' ({class_name}): {number_input_params} input "   \
    "and {number_output_params} output parameters. {last_err_str}")                               \
  X(VX_SERVER_EXPRESSION_INVALID_PARAMETERS_0_INPUT_0_OUTPUT, Error,                               \
    "Operator '{operation}' ({class_name}) expects no input and no output parameters; it has "     \
    "{number_input_params} input and {number_output_params} output parameters. {last_err_str}")   \
  X(VX_SERVER_EXPRESSION_INVALID_PARAMETERS_0_INPUT_1_OUTPUT, Error,                               \
    "Operator '{operation}' ({class_name}) expects no input and one output parameter; it has "     \
    "{number_input_params} input and {number_output_params} output parameters. {last_err_str}")   \
  X(VX_SERVER_EXPRESSION_INVALID_PARAMETERS_1_INPUT_0_OUTPUT, Error,                               \
    "Operator '{operation}' ({class_name}) expects one input and no output parameter; it has "     \
    "{number_input_params} input and {number_output_params} output parameters. {last_err_str}")   \
  X(VX_SERVER_EXPRESSION_INVALID_PARAMETERS_1_INPUT_1_OUTPUT, Error,                               \
    "Operator '{operation}' ({class_name}) expects one {type_name} input and one output "          \
    "parameter; it has {number_input_params} input and {number_output_params} output "             \
    "parameters. {last_err_str}")                                                                  \
  X(VX_SERVER_EXPRESSION_INVALID_PARAMETERS_2_INPUT_1_OUTPUT, Error,                               \
    "Operator '{operation}' ({class_name}) expects two input parameters and one output "           \
    "parameter; it has {number_input_params} input and {number_output_params} output "            \
    "parameters. {last_err_str}")                                                                  \
  X(VX_SERVER_EXPRESSION_INVALID_PARAMETERS_TWO_INPUT_0_OUTPUT, Error,                             \
    "Operator '{operation}' ({class_name}) expects two input parameters (the first "               \
    "{input_type1}) and no output parameter; it has {number_input_params} input and "              \
    "{number_output_params} output parameters. {last_err_str}")                                    \
  X(VX_SERVER_EXPRESSION_INVALID_PARAMETERS_TWO_INPUT_1_OUTPUT, Error,                             \
    "Operator '{operation}' ({class_name}) expects two {type_name} input parameters and one "      \
    "output parameter; it has {number_input_params} input and {number_output_params} output "      \
    "parameters. {last_err_str}")                                                                  \
  X(VX_SERVER_EXPRESSION_INVALID_PARAMETERS_TWO_OR_MORE_INPUT_1_OUTPUT, Error,                     \
    "Operator '{operation}' ({class_name}) expects two or more {type_name} input parameters and "  \
    "one output parameter; it has {number_input_params} input and {number_output_params} output "  \
    "parameters. {last_err_str}")                                                                  \
  X(VX_SERVER_EXPRESSION_INVALID_PARAMETERS_MANY_SAME_INPUT_1_OUTPUT, Error,                       \
    "Operator '{operation}' ({class_name}) expects input parameters of one type ({type_name}) "    \
    "and one output parameter; it has {number_input_params} input and {number_output_params} "     \
    "output parameters. {last_err_str}")                                                           \
  X(VX_SERVER_EXPRESSION_INVALID_WRONG_NUMBER_INPUT_PARAMETERS, Error,                             \
    "Operator '{operation}' ({class_name}) has a wrong number of input parameters: "               \
    "{number_input_params}. {last_err_str}")                                                       \
  X(VX_SERVER_EXPRESSION_INVALID_WRONG_NUMBER_OUTPUT_PARAMETERS, Error,                            \
    "Operator '{operation}' ({class_name}) has a wrong number of output parameters: "              \
    "{number_output_params}. {last_err_str}")                                                      \
  X(VX_SERVER_EXPRESSION_FIRST_INPUT_WRONG_TYPE, Error,                                            \
    "Operator '{operation}' ({class_name}): the first input parameter must be of type "            \
    "{type_name}")                                                                                 \
  X(VX_SERVER_EXPRESSION_SECOND_INPUT_WRONG_TYPE, Error,                                           \
    "Operator '{operation}' ({class_name}): the second input parameter must be of type "           \
    "{type_name}")                                                                                 \
  X(VX_SERVER_EXPRESSION_THIRD_INPUT_WRONG_TYPE, Error,                                            \
    "Operator '{operation}' ({class_name}): the third input parameter must be of type "            \
    "{type_name}")                                                                                 \
  X(VX_SERVER_EXPRESSION_FOURTH_INPUT_WRONG_TYPE, Error,                                           \
    "Operator '{operation}' ({class_name}): the fourth input parameter must be of type "           \
    "{type_name}")                                                                                 \
  X(VX_SERVER_EXPRESSION_NTH_INPUT_WRONG_TYPE, Error,                                              \
    "Operator '{operation}' ({class_name}): input parameter {index} must be of type {type_name}")  \
  X(VX_SERVER_EXPRESSION_OUTPUT_WRONG_TYPE, Error,                                                 \
    "Operator '{operation}' ({class_name}): the output parameter must be of type {type_name}")     \
  X(VX_SERVER_EXPRESSION_INPUT_TYPE_DOES_NOT_MATCH_OUTPUT_TYPE, Error,                             \
    "Operator '{operation}' ({class_name}): the output type does not match the input type "        \
    "{type_name}")                                                                                 \
  X(VX_SERVER_EXPRESSION_PARAMETER_OUTPUT_TYPE_MISMATCH, Error,                                    \
    "Operator '{operation}' ({class_name}): the output parameter type does not match "             \
    "{type_name}")                                                                                 \
  X(VX_SERVER_EXPRESSION_INCORRECT_FIELD_TYPE_FOUND, Error,                                        \
    "Operator '{operation}': a field of unexpected type {type_name} was found")                    \
  X(VX_SERVER_EXPRESSION_CONSTANT_FIELD_EXPECTED, Error,                                           \
    "Operator '{operation}' ({class_name}): input parameter {index} must be a constant field "     \
    "reference")                                                                                   \
  X(VX_SERVER_EXPRESSION_CANT_FIND_TUPLES_DESCRIPTOR, Error,                                       \
    "can't find descriptor '{tuple_ref}' among the {tuple_kind} tuples of operator '{operation}'") \
  X(VX_SERVER_EXPRESSION_CANT_FIND_TUPLES_STORAGE, Error, "can't find tuples storage '{name}'")     \
  X(VX_SERVER_EXPRESSION_CANT_FIND_FIELD, Error,                                                   \
    "can't find field '{field_ref}' in descriptor '{tuple_ref}' of operator '{operation}'")        \
  X(VX_SERVER_EXPRESSION_CANT_OBTAIN_FIELD, Error,                                                 \
    "can't obtain field '{field_ref}' of tuple '{tuple_ref}'")                                     \
  X(VX_SERVER_EXPRESSION_CANT_GET_FIELD_NAME, Error,                                               \
    "can't get the name of field {field_pos} of tuple {tuple_pos}")                                \
  X(VX_SERVER_EXPRESSION_CANT_GET_INTEGER_INDEX, Error,                                            \
    "Operator '{operation}' ({class_name}): the index parameter must be an integer field")         \
  X(VX_SERVER_EXPRESSION_CANT_GET_WINDOW_NAME, Error,                                              \
    "Operator '{operation}' ({class_name}): the window name cannot be read")                       \
  X(VX_SERVER_EXPRESSION_CAST_TO_TYPE_FAILED, Error,                                               \
    "Cannot convert value '{from_value}' of type {from_type} to type {to_type}")                   \
  X(VX_SERVER_EXPRESSION_COULD_NOT_PARSE_REGEX_PATTERN, Error,                                     \
    "Could not parse regular expression pattern '{pattern}': {error}")                             \
  X(VX_SERVER_EXPRESSION_OUTPUT_RESULT_SIZES_DO_NOT_MATCH, Error,                                  \
    "Operator '{operation}': result sizes do not match ({expected_size} and {actual_size})")       \
  X(VX_SERVER_EXPRESSION_PERSISTENCE_WRONG_RESTORED_VALUE_TYPE, Error,                             \
    "Operator {Operator} cannot restore a persistent value of type {Type}")                        \
  X(VX_SERVER_EXTRA_NEGATIVE_TUPLE_REMOVE_REQUEST, Error,                                          \
    "Extra negative tuple: {method} was asked to remove '{elem}', which it does not hold")         \
  X(VX_SERVER_COULD_NOT_OBTAIN_TUPLE, Error, "Could not obtain tuple {index} from the tuple list")  \
  X(VX_SERVER_OBJECT_IS_NOT_SPECIFIED, Error, "Object '{object}' is not specified")                \
  X(VX_SERVER_OBJECT_IS_NOT_VALID, Error, "Object '{object}' is not valid: {reason}")

namespace vx {

#define VX_DECLARE_MESSAGE(name, level, text) LogMessageDefinition name();
VX_MESSAGE_DEFINITIONS(VX_DECLARE_MESSAGE)
#undef VX_DECLARE_MESSAGE

// Every definition, in declaration order (for documentation and tests).
const std::vector<LogMessageDefinition>& AllMessageDefinitions();

}  // namespace vx
