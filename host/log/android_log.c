/* Host stand-in for the Android log: formats each line and passes it to
 * the sink a test or host program installed. */
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "android/log.h"

static pthread_mutex_t g_lock = PTHREAD_MUTEX_INITIALIZER;
static zel_log_sink_fn g_sink = NULL;
static void* g_context = NULL;

zel_log_sink_fn zel_log_set_sink(zel_log_sink_fn sink, void* context) {
    pthread_mutex_lock(&g_lock);
    zel_log_sink_fn previous = g_sink;
    g_sink = sink;
    g_context = context;
    pthread_mutex_unlock(&g_lock);
    return previous;
}

/* Hands one finished line to the sink. */
static void deliver(int prio, const char* tag, const char* text) {
    pthread_mutex_lock(&g_lock);
    if (g_sink != NULL) g_sink(prio, tag, text, g_context);
    pthread_mutex_unlock(&g_lock);
}

int __android_log_print(int prio, const char* tag, const char* fmt, ...) {
    va_list args;
    if (fmt[0] == '%' && fmt[1] == 's' && fmt[2] == '\0') {
        /* One string argument, the form nearly every caller uses: that
         * string is the line, and formatting it would only copy it. */
        va_start(args, fmt);
        const char* line = va_arg(args, const char*);
        va_end(args);
        if (line == NULL) line = "(null)";
        deliver(prio, tag, line);
        return (int)strlen(line);
    }
    char small[512];
    char* text = small;
    va_start(args, fmt);
    int needed = vsnprintf(small, sizeof small, fmt, args);
    va_end(args);
    if (needed < 0) return -1;
    if ((size_t)needed >= sizeof small) {
        text = malloc((size_t)needed + 1);
        if (text == NULL) return -1;
        va_start(args, fmt);
        vsnprintf(text, (size_t)needed + 1, fmt, args);
        va_end(args);
    }
    deliver(prio, tag, text);
    if (text != small) free(text);
    return needed;
}
