/* Facts about the machine, answered from the running system. */
#include <system_info.h>

#include <glib.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/utsname.h>
#include <unistd.h>

#include "host_root.h"

/* The text of a one-line file; NULL if there is none. */
static char* read_line(const char* path)
{
    char* file = host_path(path);
    char* text = NULL;
    gboolean ok = g_file_get_contents(file, &text, NULL, NULL);
    g_free(file);
    if (!ok)
    {
        return NULL;
    }
    g_strstrip(text);
    if (*text == '\0')
    {
        g_free(text);
        return NULL;
    }
    return text;
}

static char* model(void)
{
    /* Firmware of embedded boards, then of PCs. */
    static const char* const files[] = {"/proc/device-tree/model",
                                        "/sys/class/dmi/id/product_name"};
    for (size_t i = 0; i < G_N_ELEMENTS(files); ++i)
    {
        char* text = read_line(files[i]);
        if (text != NULL)
        {
            return text;
        }
    }
    struct utsname names;
    return uname(&names) == 0 ? g_strdup(names.machine) : NULL;
}

static char* kernel_release(void)
{
    struct utsname names;
    return uname(&names) == 0 ? g_strdup(names.release) : NULL;
}

/* The value of a NAME=value line; values are quoted as in a shell. */
static char* find_assignment(const char* text, const char* name)
{
    char** lines = g_strsplit(text, "\n", -1);
    const size_t length = strlen(name);
    char* value = NULL;
    for (char** line = lines; *line != NULL && value == NULL; ++line)
    {
        if (strncmp(*line, name, length) == 0 && (*line)[length] == '=')
        {
            value = g_shell_unquote(*line + length + 1, NULL);
        }
    }
    g_strfreev(lines);
    return value;
}

static char* os_release(const char* name)
{
    static const char* const files[] = {"/etc/os-release", "/usr/lib/os-release"};
    for (size_t i = 0; i < G_N_ELEMENTS(files); ++i)
    {
        char* text = read_line(files[i]);
        if (text != NULL)
        {
            char* value = find_assignment(text, name);
            g_free(text);
            return value;
        }
    }
    return NULL;
}

int system_info_get_value_int(system_info_key_e key, int* value)
{
    if (value == NULL)
    {
        return SYSTEM_INFO_BAD_KEY;
    }
    long result;
    switch (key)
    {
    case SYSTEM_INFO_KEY_PROCESSOR_COUNT:
        result = sysconf(_SC_NPROCESSORS_ONLN);
        break;
    case SYSTEM_INFO_KEY_MEMORY_MIB:
    {
        const long long pages = sysconf(_SC_PHYS_PAGES);
        result = (long)(pages * sysconf(_SC_PAGESIZE) >> 20);
        break;
    }
    default:
        return SYSTEM_INFO_BAD_KEY;
    }
    if (result <= 0 || result > INT_MAX)
    {
        return SYSTEM_INFO_UNAVAILABLE;
    }
    *value = (int)result;
    return SYSTEM_INFO_OK;
}

int system_info_get_value_string(system_info_key_e key, char** value)
{
    if (value == NULL)
    {
        return SYSTEM_INFO_BAD_KEY;
    }
    char* text;
    switch (key)
    {
    case SYSTEM_INFO_KEY_MODEL:
        text = model();
        break;
    case SYSTEM_INFO_KEY_SYSTEM_NAME:
        text = os_release("NAME");
        break;
    case SYSTEM_INFO_KEY_SYSTEM_VERSION:
        text = os_release("VERSION_ID");
        break;
    case SYSTEM_INFO_KEY_KERNEL_RELEASE:
        text = kernel_release();
        break;
    default:
        return SYSTEM_INFO_BAD_KEY;
    }
    char* copy = text != NULL ? strdup(text) : NULL; /* for free(), not g_free() */
    g_free(text);
    if (copy == NULL)
    {
        return SYSTEM_INFO_UNAVAILABLE;
    }
    *value = copy;
    return SYSTEM_INFO_OK;
}
