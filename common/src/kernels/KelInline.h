// Forced inlining, for the pieces of a kernel's inner loop that must not become calls.
#ifndef KEL_INLINE_H
#define KEL_INLINE_H

#define KEL_INLINE [[gnu::always_inline]] inline

#endif
