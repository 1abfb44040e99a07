#include "util/xml_names.h"

std::string xml_escape(const std::string& text)
{
    std::string escaped;
    escaped.reserve(text.size());
    for (const char c : text) {
        switch (c) {
        case '&': escaped += "&amp;"; break;
        case '<': escaped += "&lt;"; break;
        case '>': escaped += "&gt;"; break;
        case '"': escaped += "&quot;"; break;
        default: escaped += c; break;
        }
    }
    return escaped;
}

std::string local_name(const pugi::xml_node& node)
{
    const std::string name = node.name();
    const std::string::size_type colon = name.find(':');
    return colon == std::string::npos ? name : name.substr(colon + 1);
}

pugi::xml_node child_by_local_name(const pugi::xml_node& parent, const std::string& name)
{
    for (pugi::xml_node child = parent.first_child(); child; child = child.next_sibling())
        if (child.type() == pugi::node_element && local_name(child) == name)
            return child;
    return {};
}

pugi::xml_node path_by_local_name(const pugi::xml_node& start, std::initializer_list<const char*> names)
{
    pugi::xml_node node = start;
    for (const char* name : names) {
        node = child_by_local_name(node, name);
        if (!node)
            break;
    }
    return node;
}

std::string text_by_local_name(const pugi::xml_node& start, std::initializer_list<const char*> names)
{
    const std::string text = path_by_local_name(start, names).child_value();
    const auto first = text.find_first_not_of(" \t\r\n");
    if (first == std::string::npos)
        return {};
    return text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}
