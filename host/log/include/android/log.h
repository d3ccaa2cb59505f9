/* Host stand-in for the Android log API: the same entry point and
 * priorities, plus a hook through which a program installs its own sink. */
#ifndef ZEL_HOST_ANDROID_LOG_H
#define ZEL_HOST_ANDROID_LOG_H

#ifdef __cplusplus
extern "C" {
#endif

typedef enum android_LogPriority {
    ANDROID_LOG_UNKNOWN = 0,
    ANDROID_LOG_DEFAULT = 1,
    ANDROID_LOG_VERBOSE = 2,
    ANDROID_LOG_DEBUG = 3,
    ANDROID_LOG_INFO = 4,
    ANDROID_LOG_WARN = 5,
    ANDROID_LOG_ERROR = 6,
    ANDROID_LOG_FATAL = 7,
    ANDROID_LOG_SILENT = 8
} android_LogPriority;

/* Formats one line and hands it to the installed sink (dropped when none). */
int __android_log_print(int prio, const char* tag, const char* fmt, ...) __attribute__((format(printf, 3, 4)));

/* Receives every formatted line. Called under the stand-in's lock, so a
 * sink sees one line at a time. */
typedef void (*zel_log_sink_fn)(int prio, const char* tag, const char* text, void* context);

/* Installs `sink` (null: drop every line); returns the previous sink. */
zel_log_sink_fn zel_log_set_sink(zel_log_sink_fn sink, void* context);

#ifdef __cplusplus
}
#endif

#endif /* ZEL_HOST_ANDROID_LOG_H */
