// ORVA_API exports a name from the shared library; ORVA_LOCAL hides a member of an exported class.
#pragma once

#if defined(_WIN32)
#if defined(ORVA_BUILDING)
#define ORVA_API __declspec(dllexport)
#else
#define ORVA_API __declspec(dllimport)
#endif
#define ORVA_LOCAL
#else
#define ORVA_API __attribute__((visibility("default")))
#define ORVA_LOCAL __attribute__((visibility("hidden")))
#endif
