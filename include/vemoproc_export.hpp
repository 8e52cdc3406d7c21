#pragma once

// Symbol visibility: the library is built with hidden visibility, so only what
// carries VEMOPROC_API is part of its binary interface.
#if defined(_WIN32)
#if defined(VEMOPROC_BUILDING)
#define VEMOPROC_API __declspec(dllexport)
#else
#define VEMOPROC_API __declspec(dllimport)
#endif
#else
#define VEMOPROC_API __attribute__((visibility("default")))
#endif
