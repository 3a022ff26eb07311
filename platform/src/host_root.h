/* The root below which the host layer looks for the system's files. */
#ifndef QOR_HOST_ROOT_H
#define QOR_HOST_ROOT_H

#include <glib.h>
#include <stdlib.h>

/* A directory that is taken for "/", so that tests can invent a machine; NULL for the real root. */
static inline const char* host_root(void)
{
    const char* root = secure_getenv("QOR_HOST_ROOT");
    return root != NULL && *root != '\0' ? root : NULL;
}

/* The place of an absolute path under the root; the caller frees it with g_free. */
static inline char* host_path(const char* path)
{
    const char* root = host_root();
    return root != NULL ? g_build_filename(root, path, NULL) : g_strdup(path);
}

#endif
