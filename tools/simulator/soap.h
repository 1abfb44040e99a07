#ifndef TARVO_SIMULATOR_SOAP_H
#define TARVO_SIMULATOR_SOAP_H

#include <pugixml.hpp>

#include <string>

// What an endpoint answers, and the line the request log shows for it.
struct Reply {
    int status = 200;
    std::string content_type = "text/xml; charset=utf-8";
    std::string body;
    std::string summary;
};

// Escapes text for element content and attribute values.
std::string xml_escape(const std::string& text);

// "soapenv:Body" -> "Body".
std::string local_name(const pugi::xml_node& node);

// First child element with that local name, whatever its prefix; null node when absent.
pugi::xml_node child_by_local_name(const pugi::xml_node& parent, const std::string& name);

// Follows child elements by local name; null node when a step is missing.
pugi::xml_node path_by_local_name(const pugi::xml_node& start, std::initializer_list<const char*> names);

// Trimmed text of the element at the end of the path; empty when missing.
std::string text_by_local_name(const pugi::xml_node& start, std::initializer_list<const char*> names);

// The first element child of a SOAP Envelope/Body, or a null node when the document is no envelope.
pugi::xml_node soap_body_content(const pugi::xml_document& document);

#endif
