/* The platform's configuration store. */
#ifndef VCONF_H
#define VCONF_H

#ifdef __cplusplus
extern "C"
{
#endif

    /**
     * The text of a setting.
     *
     * The settings are in a key file (groups in brackets, then name=value lines, UTF-8; the escapes
     * \s \n \t \r \\ are understood): the one that QOR_VCONF_FILE names in the environment,
     * otherwise /etc/qor/vconf.ini. It is read anew by every call.
     *
     * A key is a path: its last component is the name, the part before it is the group, and
     * leading slashes are ignored. So "db/setting/name" and "/db/setting/name" are the entry
     * "name" of the group "[db/setting]". A key of one component is in the group "[vconf]".
     *
     * May be called from any thread; blocks on reading the file.
     *
     * @return a string that the caller owns and releases with free(); may be empty. NULL when there
     * is no such setting or no such file, or the value is not valid; and, with a line in
     * the platform log (tag "VCONF"), when the file cannot be read or is not a key file.
     */
    __attribute__((visibility("default"))) char* vconf_get_str(const char* key);

#ifdef __cplusplus
}
#endif

#endif
