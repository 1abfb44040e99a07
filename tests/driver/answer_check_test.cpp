#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "driver/request_xml.h"

namespace {

const char log_head[] = "=== Info:\n==> Request headers\n==> Request body\n<a/>\n==> Response headers\n"
                        "HTTP/1.1 200 OK\r\n\r\n==> Response body\n";

std::string log_around(const std::string& answer)
{
    return log_head + answer + "\n";
}

// Answers whose in-place parse rewrites the buffer (escapes, line ends, attribute values, the
// last character) or stops early (NUL), well-formed or not.
const std::vector<std::string> answers = {
    "<r/>",
    "<?xml version=\"1.0\" encoding=\"utf-8\"?><soap:Envelope><soap:Body>OK</soap:Body></soap:Envelope>",
    "<r a=\"x&amp;y\n\tz\">&lt;&#65;&#x42;&gt;</r>",
    "<r>line\r\nnext\rlast</r>\r\n",
    "<r><![CDATA[<not a tag>]]><!-- note --><?pi data?></r>",
    "\xEF\xBB\xBF<r>bom</r>",
    std::string("<r>a\0b</r>", 10),
    std::string("\0<r/>", 5),
    "<r>",
    "<r></s>",
    "<r/><",
    "<r/>trailing",
    "<r><![CDATA[open</r>",
    "not xml at all",
    "",
};

} // namespace

// The in-place check must give load_string's verdict and leave the log exactly as it was.
TEST(AnswerCheckInLog, SameVerdictAndLogRestoredByteForByte)
{
    for (const std::string& answer : answers) {
        std::string log = log_around(answer);
        const std::string original = log;
        EXPECT_EQ(is_well_formed_answer_in_log(answer, log), is_well_formed_answer(answer)) << answer;
        EXPECT_EQ(log, original) << answer;
    }
}
