#include "daemon/AddressFolding.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

namespace Vellum::Daemon {
namespace {

struct Case {
    char const* written;
    char const* folded;
};

std::string foldedSender(AddressFolding const& folding, std::string const& address) {
    std::string room = "what the last address left";
    return std::string(folding.sender(address, room));
}

std::string foldedRecipient(AddressFolding const& folding, std::string const& address) {
    std::string room = "what the last address left";
    return std::string(folding.recipient(address, room));
}

void expectSenders(AddressFolding const& folding, std::vector<Case> const& cases) {
    for (Case const& one : cases) {
        EXPECT_EQ(foldedSender(folding, one.written), one.folded) << one.written;
        EXPECT_EQ(foldedSender(folding, one.folded), one.folded) << "again: " << one.written;
    }
}

constexpr AddressFolding nothing{.extension = false, .bounceDigits = false, .lowercaseLocalPart = false};

TEST(AddressFolding, DomainsAreLowerCaseWhateverTheSettings) {
    expectSenders(nothing, {
                               {"jo@EXAMPLE.org", "jo@example.org"},
                               {"Jo@Example.Org", "Jo@example.org"},
                               {"jo@b\xc3\x9c"
                                "cher.Example",
                                "jo@b\xc3\x9c"
                                "cher.example"},
                               {"jo@[IPv6:2001:DB8::1]", "jo@[ipv6:2001:db8::1]"},
                               {"\"a@B\"@C.example", "\"a@B\"@c.example"},
                               {"Root", "Root"},
                               {"bounce-17+A@x.example", "bounce-17+A@x.example"},
                           });
    EXPECT_EQ(foldedRecipient(nothing, "Sales+Spring@EXAMPLE.com"), "Sales+Spring@example.com");
}

TEST(AddressFolding, NullStaysNull) {
    EXPECT_EQ(foldedSender({}, ""), "");
    EXPECT_EQ(foldedRecipient({}, ""), "");
}

TEST(AddressFolding, ExtensionIsCutAtTheFirstPlus) {
    AddressFolding folding = nothing;
    folding.extension = true;
    expectSenders(folding, {
                               {"jo+a@example.org", "jo@example.org"},
                               {"jo+a+b@example.org", "jo@example.org"},
                               {"jo+@example.org", "jo@example.org"},
                               {"+jo@example.org", "+jo@example.org"},
                               {"\"jo+a\"@example.org", "\"jo+a\"@example.org"},
                               {"lists+jo=example.com@example.org", "lists@example.org"},
                               {"jo+a", "jo"},
                           });
    EXPECT_EQ(foldedRecipient(folding, "jo+a@example.com"), "jo@example.com");
}

TEST(AddressFolding, LocalPartsKeepTheirCaseUnlessTold) {
    EXPECT_EQ(foldedSender({}, "Jo.Doe@example.org"), "Jo.Doe@example.org");
    AddressFolding folding;
    folding.lowercaseLocalPart = true;
    EXPECT_EQ(foldedSender(folding, "Jo.Doe@example.org"), "jo.doe@example.org");
    EXPECT_EQ(foldedRecipient(folding, "Jo.Doe@example.org"), "jo.doe@example.org");
    EXPECT_EQ(foldedSender(folding, "\"Jo Doe\"@example.org"), "\"Jo Doe\"@example.org");
    EXPECT_EQ(foldedSender(folding, "Root"), "root");
}

TEST(AddressFolding, SignaturesOfBounceAddressesAreReplaced) {
    expectSenders({}, {
                          {"prvs=4827d1a0c5=jo@example.org", "prvs=#=jo@example.org"},
                          {"PRVS=4827d1a0c5=Jo@example.org", "PRVS=#=Jo@example.org"},
                          {"prvs=4827d1a0c5=jo+x@example.org", "prvs=#=jo@example.org"},
                          {"prvs=jo=4827d1a0c5@example.org", "prvs=jo=#@example.org"},
                          {"btv1==0912be83cc01==jo@example.org", "btv1==#==jo@example.org"},
                          {"msprvs1=17012aBc=bounces-7@example.org", "msprvs1=#=bounces-#@example.org"},
                          {"prvs=@example.org", "prvs=@example.org"},
                      });
}

// A backup holds what was folded, and its sender is folded once more when it is asked about.
TEST(AddressFolding, SignatureThatWasReplacedIsOneStill) {
    expectSenders({}, {
                          {"prvs=12=+d@example.org", "prvs=#=+d@example.org"},
                          {"prvs=#=+d@example.org", "prvs=#=+d@example.org"},
                          {"prvs=#=jo+x@example.org", "prvs=#=jo@example.org"},
                      });
}

TEST(AddressFolding, RewritingForwardersAreOneSenderForEachAuthor) {
    expectSenders(
        {}, {
                {"SRS0=Xy7=QM=a.example=jo@f.example", "SRS0=#=#=a.example=jo@f.example"},
                {"srs0=Xy7=QM=a.example=jo@f.example", "srs0=#=#=a.example=jo@f.example"},
                {"SRS0+A+/=QM=a.example=jo@f.example", "SRS0+#=#=a.example=jo@f.example"},
                {"SRS1=k3=b.example==Xy7=QM=a.example=jo@f.example", "SRS1=#=b.example==#=#=a.example=jo@f.example"},
                {"SRS0=broken@f.example", "SRS0=broken@f.example"},
                {"SRS0@f.example", "SRS0@f.example"},
                {"srs0x=a=b=c=d@f.example", "srs0x=a=b=c=d@f.example"},
            });
}

TEST(AddressFolding, NumbersAreReplacedWhereAMachineMadeTheAddress) {
    expectSenders({}, {
                          {"news-return-399-jo=b.example@example.org", "news-return-#-jo=b.example@example.org"},
                          {"bounce-lgtech-2534369@example.org", "bounce-lgtech-#@example.org"},
                          {"Bounces-7@example.org", "Bounces-#@example.org"},
                          {"bounce42-7@example.org", "bounce42-#@example.org"},
                          {"noreply-7.12@example.org", "noreply-#.#@example.org"},
                          {"unsubs-545c301b6d-x@example.org", "unsubs-#-x@example.org"},
                          {"a1-77@bounce.example.org", "a1-#@bounce.example.org"},
                          {"77@mail.Returns.example.org", "#@mail.returns.example.org"},
                          {"0100018f3a1b2c3d-8a7b-000000@mail.example", "#-8a7b-#@mail.example"},
                          {"mp3-list-bounces-17@example.org", "mp3-list-bounces-#@example.org"},
                      });
}

TEST(AddressFolding, NumbersOfPeopleAreKept) {
    for (char const* address :
         {"jo1@example.org", "jo2005@example.org", "12345@example.org", "jo.123456.789@example.org",
          "returnacctr5391@example.org", "a1b2c3d4e5f6@example.org", "frank325760@example.org",
          "0100018f3a1b2c3@example.org", "abcdefabcdefabcdef@example.org", "jo7@nobounce.example"}) {
        EXPECT_EQ(foldedSender({}, address), address);
    }
}

TEST(AddressFolding, NumbersOfRecipientsAreKept) {
    EXPECT_EQ(foldedRecipient({}, "bounce-17-jo=a.example@example.org"), "bounce-17-jo=a.example@example.org");
    EXPECT_EQ(foldedRecipient({}, "prvs=4827d1a0c5=jo@example.org"), "prvs=4827d1a0c5=jo@example.org");
}

TEST(AddressFolding, AnAddressWithNothingToFoldIsAnsweredItself) {
    AddressFolding const folding;
    std::string room;
    for (std::string_view const plain : {"jo@example.org", "jo17@example.org", "a=b@example.org", ""}) {
        EXPECT_EQ(folding.sender(plain, room).data(), plain.data()) << plain;
    }
}

} // namespace
} // namespace Vellum::Daemon
