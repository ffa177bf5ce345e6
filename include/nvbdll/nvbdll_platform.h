/* Export macro, packing and compile-time checks shared by the public headers. */
#ifndef NVBDLL_PLATFORM_H
#define NVBDLL_PLATFORM_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#include <cstdio>
#define NVB_EXTERN_C_BEGIN extern "C" {
#define NVB_EXTERN_C_END }
#define NVB_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
#else
#include <stdbool.h>
#include <stdio.h>
#define NVB_EXTERN_C_BEGIN
#define NVB_EXTERN_C_END
#define NVB_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#endif

#if defined(_WIN32)
#define NVBDLL_API __declspec(dllexport)
#else
#define NVBDLL_API __attribute__((visibility("default")))
#endif

#define NVB_VERSION_MAJOR 8
#define NVB_VERSION_MINOR 97

#endif
