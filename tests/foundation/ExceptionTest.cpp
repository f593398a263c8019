#include "foundation/Exception.h"

#include <gtest/gtest.h>

namespace Vellum {
namespace {

TEST(Exception, TextHasOperationCodeSourceAndLine) {
    EXPECT_EQ(Exception("Query::execute", 4, "Query", 17).asString(), "Query::execute (code 4, Query:17)");
    EXPECT_EQ(Exception("Query::execute", 4, "Query").asString(), "Query::execute (code 4, Query)");
    EXPECT_EQ(Exception("Ref::operator->", 1).asString(), "Ref::operator-> (code 1)");
    EXPECT_EQ(Exception("Ref::operator->", 1, nullptr, 5).asString(), "Ref::operator-> (code 1)");
}

TEST(Exception, TextHasEveryParameter) {
    Exception exception("RecordRow::parse", 4, "GlRecordDatabase", 234);
    exception.stringParameter("grey_list row 17").stringParameter("CreationTime \"12x\"");
    EXPECT_EQ(exception.asString(),
              "RecordRow::parse (code 4, GlRecordDatabase:234): grey_list row 17; CreationTime \"12x\"");
    EXPECT_EQ(exception.stringParameters().size(), 2U);
    EXPECT_STREQ(exception.what(), exception.asString().c_str());
}

TEST(Exception, TextHasTheWholeChainOfCauses) {
    Exception const first = Exception("connect", 4).stringParameter("Connection refused");
    Exception const second = Exception("Query::execute", 4, "Query", 9).cause(first);
    Exception const third = Exception("createTable", 4).stringParameter("create table x").cause(second);
    EXPECT_EQ(third.asString(), "createTable (code 4): create table x; caused by Query::execute (code 4, Query:9); "
                                "caused by connect (code 4): Connection refused");
    EXPECT_EQ(third.cause()->cause()->where(), "connect");
    EXPECT_EQ(first.cause(), nullptr);
}

TEST(Exception, ParameterAfterTheCauseStandsBeforeIt) {
    Exception exception("outer", 4);
    exception.cause(Exception("inner", 4)).stringParameter("text");
    EXPECT_EQ(exception.asString(), "outer (code 4): text; caused by inner (code 4)");
}

TEST(Exception, TextHoldsNoControlCharacters) {
    Exception exception("a\nb", 4, "S\x01", 1);
    exception.stringParameter(std::string("x\0y\r\x7f", 5)).cause(Exception("in\nner", 4));
    EXPECT_EQ(exception.asString(), "a\\nb (code 4, S\\x01:1): x\\x00y\\r\\x7f; caused by in\\nner (code 4)");
    EXPECT_EQ(exception.where(), "a\nb") << "the parts stay as they were given";
}

TEST(Exception, CopyIsAValue) {
    Exception original("here", 4);
    Exception const copy = original;
    original.stringParameter("later");
    EXPECT_EQ(copy.asString(), "here (code 4)");
    try {
        throw Exception("thrown", 1, "File", 2).stringParameter("p");
    } catch (std::exception const& caught) {
        EXPECT_STREQ(caught.what(), "thrown (code 1, File:2): p");
    }
}

} // namespace
} // namespace Vellum
