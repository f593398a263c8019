"""The awkward records: what came from outside and has spoiled, or could spoil, a table, a script, a listing or a log.

One list for every end-to-end test. A value that found a defect is added here, with its family's test of the whole way
(decided, listed, saved, killed, loaded, listed) in awkward_test.py. Bytes that are no UTF-8 are surrogates, as Python's
"surrogateescape" writes them.
"""

LONGEST_STORED = 128  # bytes of a mailbox or domain that a column holds
INT_MIN, INT_MAX = -(1 << 31), (1 << 31) - 1  # of a column

# Senders that Postfix lets through as they are. What ours must not do with them: lose them, mix two of them up, or let
# one spoil the others.
SENDERS = [
    "",
    "Jo@awkward.example",
    "jo@awkward.example",
    "jO@awkward.example",
    "o'neill@awkward.example",
    "100%@awkward.example",
    "%s%n@awkward.example",
    "a=b!c#d$e&f*g/h?i^j_k`l{m|n}o~p@awkward.example",
    '"two words"@awkward.example',
    '"trailing blank "@awkward.example',
    '"trailing blank"@awkward.example',
    '"back\\\\slash"@awkward.example',
    '"quo\\"te"@awkward.example',
    '"at@sign"@awkward.example',
    "nodomain",
    "jo@[192.0.2.1]",
    "x" * 112 + "@awkward.example",
    "x" * 113 + "@awkward.example",
    "y" * 128 + "first@awkward.example",
    "y" * 128 + "second@awkward.example",
    "jo@" + "long." * 20 + "example",
    "jo@xn--bcher-kva.example",
]

# What a mail server may pass on that speaks SMTPUTF8, or checks less than Postfix does.
RAW_SENDERS = [
    "j\u00f6@awkward.example",
    "\u90f5\u4ef6@awkward.example",
    "\udce9\udcff@awkward.example",
    "\udcc3@awkward.example",
    "\u00e9" * 56 + "@awkward.example",
    "'; DROP TABLE grey_list; --@awkward.example",
    "\\@awkward.example",
    "\\'@awkward.example",
    "');\\@awkward.example",
    "/*@awkward.example",
    "#@awkward.example",
    "-- @awkward.example",
]

# Blanks stand in quotes, whoever has left them out.
KEPT_AS = {
    "'; DROP TABLE grey_list; --@awkward.example": "\"'; DROP TABLE grey_list; --\"@awkward.example",
    "-- @awkward.example": '"-- "@awkward.example',
}
# No mailboxes: let through, and the log says so.
NO_MAILBOXES = ["\x01\x02\x7f@awkward.example", "tab\there@awkward.example", "line\rend@awkward.example"]

# Each earns an exemption by its own mail.
DOMAINS = [
    "short.example",
    "x",
    "o'neill.example",
    "back\\slash.example",
    'quo"te.example',
    "per%cent.example",
    "under_score.example",
    "b\u00fccher.example",
    "\udce9.example",
    "[192.0.2.1]",
    "trailing.dot.example.",
    "--.example",
    "a." * 60 + "example1",  # 128 bytes
    "a." * 60 + "example12",
]
# A domain is written into a table without escapes, so these never earn one: their mail is known by its tuples.
NEVER_EXEMPT = ["o'neill.example", "back\\slash.example", 'quo"te.example', "a." * 60 + "example12"]

# Client addresses, and the networks that greylisting makes of them.
ADDRESSES = {
    "0.0.0.0": "0.0.0.0/24",
    "255.255.255.255": "255.255.255.0/24",
    "127.0.0.1": "127.0.0.0/24",
    "128.0.0.0": "128.0.0.0/24",
    "::": "::/64",
    "::1:0:0:0:1": "0:0:0:1::/64",
    "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff": "ffff:ffff:ffff:ffff::/64",
    "2001:db8::1": "2001:db8::/64",
    "2001:0DB8:0:0:1:0:0:1": "2001:db8::/64",
    "fe80::1": "fe80::/64",
    "::ffff:192.0.2.99": "192.0.2.0/24",
    "64:ff9b::192.0.2.1": "64:ff9b::/64",
}

# Counters of a table: messages, recipients, invalid recipients, infected, spam.
COUNTERS = [
    (0, 0, 0, 0, 0),
    (1, 1, 0, 0, 0),
    (INT_MAX, INT_MAX, INT_MAX, INT_MAX, INT_MAX),
    (1, INT_MAX, 0, INT_MAX, 0),
    (INT_MAX - 1, 0, 0, 0, INT_MAX),
]

# What no daemon of ours has ever written into a counter: read as unsigned, so beyond the column when it is saved.
NEGATIVE_COUNTERS = [
    (-1, -1, -1, -1, -1),
    (INT_MIN, INT_MIN, INT_MIN, INT_MIN, INT_MIN),
    (5, -1, 0, INT_MIN, 1),
    (-1, 7, INT_MAX, 0, INT_MIN),
]
# Times in a table: begin and end of a tuple or an exemption, both signed.
TIMES = [
    (-1, -1),
    (INT_MIN, INT_MIN),
    (INT_MIN, INT_MAX),
    (-1, INT_MAX),
    (0, 0),
    (INT_MAX, INT_MAX),
    (INT_MAX, INT_MIN),
]

# Subscriber numbers as a table may hold them.
NUMBERS = [
    "0",
    "7",
    "15555550100",
    "+15555550100",
    "00000000000000000000000000000000000",  # 35 digits
    "12345678901234567890123456789012345",
    "12345678901234567890123456789012346",
    "123456789012345678901234567890123456",
    "+12345678901234567890123456789012345",
]
# What stands in a table and is no number: told in the log, and passed over.
NO_NUMBERS = ["jo", "1 2", "1-2", "'", "\\", "++1", "+", "\u0661", "%s"]
