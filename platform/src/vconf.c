/* The configuration store on a host: a key file. */
#include <vconf.h>

#include <glib.h>
#include <stdlib.h>
#include <string.h>

#include <dlog.h>

static const char default_file[] = "/etc/qor/vconf.ini";
static const char default_group[] = "vconf";

static GKeyFile* load_settings(void)
{
    const char* path = secure_getenv("QOR_VCONF_FILE");
    if (path == NULL || *path == '\0')
    {
        path = default_file;
    }
    GKeyFile* settings = g_key_file_new();
    GError* error = NULL;
    if (g_key_file_load_from_file(settings, path, G_KEY_FILE_NONE, &error))
    {
        return settings;
    }
    if (!g_error_matches(error, G_FILE_ERROR, G_FILE_ERROR_NOENT))
    {
        __dlog_print(LOG_ID_SYSTEM, DLOG_ERROR, "VCONF", "cannot use %s: %s", path, error->message);
    }
    g_error_free(error);
    g_key_file_free(settings);
    return NULL;
}

char* vconf_get_str(const char* key)
{
    if (key == NULL)
    {
        return NULL;
    }
    GKeyFile* settings = load_settings();
    if (settings == NULL)
    {
        return NULL;
    }
    const char* path = key + strspn(key, "/");
    const char* slash = strrchr(path, '/');
    char* group = slash != NULL ? g_strndup(path, (gsize)(slash - path)) : g_strdup(default_group);
    GError* error = NULL; /* may come with a value, when that has a bad escape */
    char* value = g_key_file_get_string(settings, group, slash != NULL ? slash + 1 : path, &error);
    char* result = error == NULL ? strdup(value) : NULL; /* for free(), not g_free() */
    g_clear_error(&error);
    g_free(value);
    g_free(group);
    g_key_file_free(settings);
    return result;
}
