# The public embedding interface, installation, the CMake package, the
# pkg-config file and the Debian package.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

file(GLOB VX_API_SOURCES CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/api/*.cpp")
set(VX_API_INCLUDES
  "$<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>"
  "$<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>")

# The interface over the static engine: static embedding and the unit tests.
add_library(vx_expressions_api STATIC ${VX_API_SOURCES})
target_include_directories(vx_expressions_api PUBLIC ${VX_API_INCLUDES})
target_link_libraries(vx_expressions_api PUBLIC vx_expressions)
set_target_properties(vx_expressions_api PROPERTIES
  POSITION_INDEPENDENT_CODE ON EXPORT_NAME vx_expressions_static)
vx_target_warnings(vx_expressions_api)

# The shared library exports the public interface only.
add_library(vx_expressions_shared SHARED ${VX_API_SOURCES})
target_include_directories(vx_expressions_shared PUBLIC ${VX_API_INCLUDES})
target_link_libraries(vx_expressions_shared PRIVATE vx_expressions)
target_link_options(vx_expressions_shared PRIVATE
  "LINKER:--version-script=${PROJECT_SOURCE_DIR}/api/exports.map")
set_target_properties(vx_expressions_shared PROPERTIES
  OUTPUT_NAME vx_expressions
  VERSION ${PROJECT_VERSION}
  SOVERSION ${PROJECT_VERSION_MAJOR}
  EXPORT_NAME vx_expressions
  LINK_DEPENDS "${PROJECT_SOURCE_DIR}/api/exports.map")
vx_target_warnings(vx_expressions_shared)
add_library(vx_expressions::vx_expressions ALIAS vx_expressions_shared)

set_target_properties(vx_expressions PROPERTIES EXPORT_NAME engine)
set_target_properties(vx_support PROPERTIES EXPORT_NAME support)

install(TARGETS vx_expressions_shared vx_expressions_api vx_expressions vx_support
  EXPORT vx_expressionsTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
if(TARGET cpxrun)
  install(TARGETS cpxrun RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()
install(DIRECTORY "${PROJECT_SOURCE_DIR}/include/" DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

set(VX_CMAKE_DIR "${CMAKE_INSTALL_LIBDIR}/cmake/vx_expressions")
install(EXPORT vx_expressionsTargets NAMESPACE vx_expressions:: DESTINATION "${VX_CMAKE_DIR}")
configure_package_config_file("${PROJECT_SOURCE_DIR}/cmake/vx_expressionsConfig.cmake.in"
  "${CMAKE_BINARY_DIR}/vx_expressionsConfig.cmake" INSTALL_DESTINATION "${VX_CMAKE_DIR}")
write_basic_package_version_file("${CMAKE_BINARY_DIR}/vx_expressionsConfigVersion.cmake"
  COMPATIBILITY SameMajorVersion)
install(FILES "${CMAKE_BINARY_DIR}/vx_expressionsConfig.cmake"
  "${CMAKE_BINARY_DIR}/vx_expressionsConfigVersion.cmake" DESTINATION "${VX_CMAKE_DIR}")

# pkg-config, relocatable: the prefix is found from the file's own place.
file(RELATIVE_PATH VX_PC_TO_PREFIX "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
configure_file("${PROJECT_SOURCE_DIR}/cmake/vx_expressions.pc.in"
  "${CMAKE_BINARY_DIR}/vx_expressions.pc" @ONLY)
install(FILES "${CMAKE_BINARY_DIR}/vx_expressions.pc" DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig")

set(CPACK_GENERATOR "DEB")
set(CPACK_PACKAGE_NAME "vx-expressions")
set(CPACK_PACKAGE_VENDOR "vx")
set(CPACK_PACKAGE_CONTACT "vx developers <dev@vx.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Expression engine of a streaming-query server")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
include(CPack)
