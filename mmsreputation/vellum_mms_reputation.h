/* Endpoint reputation for administration tools, in C.
 *
 * The functions edit the blacklist and the exempt list in the database and tell the state daemon (TCP port 29001 of
 * this machine) to read the changed list again; they list scores; they drop one subscriber's counts. They keep nothing
 * between two calls and may be called from several threads, but see the _get functions.
 *
 * Numbers: texts of digits with an optional leading '+', NUL-terminated, at most 36 characters (35 in what is listed).
 * They go into SQL as they are given. So a caller makes sure that they are numbers; a text with a quote, a backslash or
 * a control character is refused here before any SQL, nothing else is.
 *
 * Errors: every function reports the reason to the process's log (standard error unless the host installed another) and
 * lets no C++ exception out.
 */
#ifndef VELLUM_MMS_REPUTATION_H
#define VELLUM_MMS_REPUTATION_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* One subscriber, 48 bytes, host byte order; on the wire the payload of PDU 22. Offset, size, field:
 *   0   36  msisdn  the number, NUL-terminated, NUL-padded, cut at 35 characters
 *  36    4  score   spam and infected messages within the scoring window, at the time of the dump or listing
 *  40    8  expiry  until when the subscriber is automatically blacklisted, seconds since the epoch; 0: not at all
 */
typedef struct mms_reputation_display_packet {
    char msisdn[36];
    uint32_t score;
    int64_t expiry;
} mms_reputation_display_packet;

/* Order of vellum_mms_reputation_entries_show; any other value sorts by number. Always ascending. */
enum { vellum_mms_reputation_sort_by_score = 1, vellum_mms_reputation_sort_by_expiry = 2 };

/* Has the daemon dump its scores into the database (at most once in 300 seconds; in between the last dump is shown),
 * and calls `callback` for each subscriber in it, on the calling thread. A result other than 0 ends the listing. The
 * packet is valid during the call only. limit: subscribers at most; 0 and below: all.
 * Without daemon or database the callback is never called. Waits for both, a minute at most without any answer.
 */
void vellum_mms_reputation_entries_show(int (*callback)(mms_reputation_display_packet const* packet), int sortBy,
                                        int limit);

/* Drops a subscriber's counts and automatic blacklist expiry from the daemon's memory. The lists are not touched.
 * Always 0: a failure is only logged. Nothing is done for a null or empty text. No answer is waited for.
 */
int vellum_mms_reputation_autoblacklist_remove(char const* msisdn);

/* Put a number on a list, or take it off, and have the daemon read that list again. Adding a number that is listed and
 * removing one that is not succeed and change nothing.
 * 0: done in the database. -1: null argument, refused text (an empty one cannot be added), or a database error.
 * A daemon that cannot be told does not make them fail; a line on standard output says so.
 */
int vellum_mms_reputation_blacklist_add(char const* msisdn);
int vellum_mms_reputation_blacklist_remove(char const* msisdn);
int vellum_mms_reputation_exempt_add(char const* msisdn);
int vellum_mms_reputation_exempt_remove(char const* msisdn);

/* The numbers of the EXEMPT list, ascending, as an array of strings that ends with a null pointer; null on failure. The
 * caller owns it and gives it back with the matching _free function, whole and with nothing else.
 *
 * Both functions answer the exempt list. That is no slip of this comment: callers have relied on it for years, and
 * vellum_mms_reputation_blacklist_get answers it for good. Whoever wants the blacklist reads the table "mms_blacklist".
 *
 * For tools only: they load a cache of their own from the database, which becomes the calling process's endpoint cache
 * and stays until the next call. In the state daemon they would replace what it counts into, so it never calls them.
 * A process without an endpoint configuration gets a stub one. One load at a time; further threads wait.
 */
char** vellum_mms_reputation_blacklist_get(void);
char** vellum_mms_reputation_exempt_get(void);

/* Give a list back. Null is ignored. */
void vellum_mms_reputation_blacklist_free(char** list);
void vellum_mms_reputation_exempt_free(char** list);

#ifdef __cplusplus
}
#endif

#endif
