/* The C interface as a C program sees it: each check is one fact of
 * xferfm/xferfm.h; the program exits 1 at the first one that does not hold.
 * Compiled as C99 by the C compiler, so the header itself is proved C. */
#define _XOPEN_SOURCE 700

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#define XFERFM_C_TEST_ROOT "/tmp/xferfm-capi-c-XXXXXX"
#include "c_test_scratch.h"

static int holds(const char* relative, const char* text)
{
    char path[512], buffer[256];
    size_t length;
    FILE* file;
    path_of(path, sizeof path, relative);
    file = fopen(path, "rb");
    if (file == NULL) {
        return 0;
    }
    length = fread(buffer, 1, sizeof buffer, file);
    fclose(file);
    return length == strlen(text) && memcmp(buffer, text, length) == 0;
}

/* What the callbacks saw. */
typedef struct observed {
    int started, entries, failures, finished, finished_outcome;
    uint64_t last_total;
} observed;

static void on_file_started(void* user, const char* name, uint64_t size)
{
    (void)name, (void)size;
    ((observed*)user)->started++;
}
static void on_progress(void* user, const char* name, uint64_t fd, uint64_t fs, uint64_t total_done, uint64_t ts)
{
    (void)name, (void)fd, (void)fs, (void)ts;
    ((observed*)user)->last_total = total_done;
}
static void on_entry_done(void* user, const char* name, const char* final_path, int is_directory)
{
    (void)name, (void)final_path, (void)is_directory;
    ((observed*)user)->entries++;
}
static void on_failure(void* user, const char* path, const char* message)
{
    (void)path, (void)message;
    ((observed*)user)->failures++;
}
static void on_finished(void* user, const xferfm_summary* summary)
{
    ((observed*)user)->finished++;
    ((observed*)user)->finished_outcome = summary->outcome;
}

static xferfm_callbacks callbacks_for(observed* seen)
{
    xferfm_callbacks callbacks;
    memset(&callbacks, 0, sizeof callbacks);
    memset(seen, 0, sizeof *seen);
    callbacks.user = seen;
    callbacks.on_file_started = on_file_started;
    callbacks.on_progress = on_progress;
    callbacks.on_entry_done = on_entry_done;
    callbacks.on_failure = on_failure;
    callbacks.on_finished = on_finished;
    return callbacks;
}

/* Copies g_root/src into g_root/<dest> over the two links; returns the
 * receiver's summary. */
static xferfm_summary copy_over(xferfm_link* sender_end, xferfm_link* receiver_end, const char* dest, uint32_t flags,
                                observed* seen)
{
    char source[512], destination[512];
    const char* paths[1];
    xferfm_callbacks callbacks = callbacks_for(seen);
    xferfm_sender* sender = NULL;
    xferfm_receiver* receiver = NULL;
    xferfm_summary summary, sender_summary;

    snprintf(source, sizeof source, "%s/src", g_root);
    snprintf(destination, sizeof destination, "%s/%s", g_root, dest);
    CHECK(mkdir(destination, 0755) == 0);
    paths[0] = source;
    CHECK(xferfm_receiver_create(receiver_end, destination, flags, 0, &callbacks, &receiver) == XFERFM_OK);
    CHECK(xferfm_sender_create(sender_end, 0, NULL, &sender) == XFERFM_OK);
    CHECK(xferfm_sender_offer(sender, paths, 1) == XFERFM_OK);
    CHECK(xferfm_sender_offer(sender, paths, 1) == XFERFM_ERR_BAD_STATE);
    CHECK(xferfm_receiver_start(receiver) == XFERFM_OK);
    CHECK(xferfm_receiver_wait(receiver, 60000) == XFERFM_OK);
    CHECK(xferfm_sender_wait(sender, 60000) == XFERFM_OK);
    CHECK(xferfm_receiver_summary(receiver, &summary) == XFERFM_OK);
    CHECK(xferfm_sender_summary(sender, &sender_summary) == XFERFM_OK);
    CHECK(sender_summary.outcome == XFERFM_COMPLETED);
    xferfm_sender_destroy(sender);
    xferfm_receiver_destroy(receiver);
    return summary;
}

