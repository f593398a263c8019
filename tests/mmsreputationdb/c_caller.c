#include "c_caller.h"

#include "mmsreputation/vellum_mms_reputation.h"

#include <stddef.h>
#include <string.h>

_Static_assert(sizeof(mms_reputation_display_packet) == 48, "48 bytes on the wire");
_Static_assert(offsetof(mms_reputation_display_packet, msisdn) == 0, "number first");
_Static_assert(offsetof(mms_reputation_display_packet, score) == 36, "then the score");
_Static_assert(offsetof(mms_reputation_display_packet, expiry) == 40, "then the expiry");

#define REQUIRE(condition)                                                                                             \
    do {                                                                                                               \
        if (!(condition)) {                                                                                            \
            return #condition;                                                                                         \
        }                                                                                                              \
    } while (0)

char const* c_caller_edits_lists(void) {
    REQUIRE(vellum_mms_reputation_blacklist_add("15555550100") == 0);
    REQUIRE(vellum_mms_reputation_blacklist_add("15555550100") == 0);
    REQUIRE(vellum_mms_reputation_blacklist_add("+15555550101") == 0);
    REQUIRE(vellum_mms_reputation_blacklist_add("15555550102") == 0);
    REQUIRE(vellum_mms_reputation_blacklist_remove("15555550102") == 0);
    REQUIRE(vellum_mms_reputation_blacklist_remove("15555550199") == 0);
    REQUIRE(vellum_mms_reputation_exempt_add("15555550200") == 0);
    REQUIRE(vellum_mms_reputation_exempt_add("15555550201") == 0);
    REQUIRE(vellum_mms_reputation_exempt_add("15555550200") == 0);
    REQUIRE(vellum_mms_reputation_exempt_remove("15555550201") == 0);
    REQUIRE(vellum_mms_reputation_exempt_remove("15555550299") == 0);
    return NULL;
}

char const* c_caller_is_refused(void) {
    static char const* const unfit[] = {
        "1'", "1\"", "1`", "1\\", "1\n", "\t1", "1\x01", "1\x7f", "'; drop table x; --"};
    size_t i;
    REQUIRE(vellum_mms_reputation_blacklist_add(NULL) == -1);
    REQUIRE(vellum_mms_reputation_blacklist_remove(NULL) == -1);
    REQUIRE(vellum_mms_reputation_exempt_add(NULL) == -1);
    REQUIRE(vellum_mms_reputation_exempt_remove(NULL) == -1);
    REQUIRE(vellum_mms_reputation_blacklist_add("") == -1);
    REQUIRE(vellum_mms_reputation_exempt_add("") == -1);
    for (i = 0; i < sizeof unfit / sizeof *unfit; ++i) {
        REQUIRE(vellum_mms_reputation_blacklist_add(unfit[i]) == -1);
        REQUIRE(vellum_mms_reputation_blacklist_remove(unfit[i]) == -1);
        REQUIRE(vellum_mms_reputation_exempt_add(unfit[i]) == -1);
        REQUIRE(vellum_mms_reputation_exempt_remove(unfit[i]) == -1);
    }
    return NULL;
}

char const* c_caller_reads_lists(void) {
    char** list = vellum_mms_reputation_blacklist_get();
    REQUIRE(list != NULL);
    REQUIRE(list[0] != NULL && strcmp(list[0], "15555550200") == 0); /* the exempt one, as promised */
    REQUIRE(list[1] == NULL);
    vellum_mms_reputation_blacklist_free(list);
    list = vellum_mms_reputation_exempt_get();
    REQUIRE(list != NULL);
    REQUIRE(list[0] != NULL && strcmp(list[0], "15555550200") == 0);
    REQUIRE(list[1] == NULL);
    vellum_mms_reputation_exempt_free(list);
    vellum_mms_reputation_blacklist_free(NULL);
    vellum_mms_reputation_exempt_free(NULL);
    return NULL;
}

char const* c_caller_reads_nothing(void) {
    REQUIRE(vellum_mms_reputation_blacklist_get() == NULL);
    REQUIRE(vellum_mms_reputation_exempt_get() == NULL);
    return NULL;
}

static char seen[10][36];
static uint32_t scores[10];
static int64_t expiries[10];
static int count;
static int stop_after;

static int take(mms_reputation_display_packet const* packet) {
    memcpy(seen[count], packet->msisdn, sizeof seen[count]);
    scores[count] = packet->score;
    expiries[count] = packet->expiry;
    ++count;
    return count == stop_after;
}

static int show(int sort_by, int limit, int most) {
    count = 0;
    stop_after = most;
    vellum_mms_reputation_entries_show(take, sort_by, limit);
    return count;
}

char const* c_caller_lists_scores(void) {
    REQUIRE(show(vellum_mms_reputation_sort_by_score, 0, 0) == 3);
    REQUIRE(strcmp(seen[0], "15555550002") == 0 && scores[0] == 10 && expiries[0] == 0);
    REQUIRE(strcmp(seen[1], "15555550003") == 0 && scores[1] == 20 && expiries[1] == 1700000000);
    REQUIRE(strcmp(seen[2], "15555550001") == 0 && scores[2] == 30 && expiries[2] == 0);
    REQUIRE(show(vellum_mms_reputation_sort_by_expiry, 0, 0) == 3);
    REQUIRE(strcmp(seen[2], "15555550003") == 0);
    REQUIRE(show(0, 0, 0) == 3);
    REQUIRE(strcmp(seen[0], "15555550001") == 0 && strcmp(seen[2], "15555550003") == 0);
    REQUIRE(show(0, 2, 0) == 2);
    REQUIRE(show(0, -1, 0) == 3);
    REQUIRE(show(0, 0, 1) == 1);
    return NULL;
}

char const* c_caller_lists_nobody(void) {
    REQUIRE(show(1, 0, 0) == 0);
    return NULL;
}

char const* c_caller_clears_a_number(void) {
    REQUIRE(vellum_mms_reputation_autoblacklist_remove(NULL) == 0);
    REQUIRE(vellum_mms_reputation_autoblacklist_remove("") == 0);
    REQUIRE(vellum_mms_reputation_autoblacklist_remove("15555550001") == 0);
    return NULL;
}
