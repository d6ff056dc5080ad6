// hostApi: ORVA_HOST_API marks the names that liborva_host exports. All others are hidden.
#pragma once

#if defined(_WIN32) && !defined(ORVA_FAULT_SEAM)
#ifdef ORVA_HOST_BUILDING
#define ORVA_HOST_API __declspec(dllexport)
#else
#define ORVA_HOST_API __declspec(dllimport)
#endif
#elif defined(__GNUC__)
#define ORVA_HOST_API __attribute__((visibility("default")))
#else
#define ORVA_HOST_API
#endif