static void expect_full_copy(const char* dest, const xferfm_summary* summary, const observed* seen)
{
    char path[512];
    CHECK(summary->outcome == XFERFM_COMPLETED);
    CHECK(summary->error[0] == '\0');
    CHECK(summary->files_done == 3 && summary->directories_done == 2);
    CHECK(summary->bytes_done == summary->bytes_total && summary->bytes_total == 6 + 9 + 0);
    CHECK(seen->entries == 5 && seen->failures == 0 && seen->finished == 1);
    CHECK(seen->finished_outcome == XFERFM_COMPLETED);
    CHECK(seen->last_total == summary->bytes_total);
    snprintf(path, sizeof path, "%s/src/a.txt", dest);
    CHECK(holds(path, "alpha\n"));
    snprintf(path, sizeof path, "%s/src/sub/b.txt", dest);
    CHECK(holds(path, "beta beta"));
    snprintf(path, sizeof path, "%s/src/sub/empty", dest);
    CHECK(holds(path, ""));
}

static void version_and_texts_are_fixed(void)
{
    int status;
    CHECK(strcmp(xferfm_version(), XFERFM_EXPECTED_VERSION) == 0);
    for (status = XFERFM_OK; status <= XFERFM_ERR_INTERNAL; ++status) {
        CHECK(xferfm_strerror(status) != NULL && strcmp(xferfm_strerror(status), "unknown status") != 0);
    }
    CHECK(strcmp(xferfm_strerror(-42), "unknown status") == 0);
}

static void null_arguments_are_refused_with_a_code_and_a_text(void)
{
    xferfm_link* link = NULL;
    xferfm_summary summary;
    CHECK(xferfm_link_pair(NULL, &link) == XFERFM_ERR_INVALID_ARGUMENT);
    CHECK(xferfm_last_error()[0] != '\0');
    CHECK(xferfm_sender_create(NULL, 0, NULL, NULL) == XFERFM_ERR_INVALID_ARGUMENT);
    CHECK(xferfm_receiver_start(NULL) == XFERFM_ERR_INVALID_ARGUMENT);
    CHECK(xferfm_sender_wait(NULL, 0) == XFERFM_ERR_INVALID_ARGUMENT);
    CHECK(xferfm_receiver_summary(NULL, &summary) == XFERFM_ERR_INVALID_ARGUMENT);
    CHECK(xferfm_link_deliver(NULL, NULL, 0) == XFERFM_ERR_INVALID_ARGUMENT);
    CHECK(xferfm_strerror(XFERFM_OK) != NULL);
    xferfm_sender_destroy(NULL);
    xferfm_receiver_destroy(NULL);
    xferfm_link_destroy(NULL);
    xferfm_listener_destroy(NULL);
}

static void an_in_process_pair_copies_a_tree(void)
{
    xferfm_link *a, *b;
    observed seen;
    xferfm_summary summary;
    xferfm_sender* second = NULL;
    CHECK(xferfm_link_pair(&a, &b) == XFERFM_OK);
    summary = copy_over(a, b, "dest-pair", 0, &seen);
    expect_full_copy("dest-pair", &summary, &seen);
    /* A link serves one endpoint. */
    CHECK(xferfm_sender_create(a, 0, NULL, &second) == XFERFM_ERR_BAD_STATE);
    CHECK(second == NULL);
    xferfm_link_destroy(a);
    xferfm_link_destroy(b);
}

/* Two host-supplied links whose channels feed each other. */
typedef struct loop_end {
    xferfm_link* peer;
    size_t bytes_sent;
    int closed;
} loop_end;

static int loop_send(void* user, const uint8_t* bytes, size_t size)
{
    loop_end* end = (loop_end*)user;
    end->bytes_sent += size;
    return xferfm_link_deliver(end->peer, bytes, size) == XFERFM_OK ? 0 : -1;
}

