/* Verification and name rules through the C interface, as a C program sees
 * them: each check is one fact of xferfm/xferfm.h; the program exits 1 at
 * the first one that does not hold. C99, built by the C compiler. */
#define _XOPEN_SOURCE 700

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#define XFERFM_C_TEST_ROOT "/tmp/xferfm-capi-verify-XXXXXX"
#include "c_test_scratch.h"

/* What the receiver's callbacks saw. */
typedef struct observed {
    int skipped, finished;
    int verify_state_in_finished;
    xferfm_receiver* receiver;
    int tamper; /* append to every landed file: its copy no longer matches */
} observed;

static void on_entry_done(void* user, const char* name, const char* final_path, int is_directory)
{
    observed* seen = (observed*)user;
    FILE* file;
    (void)name;
    if (seen->tamper && !is_directory) {
        file = fopen(final_path, "ab");
        CHECK(file != NULL);
        fputs("tampered", file);
        CHECK(fclose(file) == 0);
    }
}
static void on_entry_skipped(void* user, const char* name, const char* reason)
{
    (void)name, (void)reason;
    ((observed*)user)->skipped++;
}
static void on_finished(void* user, const xferfm_summary* summary)
{
    observed* seen = (observed*)user;
    xferfm_verify_result verdict;
    (void)summary;
    seen->finished++;
    CHECK(xferfm_receiver_verify_result(seen->receiver, &verdict) == XFERFM_OK);
    seen->verify_state_in_finished = verdict.state;
}

typedef struct copy_result {
    xferfm_summary receiver, sender;
    xferfm_verify_result receiver_verdict, sender_verdict;
} copy_result;

/* Copies g_root/<from> into g_root/<dest> over an in-process pair, with
 * verification when `verify`, and names fitted to `target` by `action`
 * when `target` >= 0. */
static copy_result copy_tree(const char* from, const char* dest, int verify, int target, int action, observed* seen)
{
    char source[512], destination[512];
    const char* paths[1];
    xferfm_callbacks callbacks;
    xferfm_link *a = NULL, *b = NULL;
    xferfm_sender* sender = NULL;
    xferfm_receiver* receiver = NULL;
    copy_result result;

    memset(&callbacks, 0, sizeof callbacks);
    callbacks.user = seen;
    callbacks.on_entry_done = on_entry_done;
    callbacks.on_entry_skipped = on_entry_skipped;
    callbacks.on_finished = on_finished;
    path_of(source, sizeof source, from);
    path_of(destination, sizeof destination, dest);
    CHECK(mkdir(destination, 0755) == 0);
    paths[0] = source;

    CHECK(xferfm_link_pair(&a, &b) == XFERFM_OK);
    CHECK(xferfm_receiver_create(b, destination, 0, 0, &callbacks, &receiver) == XFERFM_OK);
    seen->receiver = receiver;
    CHECK(xferfm_sender_create(a, 0, NULL, &sender) == XFERFM_OK);
    xferfm_link_destroy(a);
    xferfm_link_destroy(b);
    if (target >= 0) {
        CHECK(xferfm_receiver_set_names(receiver, target, action) == XFERFM_OK);
    }
    CHECK(xferfm_sender_set_verify(sender, verify) == XFERFM_OK);
    CHECK(xferfm_sender_offer(sender, paths, 1) == XFERFM_OK);
    CHECK(xferfm_sender_set_verify(sender, 1) == XFERFM_ERR_BAD_STATE);
    CHECK(xferfm_receiver_start(receiver) == XFERFM_OK);
    CHECK(xferfm_receiver_set_names(receiver, XFERFM_NAMES_WINDOWS, XFERFM_NAMES_MAP) == XFERFM_ERR_BAD_STATE);
    CHECK(xferfm_receiver_wait(receiver, 60000) == XFERFM_OK);
    CHECK(xferfm_sender_wait(sender, 60000) == XFERFM_OK);
    CHECK(xferfm_receiver_summary(receiver, &result.receiver) == XFERFM_OK);
    CHECK(xferfm_sender_summary(sender, &result.sender) == XFERFM_OK);
    CHECK(xferfm_receiver_verify_result(receiver, &result.receiver_verdict) == XFERFM_OK);
    CHECK(xferfm_sender_verify_result(sender, &result.sender_verdict) == XFERFM_OK);
    xferfm_sender_destroy(sender);
    xferfm_receiver_destroy(receiver);
    return result;
}

