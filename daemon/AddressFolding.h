// Under which address the mail of a sender, or for a recipient, is remembered.
//
// A tuple is meant to be one correspondence: this sender writes to this recipient. Where a sender's address changes
// from message to message, every message would be a new tuple and would wait. So what varies is taken out before a
// tuple is made; rules and logs see the address as it came.
//
//   domains, always          ASCII letters to lower case; they name the same domain in any case (RFC 5321, 2.4).
//                            Bytes above 0x7f are left alone: a UTF-8 domain comes in one form from one server.
//   extension                user+anything@ becomes user@. List servers and bug trackers put a number of the message or
//                            of the recipient there; for a recipient it is the same mailbox.
//   bounceDigits             what senders of bulk mail and forwarders make up anew for each message, in the forms
//   below.
//                            Senders only, and only where the address shows that a machine made it: numbers in an
//                            ordinary address belong to a person (or to spam whose sender is new each time and ought to
//                            wait each time), and tuples of different persons stay apart.
//   lowercaseLocalPart       the rest of the address, too. Off: by RFC 5321 the case is the receiving host's own
//   affair,
//                            and a sender that changes it pays with one deferral. 0.4 % of the senders we measured did.
//
// What bounceDigits takes for machine-made, and what it makes of it:
//
//   prvs=4827d1a0c5=jo@            prvs=#=jo@                     signed bounce address, BATV
//   btv1==0912be83cc01==jo@        btv1==#==jo@                   the same, another maker's
//   msprvs1=17012aBc=bounces-7@    msprvs1=#=bounces-#@           the same, a third one's
//   SRS0=Xy7=QM=a.example=jo@      SRS0=#=#=a.example=jo@         rewritten by a forwarder
//   SRS1=k3=b.example==Xy7=QM=...  SRS1=#=b.example==#=#=...      rewritten twice
//   news-return-399-jo=b.example@  news-return-#-jo=b.example@    VERP: '=' inside, or one of the words bounce, return,
//                                                                 reply, noreply, unsub (with "s", with digits behind),
//                                                                 or a domain whose name has a part that begins with
//                                                                 bounce or return
//   0100018f3a1b2c3d-8a7b-000000@  #-8a7b-#@                      a hexadecimal number of 16 or more digits
//
// In the last two a run of letters and digits is replaced when it is a number, or has three or more digits in it.
// What these choices do on real mail is in docs/greylisting.md; vellum-replay measures it on one's own.
//
// A quoted local part is left as it is. Nothing here ever makes a null address of another, or the reverse.
#pragma once

#include <string>
#include <string_view>

namespace Vellum::Daemon {

struct AddressFolding {
    bool extension = true;
    bool bounceDigits = true;
    bool lowercaseLocalPart = false;

    // The folded form of an EmailAddress::address(): `address` itself when there is nothing to fold, else a text made
    // in `room`, which lives as long as the result is used. `room` may be used again for the next address; then it
    // seldom needs new memory.
    std::string_view sender(std::string_view address, std::string& room) const;
    std::string_view recipient(std::string_view address, std::string& room) const;

    bool operator==(AddressFolding const&) const = default;
};

} // namespace Vellum::Daemon