static void loop_close(void* user)
{
    loop_end* end = (loop_end*)user;
    end->closed = 1;
    xferfm_link_deliver_end(end->peer, "the peer closed its channel");
}

static void host_supplied_links_carry_a_copy(void)
{
    loop_end sender_side = {NULL, 0, 0}, receiver_side = {NULL, 0, 0};
    xferfm_link_callbacks sender_callbacks = {&sender_side, loop_send, loop_close};
    xferfm_link_callbacks receiver_callbacks = {&receiver_side, loop_send, loop_close};
    xferfm_link *a, *b;
    observed seen;
    xferfm_summary summary;

    CHECK(xferfm_link_custom(&sender_callbacks, &a) == XFERFM_OK);
    CHECK(xferfm_link_custom(&receiver_callbacks, &b) == XFERFM_OK);
    sender_side.peer = b;
    receiver_side.peer = a;
    summary = copy_over(a, b, "dest-custom", 0, &seen);
    expect_full_copy("dest-custom", &summary, &seen);
    CHECK(sender_side.bytes_sent > 15 && receiver_side.bytes_sent > 0);
    CHECK(sender_side.closed && receiver_side.closed);
    /* After the endpoints are gone the host's bytes are refused. */
    CHECK(xferfm_link_deliver(a, (const uint8_t*)"x", 1) == XFERFM_ERR_CLOSED);
    xferfm_link_destroy(a);
    xferfm_link_destroy(b);
}

static void a_tcp_connection_carries_a_copy(void)
{
    xferfm_listener* listener = NULL;
    xferfm_link *client = NULL, *served = NULL;
    uint16_t port = 0;
    char address[64];
    observed seen;
    xferfm_summary summary;

    CHECK(xferfm_listener_create("127.0.0.1:0", &listener) == XFERFM_OK);
    CHECK(xferfm_listener_port(listener, &port) == XFERFM_OK && port != 0);
    CHECK(xferfm_listener_accept(listener, 10, &served) == XFERFM_ERR_TIMEOUT);
    snprintf(address, sizeof address, "127.0.0.1:%u", (unsigned)port);
    CHECK(xferfm_link_connect(address, 5000, &client) == XFERFM_OK);
    CHECK(xferfm_listener_accept(listener, 5000, &served) == XFERFM_OK);
    summary = copy_over(client, served, "dest-tcp", XFERFM_RECEIVER_SCREEN_NAMES, &seen);
    expect_full_copy("dest-tcp", &summary, &seen);
    xferfm_link_destroy(client);
    xferfm_link_destroy(served);
    xferfm_listener_destroy(listener);
    CHECK(xferfm_link_connect("not an address", 100, &client) == XFERFM_ERR_INVALID_ARGUMENT);
}

static void two_pipes_carry_a_copy(void)
{
    int to_receiver[2], to_sender[2];
    xferfm_link *sender_end = NULL, *receiver_end = NULL, *refused = NULL;
    observed seen;
    xferfm_summary summary;

    CHECK(pipe(to_receiver) == 0 && pipe(to_sender) == 0);
    CHECK(xferfm_link_fds(to_sender[0], to_receiver[1], &sender_end) == XFERFM_OK);
    CHECK(xferfm_link_fds(to_receiver[0], to_sender[1], &receiver_end) == XFERFM_OK);
    summary = copy_over(sender_end, receiver_end, "dest-pipes", XFERFM_RECEIVER_SCREEN_NAMES, &seen);
    expect_full_copy("dest-pipes", &summary, &seen);
    xferfm_link_destroy(sender_end);
    xferfm_link_destroy(receiver_end);
    /* The link took the descriptors: they are closed now. */
    CHECK(close(to_receiver[1]) == -1 && close(to_sender[0]) == -1);
    CHECK(xferfm_link_fds(-1, -1, &refused) == XFERFM_ERR_INVALID_ARGUMENT && refused == NULL);
    CHECK(xferfm_link_stdio(NULL) == XFERFM_ERR_INVALID_ARGUMENT);
}