static void a_verified_copy_reports_a_match_at_both_ends(void)
{
    observed seen;
    copy_result result;
    memset(&seen, 0, sizeof seen);
    result = copy_tree("src", "dest-verified", 1, -1, 0, &seen);
    CHECK(result.receiver.outcome == XFERFM_COMPLETED);
    CHECK(result.sender.outcome == XFERFM_COMPLETED);
    CHECK(result.sender_verdict.state == XFERFM_VERIFY_MATCHED);
    CHECK(result.sender_verdict.files_compared == 3);
    CHECK(result.receiver_verdict.state == XFERFM_VERIFY_MATCHED);
    CHECK(result.receiver_verdict.files_differing == 0);
    CHECK(seen.finished == 1 && seen.verify_state_in_finished == XFERFM_VERIFY_MATCHED);
}

static void an_unverified_copy_has_no_verdict(void)
{
    observed seen;
    copy_result result;
    memset(&seen, 0, sizeof seen);
    result = copy_tree("src", "dest-plain", 0, -1, 0, &seen);
    CHECK(result.receiver.outcome == XFERFM_COMPLETED);
    CHECK(result.sender_verdict.state == XFERFM_VERIFY_NONE);
    CHECK(result.receiver_verdict.state == XFERFM_VERIFY_NONE);
}

static void a_copy_altered_after_landing_is_reported_as_a_mismatch(void)
{
    observed seen;
    copy_result result;
    memset(&seen, 0, sizeof seen);
    seen.tamper = 1;
    result = copy_tree("src", "dest-tampered", 1, -1, 0, &seen);
    CHECK(result.receiver_verdict.state == XFERFM_VERIFY_MISMATCH);
    CHECK(result.receiver_verdict.files_differing == 3);
    CHECK(strstr(result.receiver_verdict.details, "a.txt") != NULL);
    CHECK(result.sender_verdict.state == XFERFM_VERIFY_MISMATCH);
    CHECK(result.sender_verdict.files_differing == 3);
    CHECK(result.sender.outcome == XFERFM_FAILED);
    CHECK(seen.verify_state_in_finished == XFERFM_VERIFY_MISMATCH);
}

static void names_are_mapped_through_the_receiver(void)
{
    observed seen;
    copy_result result;
    memset(&seen, 0, sizeof seen);
    result = copy_tree("odd", "dest-mapped", 1, XFERFM_NAMES_WINDOWS, XFERFM_NAMES_MAP, &seen);
    CHECK(result.receiver.outcome == XFERFM_COMPLETED);
    CHECK(result.sender.outcome == XFERFM_COMPLETED);
    CHECK(exists("dest-mapped/odd/a\xEF\xBC\x9A" "b"));       /* a:b with a full-width colon */
    CHECK(exists("dest-mapped/odd/CO\xEF\xBC\xAE.txt"));      /* CON.txt */
    CHECK(!exists("dest-mapped/odd/a:b"));
    CHECK(result.sender_verdict.state == XFERFM_VERIFY_MATCHED); /* mapped copies are checked too */
    CHECK(seen.skipped == 0);
}

static void refused_names_are_skipped_and_the_rest_is_copied(void)
{
    observed seen;
    copy_result result;
    memset(&seen, 0, sizeof seen);
    result = copy_tree("odd", "dest-refused", 1, XFERFM_NAMES_WINDOWS, XFERFM_NAMES_REFUSE, &seen);
    CHECK(result.receiver.outcome == XFERFM_PARTIAL);
    CHECK(result.receiver.entries_skipped == 2);
    CHECK(result.sender.outcome == XFERFM_PARTIAL);
    CHECK(result.sender.entries_skipped == 2);
    CHECK(seen.skipped == 2);
    CHECK(exists("dest-refused/odd/plain"));
    CHECK(!exists("dest-refused/odd/CON.txt"));
    CHECK(result.receiver_verdict.state == XFERFM_VERIFY_MATCHED); /* refused ones are not missing */
}

/* The sender's skipped entries, by the end of their source path. */
typedef struct sender_skips {
    int count, colon_named, colon_reason_named, control_named;
} sender_skips;

static int ends_with(const char* text, const char* end)
{
    const size_t length = strlen(text), end_length = strlen(end);
    return length >= end_length && strcmp(text + length - end_length, end) == 0;
}

static void on_sender_skipped(void* user, const char* name, const char* reason)
{
    sender_skips* skips = (sender_skips*)user;
    skips->count++;
    skips->colon_named += ends_with(name, "/c:d");
    skips->colon_reason_named += ends_with(name, "/c:d") && strstr(reason, "Windows forbids") != NULL;
    skips->control_named += ends_with(name, "/b\001");
}

