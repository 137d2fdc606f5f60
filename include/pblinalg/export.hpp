// Symbol visibility of the shared library: everything is hidden except what is marked here.
#pragma once

#if defined(_WIN32)
#if defined(PBLINALG_BUILDING)
#define PBLINALG_EXPORT __declspec(dllexport)
#else
#define PBLINALG_EXPORT __declspec(dllimport)
#endif
#else
#define PBLINALG_EXPORT __attribute__((visibility("default")))
#endif
