/* Performance markers of the platform's kernel. */
#ifndef PERF_MARKER_H
#define PERF_MARKER_H

#include <stddef.h>

#ifdef __cplusplus
extern "C"
{
#endif

    /**
     * Hands a text to the kernel as a performance marker (prctl option 666 with the text and its
     * length). A kernel without the facility refuses it, which is not an error here.
     * May be called from any thread.
     */
    __attribute__((visibility("default"))) void perf_marker(const char* text, size_t length);

#ifdef __cplusplus
}
#endif

#endif
