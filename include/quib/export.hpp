// The one macro that marks QUIB's exported interface.
#pragma once

#if defined(_WIN32)
#if defined(QUIB_BUILDING)
#define QUIB_API __declspec(dllexport)
#else
#define QUIB_API __declspec(dllimport)
#endif
#else
#define QUIB_API __attribute__((visibility("default")))
#endif
