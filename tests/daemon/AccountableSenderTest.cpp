#include "daemon/AccountableSender.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace Vellum::Daemon {
namespace {

std::string accountable(char const* sender, std::string_view user, bool strangers = false) {
    return accountableSender(EmailAddress::fromAddress(sender), user, strangers).address();
}

std::vector<std::string> names(char const* written) {
    std::vector<std::string> texts;
    for (EmailAddress const& name : accountableNames(EmailAddress::fromAddress(written))) {
        texts.push_back(name.address());
    }
    return texts;
}

using Texts = std::vector<std::string>;

TEST(AccountableSender, WhoHasLoggedInIsHeldToAccountByHisLoginWhateverTheEnvelopeSays) {
    for (bool const strangers : {false, true}) {
        EXPECT_EQ(accountable("forged@example.net", "jo@example.org", strangers), "jo@example.org");
        EXPECT_EQ(accountable("forged@example.net", "jo", strangers), "jo");
        EXPECT_EQ(accountable("", "jo", strangers), "jo") << "a bounce of his";
    }
}

TEST(AccountableSender, LoginIsTheSameInAnyCase) {
    EXPECT_EQ(accountable("a@example.net", "Jo@Example.ORG"), "jo@example.org");
    EXPECT_EQ(accountable("a@example.net", "JO"), "jo");
}

TEST(AccountableSender, LoginThatIsNoMailboxAsItStandsIsQuotedAndOneThatCannotBeLeavesTheEnvelopes) {
    EXPECT_EQ(accountable("a@example.net", "jo doe"), "\"jo doe\"");
    EXPECT_EQ(accountable("a@example.net", "jo doe@example.org"), "\"jo doe\"@example.org");
    EXPECT_EQ(accountable("a@Example.NET", "jo\n"), "a@example.net");
    EXPECT_EQ(accountable("a@example.net", std::string(EmailAddress::maxLength, 'j')),
              std::string(EmailAddress::maxLength, 'j'));
    EXPECT_EQ(accountable("a@example.net", std::string(EmailAddress::maxLength + 1, 'j')), "a@example.net");
}

TEST(AccountableSender, OthersAreHeldToAccountOnDemandWithTheirDomainInLowerCase) {
    EXPECT_EQ(accountable("Jo@Example.ORG", "", false), "");
    EXPECT_EQ(accountable("Jo@Example.ORG", "", true), "Jo@example.org");
    EXPECT_EQ(accountable("jo@example.org", "", true), "jo@example.org");
    EXPECT_EQ(accountable("\"J@X\"@Example.ORG", "", true), "\"J@X\"@example.org");
    EXPECT_EQ(accountable("Root", "", true), "Root");
    EXPECT_EQ(accountable("", "", true), "");
}

TEST(AccountableSender, SenderThatSomebodyMeansMayBeKnownInThreeWays) {
    EXPECT_EQ(names("Jo@Example.ORG"), (Texts{"Jo@Example.ORG", "Jo@example.org", "jo@example.org"}));
    EXPECT_EQ(names("Jo@example.org"), (Texts{"Jo@example.org", "jo@example.org"}));
    EXPECT_EQ(names("jo@example.org"), (Texts{"jo@example.org"}));
    EXPECT_EQ(names("Jo"), (Texts{"Jo", "jo"}));
}

} // namespace
} // namespace Vellum::Daemon