static void screened_and_policy_refusals_each_reach_the_sender_for_their_own_entry(void)
{
    char source[512], destination[512];
    const char* paths[1];
    xferfm_callbacks callbacks;
    xferfm_link *a = NULL, *b = NULL;
    xferfm_sender* sender = NULL;
    xferfm_receiver* receiver = NULL;
    xferfm_summary summary;
    sender_skips skips;

    memset(&skips, 0, sizeof skips);
    memset(&callbacks, 0, sizeof callbacks);
    callbacks.user = &skips;
    callbacks.on_entry_skipped = on_sender_skipped;
    path_of(source, sizeof source, "mixed");
    path_of(destination, sizeof destination, "dest-mixed");
    CHECK(mkdir(destination, 0755) == 0);
    paths[0] = source;
    CHECK(xferfm_link_pair(&a, &b) == XFERFM_OK);
    CHECK(xferfm_receiver_create(b, destination, XFERFM_RECEIVER_SCREEN_NAMES, 0, NULL, &receiver) == XFERFM_OK);
    CHECK(xferfm_sender_create(a, 0, &callbacks, &sender) == XFERFM_OK);
    CHECK(xferfm_receiver_set_names(receiver, XFERFM_NAMES_WINDOWS, XFERFM_NAMES_REFUSE) == XFERFM_OK);
    CHECK(xferfm_sender_offer(sender, paths, 1) == XFERFM_OK);
    CHECK(xferfm_receiver_start(receiver) == XFERFM_OK);
    CHECK(xferfm_receiver_wait(receiver, 60000) == XFERFM_OK);
    CHECK(xferfm_sender_wait(sender, 60000) == XFERFM_OK);
    CHECK(xferfm_sender_summary(sender, &summary) == XFERFM_OK);
    CHECK(summary.outcome == XFERFM_PARTIAL);
    CHECK(summary.entries_skipped == 2);
    /* The guard's refusal ("b\001", a control character) and the policy's
     * ("c:d", after it in the list) each name their own entry. */
    CHECK(skips.count == 2 && skips.colon_named == 1 && skips.colon_reason_named == 1);
    CHECK(exists("dest-mixed/mixed/plain"));
    CHECK(!exists("dest-mixed/mixed/c:d"));
    xferfm_sender_destroy(sender);
    xferfm_receiver_destroy(receiver);
    xferfm_link_destroy(a);
    xferfm_link_destroy(b);
}

static void bad_name_settings_are_refused(void)
{
    xferfm_link *a = NULL, *b = NULL;
    xferfm_receiver* receiver = NULL;
    char destination[512];
    path_of(destination, sizeof destination, "src");
    CHECK(xferfm_link_pair(&a, &b) == XFERFM_OK);
    CHECK(xferfm_receiver_create(b, destination, 0, 0, NULL, &receiver) == XFERFM_OK);
    CHECK(xferfm_receiver_set_names(receiver, 7, XFERFM_NAMES_MAP) == XFERFM_ERR_INVALID_ARGUMENT);
    CHECK(xferfm_receiver_set_names(receiver, XFERFM_NAMES_WINDOWS, 9) == XFERFM_ERR_INVALID_ARGUMENT);
    CHECK(xferfm_receiver_set_names(receiver, XFERFM_NAMES_WINDOWS, XFERFM_NAMES_MAP_BACK) ==
          XFERFM_ERR_INVALID_ARGUMENT);
    CHECK(xferfm_receiver_set_names(NULL, XFERFM_NAMES_POSIX, XFERFM_NAMES_MAP) == XFERFM_ERR_INVALID_ARGUMENT);
    CHECK(xferfm_sender_set_verify(NULL, 1) == XFERFM_ERR_INVALID_ARGUMENT);
    CHECK(xferfm_receiver_set_names(receiver, XFERFM_NAMES_POSIX, XFERFM_NAMES_MAP_BACK) == XFERFM_OK);
    CHECK(xferfm_receiver_verify_result(receiver, NULL) == XFERFM_ERR_INVALID_ARGUMENT);
    xferfm_receiver_destroy(receiver);
    xferfm_link_destroy(a);
    xferfm_link_destroy(b);
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
    make_dir("odd");
    make_file("odd/a:b", "colon");
    make_file("odd/CON.txt", "device");
    make_file("odd/plain", "plain");
    make_dir("mixed");
    make_file("mixed/b\001", "control");
    make_file("mixed/c:d", "colon");
    make_file("mixed/plain", "plain");

    a_verified_copy_reports_a_match_at_both_ends();
    an_unverified_copy_has_no_verdict();
    a_copy_altered_after_landing_is_reported_as_a_mismatch();
    names_are_mapped_through_the_receiver();
    refused_names_are_skipped_and_the_rest_is_copied();
    screened_and_policy_refusals_each_reach_the_sender_for_their_own_entry();
    bad_name_settings_are_refused();

    snprintf(command, sizeof command, "rm -rf '%s'", g_root);
    CHECK(system(command) == 0);
    printf("capi_verify_names_c_test: every check holds\n");
    return 0;
}
