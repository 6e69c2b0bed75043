// Build information of the vx_expressions library.
//
// The values are fixed when the build is configured (see cmake/BuildInfo.cmake).
// Every returned string is static and stays valid for the life of the process.

#ifndef CPX_EXPRESSIONS_VX_EXPRESSIONS_BUILD_H_
#define CPX_EXPRESSIONS_VX_EXPRESSIONS_BUILD_H_

#if defined(__GNUC__) || defined(__clang__)
#define VX_EXPRESSIONS_BUILD_EXPORT __attribute__((visibility("default")))
#else
#define VX_EXPRESSIONS_BUILD_EXPORT
#endif

#ifdef __cplusplus
extern "C" {
#endif

/// Numeric version: major * 10000 + minor * 100 + patch.
VX_EXPRESSIONS_BUILD_EXPORT unsigned vx_expressions_get_build_version(void);

/// Version as "major.minor.patch", e.g. "0.1.0".
VX_EXPRESSIONS_BUILD_EXPORT const char* vx_expressions_get_build_version_string(void);

/// "vx_expressions <version> (<label>, <id>, built <date> by <user>)".
VX_EXPRESSIONS_BUILD_EXPORT const char* vx_expressions_get_full_build_version_string(void);

/// `git describe --always --dirty` of the source tree, or "<version>-nogit" without git history.
VX_EXPRESSIONS_BUILD_EXPORT const char* vx_expressions_get_build_label(void);

/// Full git commit hash of the source tree, or "unknown" outside a git checkout.
VX_EXPRESSIONS_BUILD_EXPORT const char* vx_expressions_get_build_id(void);

/// UTC build date in ISO 8601 form "YYYY-MM-DDTHH:MM:SSZ" (SOURCE_DATE_EPOCH when set).
VX_EXPRESSIONS_BUILD_EXPORT const char* vx_expressions_get_build_date(void);

/// User who configured the build ($USER, else `id -un`, else "unknown").
VX_EXPRESSIONS_BUILD_EXPORT const char* vx_expressions_get_build_user(void);

/// Module name: "vx_expressions".
VX_EXPRESSIONS_BUILD_EXPORT const char* vx_expressions_get_build_module(void);

#ifdef __cplusplus
}  // extern "C"
#endif

#endif  // CPX_EXPRESSIONS_VX_EXPRESSIONS_BUILD_H_
