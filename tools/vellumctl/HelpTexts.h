// What --help tells beyond the options.
#pragma once

namespace Vellum::Tools::HelpText {

inline constexpr char const* about =
    "Looks into the Vellum state daemon on this machine, and has it back up, restore and reload.\n"
    "It speaks to port 29001 of the loopback; the daemon serves root, its own user and the users that its\n"
    "settings name.";

inline constexpr char const* exitCodes = "Exit codes:\n"
                                         "  0  done\n"
                                         "  1  the daemon refused, or the operation failed\n"
                                         "  2  the command line is wrong\n"
                                         "  3  no daemon: nothing listens on the port, or it does not serve this user\n"
                                         "  4  the connection ended too early: the result is not whole";

inline constexpr char const* top =
    "Messages, decisions, latency, caches, backups and the database, refreshed every second. q or ^C ends it.\n"
    "Rates are those of the last interval; with --once, and on the first page, the average since the daemon's start.\n"
    "Latencies are estimated from a histogram of one decision in eight.\n"
    "\n"
    "JSON: the daemon's metrics by name, once; docs/metrics.md tells what each means.";

inline constexpr char const* list =
    "States, judged by this machine's clock:\n"
    "  waiting  the delay is not over: mail is deferred\n"
    "  passed   the delay is over: mail may pass (whether any came is not told)\n"
    "  expired  too old: forgotten when the daemon meets it next; wins over the others\n"
    "Several of --waiting, --passed, --expired show what is in any of these states.\n"
    "\n"
    "PATTERN: * is any run of characters, ? any one character, /expression/ a regular expression found\n"
    "anywhere; letter case does not count. The null sender, of bounces, is <>.\n"
    "Addresses are shown up to their 256th byte. Bytes that could drive a terminal are shown as \\xNN.\n"
    "\n"
    "JSON: an array of objects with network, sender, recipient, state, pass_time, expiry (seconds since the\n"
    "epoch). A byte that is not UTF-8 is written as if it were Latin-1, and then sender_hex or recipient_hex\n"
    "has all bytes. When the connection breaks, the array is left open.";

inline constexpr char const* exemptions =
    "An exemption is a sending network and a sender domain whose mail need not wait.\n"
    "States, judged by this machine's clock:\n"
    "  active   mail need not wait\n"
    "  expired  too old: forgotten when the daemon meets it next\n"
    "\n"
    "PATTERN: * is any run of characters, ? any one character, /expression/ a regular expression found\n"
    "anywhere; letter case does not count.\n"
    "\n"
    "JSON: an array of objects with network, domain, state, expiry (seconds since the epoch). A byte that is\n"
    "not UTF-8 is written as if it were Latin-1, and then domain_hex has all bytes. When the connection\n"
    "breaks, the array is left open.";

inline constexpr char const* rateList =
    "Five things are counted of each sender; COUNT1 to COUNT5 are their totals of the last half hour, that is of\n"
    "the current five minutes and the 25 before them. A sender whose block is over keeps its state, its reason\n"
    "(the counter that caused it) and its time until it is met again. Lists show what is in the daemon's memory;\n"
    "nothing of it survives a restart.\n"
    "\n"
    "PATTERN: * is any run of characters, ? any one character, /expression/ a regular expression found\n"
    "anywhere; letter case does not count. The null sender, of bounces, is <>.\n"
    "Addresses are shown up to their 256th byte. Bytes that could drive a terminal are shown as \\xNN.\n"
    "\n"
    "JSON: an array of objects with sender, totals (five numbers), state, reason (1 to 5, or 0),\n"
    "blocked_until (seconds since the epoch, or 0). A byte that is not UTF-8 is written as if it were\n"
    "Latin-1, and then sender_hex has all bytes. When the connection breaks, the array is left open.";

inline constexpr char const* rateShow =
    "The bar is drawn of all five counters together, beside the busiest five minutes. A sender that the daemon\n"
    "does not know has sent nothing, and is shown as such.\n"
    "\n"
    "JSON: an object with sender, periods (an array of objects with from, seconds since the epoch, and counts,\n"
    "five numbers) and totals (five numbers).";

inline constexpr char const* endpointList =
    "SCORE is the number of spam and infected messages of the scoring window. BLACKLISTED UNTIL is the automatic\n"
    "blacklisting; a time that is over stays until the subscriber is met again. Subscribers of whom nothing was\n"
    "counted lately are not in memory. The administrator's lists are shown by \"endpoint blacklist list\" and\n"
    "\"endpoint exempt list\".\n"
    "\n"
    "PATTERN: * is any run of characters, ? any one character, /expression/ a regular expression found\n"
    "anywhere.\n"
    "\n"
    "JSON: an array of objects with number, score, expiry (seconds since the epoch, or 0). When the connection\n"
    "breaks, the array is left open.";

inline constexpr char const* endpointRemove =
    "Counts and automatic blacklisting are forgotten; the administrator's lists stay as they are. The tables\n"
    "follow with the next backup.";

inline constexpr char const* endpointReload =
    "For tables that were changed by somebody else. What was counted since the last backup is lost. A row that\n"
    "cannot be read is named, and what comes behind it is not in memory; loading is tried again every minute.\n"
    "While entries are missed, backups of endpoints stay off, until a load succeeds or\n"
    "\"vellumctl endpoint accept-empty\".";

inline constexpr char const* endpointLists =
    "The lists stand in the database, and the daemon is told to read them again. The account of the database is\n"
    "taken from the daemon's settings file, so whoever may read that may change the lists.\n"
    "\n"
    "JSON of list: an array of numbers.";

inline constexpr char const* endpointScores =
    "The daemon dumps at most once in 300 seconds; in between the last dump is shown.\n"
    "\n"
    "JSON: as of \"endpoint list\".";

inline constexpr char const* reputationList =
    "The score is 0 to 100, higher is worse, of the last twelve hours. Addresses whose hours are all older\n"
    "stay in the daemon's memory with the score 0 until others push them out.\n"
    "\n"
    "STATE is unset, trusted, watched or blocked, or its number 0 to 3. States come from the tables.\n"
    "\n"
    "JSON: an array of objects with address, score, state (a number), state_name, last_change (seconds since\n"
    "the epoch, 0 for never). When the connection breaks, the array is left open.";

inline constexpr char const* reputationShow =
    "Twelve hours, the current one last, with what each alone would score and a bar for its messages. An\n"
    "address that the daemon does not know has sent nothing, and is shown as such.\n"
    "\n"
    "JSON: an object with address and hours: an array of objects with from (seconds since the epoch), score,\n"
    "messages, recipients, invalid_recipients, infected, spam, extra_total, extra_hits, extra_volume, flagged.";

inline constexpr char const* reputationSetState =
    "The daemon checks the request and logs the address; it changes no state. States come from the table\n"
    "sender_reputation_state: change them there, then \"vellumctl reputation reload\".";

inline constexpr char const* reputationReload =
    "For tables that were changed by somebody else. Each hour in the tables replaces the same hour in memory,\n"
    "and states are taken over; what else is in memory stays. Tables that cannot be read change nothing, and\n"
    "the row that is to blame is named; backups then stay off until a load succeeds, or\n"
    "\"vellumctl reputation accept-empty\".";

inline constexpr char const* reload =
    "For tables that were changed by somebody else. What is in memory only is lost. A table that cannot be\n"
    "read leaves its cache as it was, and the row that is to blame is named; backups then stay off until a\n"
    "load succeeds, or \"vellumctl greylist accept-empty\".";

inline constexpr char const* acceptEmpty =
    "After a load that failed backups are off, so that an empty memory does not overwrite a full table. This\n"
    "allows them again: the next backup replaces the rows of the tables by what is in memory, and the rows\n"
    "that could not be loaded are gone. Save them first if they matter.";

inline constexpr char const* backup =
    "Waits until the database daemon has the script in its journal; from then on it is run whatever happens\n"
    "to either daemon.";

inline constexpr char const* restore =
    "FILE is a script that a backup wrote. It is run as a whole or not at all, and the caches are loaded from\n"
    "the tables afterwards. The command tells first what would be lost, and asks. The daemon reads the file,\n"
    "so the daemon's user must be able to. Interrupted before the end, it leaves everything as it was.";

inline constexpr char const* explain =
    "Goes through the steps of the decision in their order: endpoint lists, sender block, reputation of the\n"
    "address, exempt rules, automatic exemption, tuple. Asking changes nothing. Without a recipient the\n"
    "verdict is what is held against client and sender, and without a sender against the client alone.";

inline constexpr char const* release =
    "As if the message had waited already: its next attempt passes, and is known from then on. Only\n"
    "greylisting lets it through; a blocked sender or a bad reputation still counts. A tuple that was never\n"
    "seen is released, too, for as long as a new one waits.";

inline constexpr char const* rateReset =
    "The sender may send at once, and as much again as anybody: what was counted of it in the last half hour\n"
    "is forgotten.";

} // namespace Vellum::Tools::HelpText
