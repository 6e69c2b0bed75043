# Build information baked into vx_expressions.
#
#   vx_generate_build_info(<out_var>)
#
# Collects version, git label and commit, date and user at configure time,
# configures cmake/build_info.cpp.in into the build tree and stores the path
# of the generated source in <out_var>. The values are read once per
# configure; moving HEAD (commit, checkout, reset) triggers a reconfigure.
# Uncommitted edits alone do not, so "-dirty" reflects the last configure.

include_guard(GLOBAL)

set(_VX_BUILD_INFO_TEMPLATE "${CMAKE_CURRENT_LIST_DIR}/build_info.cpp.in")

# Escape a value for use inside a C string literal.
function(_vx_c_string out value)
  string(REPLACE "\\" "\\\\" value "${value}")
  string(REPLACE "\"" "\\\"" value "${value}")
  string(REPLACE "\n" "\\n" value "${value}")
  set(${out} "${value}" PARENT_SCOPE)
endfunction()

# Run git in the source tree; <out> is empty when git is missing or fails.
function(_vx_git out)
  set(result "")
  if(GIT_EXECUTABLE)
    execute_process(
      COMMAND "${GIT_EXECUTABLE}" -C "${PROJECT_SOURCE_DIR}" ${ARGN}
      RESULT_VARIABLE rc
      OUTPUT_VARIABLE stdout
      ERROR_QUIET
      OUTPUT_STRIP_TRAILING_WHITESPACE)
    if(rc EQUAL 0)
      set(result "${stdout}")
    endif()
  endif()
  set(${out} "${result}" PARENT_SCOPE)
endfunction()

# Reconfigure when HEAD moves. Only existing paths are added: a missing file
# would make ninja rerun cmake on every build.
function(_vx_watch_git_head)
  _vx_git(head_file rev-parse --path-format=absolute --git-path HEAD)
  if(NOT head_file OR NOT EXISTS "${head_file}")
    return()
  endif()
  set(watch "${head_file}")
  _vx_git(reflog rev-parse --path-format=absolute --git-path logs/HEAD)
  if(reflog AND EXISTS "${reflog}")
    list(APPEND watch "${reflog}")
  endif()
  _vx_git(ref symbolic-ref -q HEAD)
  if(ref)
    _vx_git(ref_file rev-parse --path-format=absolute --git-path "${ref}")
    if(ref_file AND EXISTS "${ref_file}")
      list(APPEND watch "${ref_file}")
    elseif(ref_file)
      # Unborn branch: the ref file appears in this directory on the first commit.
      get_filename_component(ref_dir "${ref_file}" DIRECTORY)
      if(EXISTS "${ref_dir}")
        list(APPEND watch "${ref_dir}")
      endif()
    endif()
  endif()
  set_property(DIRECTORY "${PROJECT_SOURCE_DIR}" APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${watch})
endfunction()

function(vx_generate_build_info out_var)
  find_package(Git QUIET)

  set(VX_BI_MODULE "${PROJECT_NAME}")
  set(VX_BI_VERSION "${PROJECT_VERSION}")
  math(EXPR VX_BI_VERSION_NUMBER
    "${PROJECT_VERSION_MAJOR} * 10000 + ${PROJECT_VERSION_MINOR} * 100 + ${PROJECT_VERSION_PATCH}")

  _vx_git(label describe --always --dirty)
  if(NOT label)
    set(label "${PROJECT_VERSION}-nogit")
  endif()

  _vx_git(build_id rev-parse --verify -q HEAD)
  if(NOT build_id)
    set(build_id "unknown")
  endif()

  # string(TIMESTAMP) uses SOURCE_DATE_EPOCH when it is set.
  string(TIMESTAMP build_date "%Y-%m-%dT%H:%M:%SZ" UTC)

  set(build_user "$ENV{USER}")
  if(NOT build_user)
    execute_process(COMMAND id -un
      RESULT_VARIABLE rc
      OUTPUT_VARIABLE build_user
      ERROR_QUIET
      OUTPUT_STRIP_TRAILING_WHITESPACE)
    if(NOT rc EQUAL 0)
      set(build_user "")
    endif()
  endif()
  if(NOT build_user)
    set(build_user "unknown")
  endif()

  set(full "${VX_BI_MODULE} ${VX_BI_VERSION} (${label}, ${build_id}, built ${build_date} by ${build_user})")

  _vx_c_string(VX_BI_LABEL "${label}")
  _vx_c_string(VX_BI_ID "${build_id}")
  _vx_c_string(VX_BI_DATE "${build_date}")
  _vx_c_string(VX_BI_USER "${build_user}")
  _vx_c_string(VX_BI_FULL "${full}")

  set(generated "${PROJECT_BINARY_DIR}/generated/vx_expressions_build_info.cpp")
  configure_file("${_VX_BUILD_INFO_TEMPLATE}" "${generated}" @ONLY)

  _vx_watch_git_head()

  message(STATUS "Build info: ${full}")
  set(${out_var} "${generated}" PARENT_SCOPE)
endfunction()
