/* Copies a directory tree from a sender to a receiver inside one process
 * through the C interface, then checks that every file arrived intact.
 *
 *   copy_tree SOURCE_DIR DEST_DIR   copies SOURCE_DIR into DEST_DIR
 *   copy_tree                       makes a small tree in a temporary
 *                                   directory and copies that
 * Exit status 0 when the copy completed and checks out, 1 otherwise. */
#define _XOPEN_SOURCE 700

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <xferfm/xferfm.h>

static void on_entry_done(void* user, const char* name, const char* final_path, int is_directory)
{
    (void)final_path;
    ++*(int*)user;
    printf("  %s %s\n", is_directory ? "dir " : "file", name);
}

static void on_failure(void* user, const char* path, const char* message)
{
    (void)user;
    fprintf(stderr, "copy failed at '%s': %s\n", path, message);
}

/* The engine logs every step; warnings and errors are enough here. */
static void log_warnings(void* user, int level, const char* line)
{
    (void)user;
    if (level >= 3) {
        fprintf(stderr, "%s\n", line);
    }
}

static int write_file(const char* path, const char* text)
{
    FILE* file = fopen(path, "wb");
    if (file == NULL) {
        return 0;
    }
    fputs(text, file);
    return fclose(file) == 0;
}

/* 1 when `path` holds exactly `text`. */
static int file_holds(const char* path, const char* text)
{
    char buffer[256];
    size_t length;
    FILE* file = fopen(path, "rb");
    if (file == NULL) {
        return 0;
    }
    length = fread(buffer, 1, sizeof buffer, file);
    fclose(file);
    return length == strlen(text) && memcmp(buffer, text, length) == 0;
}

/* Copies `source` into `destination`; 1 when the copy completed. */
static int copy(const char* source, const char* destination, int* entries)
{
    xferfm_link* sender_end = NULL;
    xferfm_link* receiver_end = NULL;
    xferfm_sender* sender = NULL;
    xferfm_receiver* receiver = NULL;
    xferfm_callbacks callbacks;
    xferfm_summary summary;
    const char* paths[1];
    int ok = 0;

    memset(&callbacks, 0, sizeof callbacks);
    callbacks.user = entries;
    callbacks.on_entry_done = on_entry_done;
    callbacks.on_failure = on_failure;
    paths[0] = source;

    if (xferfm_link_pair(&sender_end, &receiver_end) != XFERFM_OK ||
        xferfm_receiver_create(receiver_end, destination, 0, 0, &callbacks, &receiver) != XFERFM_OK ||
        xferfm_sender_create(sender_end, 0, NULL, &sender) != XFERFM_OK ||
        xferfm_sender_offer(sender, paths, 1) != XFERFM_OK || xferfm_receiver_start(receiver) != XFERFM_OK ||
        xferfm_receiver_wait(receiver, 60000) != XFERFM_OK || xferfm_sender_wait(sender, 60000) != XFERFM_OK) {
        fprintf(stderr, "copy_tree: %s\n", xferfm_last_error());
    } else if (xferfm_receiver_summary(receiver, &summary) == XFERFM_OK) {
        printf("%llu files, %llu directories, %llu bytes\n", (unsigned long long)summary.files_done,
               (unsigned long long)summary.directories_done, (unsigned long long)summary.bytes_done);
        ok = summary.outcome == XFERFM_COMPLETED;
        if (!ok) {
            fprintf(stderr, "copy_tree: %s\n", summary.error);
        }
    }
    xferfm_receiver_destroy(receiver);
    xferfm_sender_destroy(sender);
    xferfm_link_destroy(sender_end);
    xferfm_link_destroy(receiver_end);
    return ok;
}

int main(int argc, char** argv)
{
    char root[] = "/tmp/xferfm-copy-tree-XXXXXX";
    char source[512], destination[512], path[600];
    int entries = 0;
    int ok;

    printf("xferfm %s\n", xferfm_version());
    xferfm_set_log_callback(log_warnings, NULL);
    if (argc == 3) {
        return copy(argv[1], argv[2], &entries) ? 0 : 1;
    }
    if (argc != 1) {
        fprintf(stderr, "usage: %s [SOURCE_DIR DEST_DIR]\n", argv[0]);
        return 2;
    }
    if (mkdtemp(root) == NULL) {
        perror("mkdtemp");
        return 1;
    }
    snprintf(source, sizeof source, "%s/tree", root);
    snprintf(destination, sizeof destination, "%s/dest", root);
    mkdir(source, 0755);
    snprintf(path, sizeof path, "%s/sub", source);
    mkdir(path, 0755);
    mkdir(destination, 0755);
    snprintf(path, sizeof path, "%s/a.txt", source);
    write_file(path, "alpha\n");
    snprintf(path, sizeof path, "%s/sub/b.txt", source);
    write_file(path, "beta, in a sub-directory\n");
    snprintf(path, sizeof path, "%s/sub/empty", source);
    write_file(path, "");

    ok = copy(source, destination, &entries);
    snprintf(path, sizeof path, "%s/tree/a.txt", destination);
    ok = ok && file_holds(path, "alpha\n");
    snprintf(path, sizeof path, "%s/tree/sub/b.txt", destination);
    ok = ok && file_holds(path, "beta, in a sub-directory\n");
    snprintf(path, sizeof path, "%s/tree/sub/empty", destination);
    ok = ok && file_holds(path, "");
    ok = ok && entries == 5; /* tree, a.txt, sub, b.txt, empty */
    printf("%s (%d entries reported)\n", ok ? "copy checks out" : "COPY DIFFERS", entries);

    snprintf(path, sizeof path, "rm -rf '%s'", root);
    if (system(path) != 0) {
        fprintf(stderr, "could not remove %s\n", root);
    }
    return ok ? 0 : 1;
}
