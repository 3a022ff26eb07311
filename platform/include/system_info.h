/* Facts about the machine and its system. */
#ifndef SYSTEM_INFO_H
#define SYSTEM_INFO_H

#ifdef __cplusplus
extern "C"
{
#endif

    /** The keys. Each has one type. */
    typedef enum
    {
        SYSTEM_INFO_KEY_INVALID = -1,
        SYSTEM_INFO_KEY_MODEL = 0,       /**< string: the hardware's model; else its architecture */
        SYSTEM_INFO_KEY_SYSTEM_NAME,     /**< string: the distribution's name */
        SYSTEM_INFO_KEY_SYSTEM_VERSION,  /**< string: the distribution's version, if it has one */
        SYSTEM_INFO_KEY_KERNEL_RELEASE,  /**< string: as uname -r prints it */
        SYSTEM_INFO_KEY_PROCESSOR_COUNT, /**< int: processors that are online */
        SYSTEM_INFO_KEY_MEMORY_MIB,      /**< int: physical memory in MiB, rounded down */
        SYSTEM_INFO_KEY_LIMIT = 0x7fffffff /**< no key: fixes the range of the type */
    } system_info_key_e;

    /** Results of the queries. */
    enum
    {
        SYSTEM_INFO_OK = 0,
        SYSTEM_INFO_BAD_KEY = -1,    /**< no such key, or one of the other type */
        SYSTEM_INFO_UNAVAILABLE = -2 /**< this machine does not know it */
    };

    /**
     * The value of an integer key. May be called from any thread; does not block.
     *
     * @param value  set on success only
     * @return SYSTEM_INFO_OK, else one of the errors above
     */
    __attribute__((visibility("default"))) int system_info_get_value_int(system_info_key_e key,
                                                                         int* value);

    /**
     * The value of a string key. May be called from any thread; may read small files.
     *
     * @param value  set on success only, to a string that the caller owns and releases with free()
     * @return SYSTEM_INFO_OK, else one of the errors above
     */
    __attribute__((visibility("default"))) int system_info_get_value_string(system_info_key_e key,
                                                                            char** value);

#ifdef __cplusplus
}
#endif

#endif
