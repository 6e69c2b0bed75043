# Fails when docs/operators.md is not what `cpxrun operators --markdown`
# prints now. Regenerate with:
#   build/bin/cpxrun operators --markdown > docs/operators.md
execute_process(COMMAND "${CPXRUN}" operators --markdown
  OUTPUT_VARIABLE generated RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "cpxrun operators --markdown failed")
endif()
file(READ "${DOC}" current)
if(NOT generated STREQUAL current)
  message(FATAL_ERROR "docs/operators.md is out of date; regenerate it with\n"
                      "  build/bin/cpxrun operators --markdown > docs/operators.md")
endif()
message(STATUS "docs/operators.md lists every registered operator")
