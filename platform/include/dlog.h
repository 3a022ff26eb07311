/* The platform log. */
#ifndef DLOG_H
#define DLOG_H

#ifdef __cplusplus
extern "C"
{
#endif

    /** Log buffers. */
    enum
    {
        LOG_ID_MAIN = 0,
        LOG_ID_SYSTEM = 2
    };

    /** Priorities. */
    enum
    {
        DLOG_DEBUG = 3,
        DLOG_INFO = 4,
        DLOG_WARN = 5,
        DLOG_ERROR = 6,
        DLOG_FATAL = 7
    };

    /**
     * Writes one line to the platform log. Never blocks and never fails its caller: a line that
     * cannot be written at once is dropped, and one of more than 4 KiB is cut off. May be called
     * from any thread; preserves errno.
     *
     * With QOR_DLOG=stderr in the environment the line goes to standard error, otherwise to the
     * local syslog socket if there is one, else nowhere. The priority becomes the syslog
     * severity; the main buffer maps to the facility "user", every other one to "daemon".
     *
     * @return the number of bytes written, 0 if the line was dropped
     */
    __attribute__((visibility("default"), format(printf, 4, 5))) int
    __dlog_print(int log_id, int priority, const char* tag, const char* format, ...);

#ifdef __cplusplus
}
#endif

#endif
