/* What the C interface's C test programs share: the CHECK that ends the
 * program at the first fact that does not hold, a log callback that keeps
 * warnings and errors only, and files under the program's scratch root.
 * Define XFERFM_C_TEST_ROOT (a mkdtemp template) before including. */
#ifndef XFERFM_C_TEST_SCRATCH_H
#define XFERFM_C_TEST_SCRATCH_H

#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <xferfm/xferfm.h>

#define CHECK(condition)                                                                      \
    do {                                                                                      \
        if (!(condition)) {                                                                   \
            fprintf(stderr, "%s:%d: CHECK(%s) failed; last error: %s\n", __FILE__, __LINE__, \
                    #condition, xferfm_last_error());                                         \
            exit(1);                                                                          \
        }                                                                                     \
    } while (0)

static char g_root[] = XFERFM_C_TEST_ROOT;

/* The engine logs every step; warnings and errors are enough here. */
static inline void log_warnings(void* user, int level, const char* line)
{
    (void)user;
    if (level >= 3) {
        fprintf(stderr, "%s\n", line);
    }
}

static inline void path_of(char* path, size_t size, const char* relative)
{
    snprintf(path, size, "%s/%s", g_root, relative);
}

static inline void make_file(const char* relative, const char* text)
{
    char path[512];
    FILE* file;
    path_of(path, sizeof path, relative);
    file = fopen(path, "wb");
    CHECK(file != NULL);
    fputs(text, file);
    CHECK(fclose(file) == 0);
}

static inline void make_dir(const char* relative)
{
    char path[512];
    path_of(path, sizeof path, relative);
    CHECK(mkdir(path, 0755) == 0);
}

static inline int exists(const char* relative)
{
    char path[512];
    struct stat status;
    path_of(path, sizeof path, relative);
    return stat(path, &status) == 0;
}

#endif
