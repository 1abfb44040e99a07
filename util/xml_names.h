#ifndef TARVO_UTIL_XML_NAMES_H
#define TARVO_UTIL_XML_NAMES_H

// What the simulator, the command-line host and the invoicing core need of XML: escaping, and finding elements by
// local name whatever prefix the other side chose.

#include <pugixml.hpp>

#include <initializer_list>
#include <string>

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

#endif
