// The presence document: XML escaping and the exact bytes PUBLISH carries.
#include "sip/ua/body/presence.h"

#include <gtest/gtest.h>

#include <string>

namespace kelsip {
namespace {

const std::string kHead =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n<presence xmlns=\"urn:ietf:params:xml:ns:pidf\" "
    "xmlns:dm=\"urn:ietf:params:xml:ns:pidf:data-model\" xmlns:rpid=\"urn:ietf:params:xml:ns:pidf:rpid\" entity=\"";

TEST(PresenceTest, EscapesTheFiveSpecialCharactersOnly) {
    EXPECT_EQ(xmlEscape("&<>\"'"), "&amp;&lt;&gt;&quot;&apos;");
    EXPECT_EQ(xmlEscape("100%; \xc3\xa9t\xc3\xa9"), "100%; \xc3\xa9t\xc3\xa9");
}

TEST(PresenceTest, WritesDocumentsByteForByte) {
    const struct {
        const char* what;
        const char* entity;
        PresenceStatus status;
        std::string document;
    } cases[] = {
        {"open with no texts: the basic status only, no person", "sip:alice@example.com", {},
         kHead + "sip:alice@example.com\">\r\n <tuple id=\"t1\">\r\n  <status><basic>open</basic></status>\r\n"
                 " </tuple>\r\n</presence>\r\n"},
        {"the note goes in tuple and person, escaped in both", "sip:a@h", {true, "a<b", "away", ""},
         kHead + "sip:a@h\">\r\n <tuple id=\"t1\">\r\n  <status><basic>open</basic></status>\r\n"
                 "  <note>a&lt;b</note>\r\n </tuple>\r\n <dm:person id=\"p1\">\r\n"
                 "  <rpid:activities><rpid:away/></rpid:activities>\r\n  <dm:note>a&lt;b</dm:note>\r\n"
                 " </dm:person>\r\n</presence>\r\n"},
        {"activity without a note; entity and contact escaped", "sip:o'neil@h&co",
         {true, "", "on-the-phone", "<sip:a@h;x=\"1\">"},
         kHead + "sip:o&apos;neil@h&amp;co\">\r\n <tuple id=\"t1\">\r\n  <status><basic>open</basic></status>\r\n"
                 "  <contact>&lt;sip:a@h;x=&quot;1&quot;&gt;</contact>\r\n </tuple>\r\n <dm:person id=\"p1\">\r\n"
                 "  <rpid:activities><rpid:on-the-phone/></rpid:activities>\r\n </dm:person>\r\n</presence>\r\n"},
    };
    for (const auto& c : cases) EXPECT_EQ(buildPresenceDocument(c.entity, c.status), c.document) << c.what;
}

}  // namespace
}  // namespace kelsip
