// What a host may call across the boundary of a shared molra.
//
// The library is compiled with hidden visibility; MOLRA_API marks the
// classes and functions of the public headers that stay visible. A static
// library defines MOLRA_STATIC for itself and for whoever links it (the
// CMake package and molra.pc pass it on), so that nothing is imported from
// a DLL that is not there. MOLRA_BUILDING is defined while the shared
// library itself is compiled.
#pragma once

#if defined(MOLRA_STATIC)
#define MOLRA_API
#elif defined(_WIN32) || defined(__CYGWIN__)
#if defined(MOLRA_BUILDING)
#define MOLRA_API __declspec(dllexport)
#else
#define MOLRA_API __declspec(dllimport)
#endif
#elif defined(__GNUC__)
#define MOLRA_API __attribute__((visibility("default")))
#else
#define MOLRA_API
#endif