/* The sending child: its standard input and output are the link; what it
 * prints afterwards must land on stderr, never among the frames. */
static void send_over_standard_streams(void)
{
    char source[512];
    const char* paths[1];
    xferfm_link* link = NULL;
    xferfm_sender* sender = NULL;
    xferfm_summary summary;

    snprintf(source, sizeof source, "%s/src", g_root);
    paths[0] = source;
    CHECK(xferfm_link_stdio(&link) == XFERFM_OK);
    printf("a stray line: it goes to stderr\n");
    fflush(stdout);
    CHECK(xferfm_sender_create(link, 0, NULL, &sender) == XFERFM_OK);
    xferfm_link_destroy(link);
    CHECK(xferfm_sender_offer(sender, paths, 1) == XFERFM_OK);
    CHECK(xferfm_sender_wait(sender, 60000) == XFERFM_OK);
    CHECK(xferfm_sender_summary(sender, &summary) == XFERFM_OK);
    CHECK(summary.outcome == XFERFM_COMPLETED);
    xferfm_sender_destroy(sender);
}

/* Forked before any thread of the kit exists in this process. */
static void a_child_sends_over_its_standard_streams(void)
{
    int to_child[2], from_child[2], status = -1;
    char destination[512];
    xferfm_link* link = NULL;
    xferfm_receiver* receiver = NULL;
    observed seen;
    xferfm_callbacks callbacks = callbacks_for(&seen);
    xferfm_summary summary;
    pid_t child;

    CHECK(pipe(to_child) == 0 && pipe(from_child) == 0);
    child = fork();
    CHECK(child >= 0);
    if (child == 0) {
        dup2(to_child[0], STDIN_FILENO);
        dup2(from_child[1], STDOUT_FILENO);
        close(to_child[0]);
        close(to_child[1]);
        close(from_child[0]);
        close(from_child[1]);
        send_over_standard_streams();
        exit(0);
    }
    close(to_child[0]);
    close(from_child[1]);
    snprintf(destination, sizeof destination, "%s/dest-stdio", g_root);
    CHECK(mkdir(destination, 0755) == 0);
    CHECK(xferfm_link_fds(from_child[0], to_child[1], &link) == XFERFM_OK);
    CHECK(xferfm_receiver_create(link, destination, XFERFM_RECEIVER_SCREEN_NAMES, 0, &callbacks, &receiver) ==
          XFERFM_OK);
    xferfm_link_destroy(link);
    CHECK(xferfm_receiver_start(receiver) == XFERFM_OK);
    CHECK(xferfm_receiver_wait(receiver, 60000) == XFERFM_OK);
    CHECK(xferfm_receiver_summary(receiver, &summary) == XFERFM_OK);
    xferfm_receiver_destroy(receiver);
    CHECK(waitpid(child, &status, 0) == child);
    CHECK(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    expect_full_copy("dest-stdio", &summary, &seen);
}

int main(void)
{
    char command[600];
    CHECK(mkdtemp(g_root) != NULL);
    xferfm_set_log_callback(log_warnings, NULL);
    make_dir("src");
    make_dir("src/sub");
    make_file("src/a.txt", "alpha\n");
    make_file("src/sub/b.txt", "beta beta");
    make_file("src/sub/empty", "");

    a_child_sends_over_its_standard_streams();
    version_and_texts_are_fixed();
    null_arguments_are_refused_with_a_code_and_a_text();
    an_in_process_pair_copies_a_tree();
    host_supplied_links_carry_a_copy();
    a_tcp_connection_carries_a_copy();
    two_pipes_carry_a_copy();

    snprintf(command, sizeof command, "rm -rf '%s'", g_root);
    CHECK(system(command) == 0);
    printf("capi_c_test: every check holds\n");
    return 0;
}
