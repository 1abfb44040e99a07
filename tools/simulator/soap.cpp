#include "soap.h"

pugi::xml_node soap_body_content(const pugi::xml_document& document)
{
    const pugi::xml_node body = path_by_local_name(document, {"Envelope", "Body"});
    return body ? body.find_child([](const pugi::xml_node& child) { return child.type() == pugi::node_element; })
                : pugi::xml_node();
}
