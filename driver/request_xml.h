#ifndef TARVO_DRIVER_REQUEST_XML_H
#define TARVO_DRIVER_REQUEST_XML_H

#include <pugixml.hpp>

#include <string>

// Fills every "ar:Token"/"token" element with the token and every "ar:Sign"/"sign" element with
// the sign. Names match exactly: prefix as text, case-sensitive.
class walker : public pugi::xml_tree_walker {
public:
    walker(const std::string& token, const std::string& sign) : m_token(token), m_sign(sign) {}
    ~walker() override = default;
    bool for_each(pugi::xml_node& node) override;

private:
    const std::string& m_token;
    const std::string& m_sign;
};

// The request as sent: one line, no XML declaration.
std::string serialise_request(const pugi::xml_document& document);

// Whether the service's answer parses as XML with the default options.
bool is_well_formed_answer(const std::string& answer);

// The same verdict, parsed in place inside the log when the log ends with the answer and a line
// feed: the parse needs a writable copy and the log already is one. The log is restored byte for
// byte before returning; otherwise the answer is copied as above.
bool is_well_formed_answer_in_log(const std::string& answer, std::string& log);

#endif
