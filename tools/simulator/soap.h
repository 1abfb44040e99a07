#ifndef TARVO_SIMULATOR_SOAP_H
#define TARVO_SIMULATOR_SOAP_H

#include <pugixml.hpp>

#include <string>

#include "util/xml_names.h"

// What an endpoint answers, and the line the request log shows for it.
struct Reply {
    int status = 200;
    std::string content_type = "text/xml; charset=utf-8";
    std::string body;
    std::string summary;
};

// The first element child of a SOAP Envelope/Body, or a null node when the document is no envelope.
pugi::xml_node soap_body_content(const pugi::xml_document& document);

#endif
