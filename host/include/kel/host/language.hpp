// Stops compilers that are set to an older language than the host kit is written in.
//
// A file that is missing ends the compilation with one message, where an error directive would be
// followed by hundreds about what the older language lacks; so the message is the file's name.
#ifndef KEL_HOST_LANGUAGE_HPP
#define KEL_HOST_LANGUAGE_HPP

#ifdef _MSVC_LANG  // where __cplusplus tells of C++98
#define KEL_HOST_LANGUAGE _MSVC_LANG
#else
#define KEL_HOST_LANGUAGE __cplusplus
#endif
#if KEL_HOST_LANGUAGE <= 201703L
#include "the host kit of Kel needs C++20: compile with -std=c++20 (kel/Kel.h needs C++17, kel/kel.h C)"
#endif

#endif
