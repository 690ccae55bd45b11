// Forced inlining, for the pieces of a kernel's inner loop that must not become calls.
#ifndef KEL_INLINE_H
#define KEL_INLINE_H

/// The attribute: behind the parameters of a lambda, where a function says KEL_INLINE.
#define KEL_FORCED __attribute__((always_inline))
#define KEL_INLINE KEL_FORCED inline

#endif
