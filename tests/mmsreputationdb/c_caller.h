/* What a C program does with the C interface, for a test to call. Each answers null, or what was not as promised. */
#ifndef VELLUM_TESTS_C_CALLER_H
#define VELLUM_TESTS_C_CALLER_H

#ifdef __cplusplus
extern "C" {
#endif

/* Adds and removes numbers; in the end 15555550100 and +15555550101 are blacklisted, 15555550200 is exempt. */
char const* c_caller_edits_lists(void);
/* Unfit texts and null. */
char const* c_caller_is_refused(void);
/* Reads both lists while exactly 15555550200 is exempt. */
char const* c_caller_reads_lists(void);
/* Reads both lists when there is no database. */
char const* c_caller_reads_nothing(void);
/* Lists scores, while 15555550001 (score 30), 15555550002 (10) and 15555550003 (20, expiry 1700000000) have some. */
char const* c_caller_lists_scores(void);
/* Lists scores when there is no daemon. */
char const* c_caller_lists_nobody(void);
/* Clears 15555550001, null and "". */
char const* c_caller_clears_a_number(void);

#ifdef __cplusplus
}
#endif

#endif
