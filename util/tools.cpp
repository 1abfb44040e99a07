#include "util/tools.h"

#include <cctype>
#include <stdexcept>

std::string make_string(const char* text)
{
    if (text == nullptr)
        throw std::logic_error("basic_string::_M_construct null not valid");
    return std::string(text);
}

void replace_all(std::string& text, std::string pattern, std::string replacement)
{
    std::string::size_type pos = text.find(pattern, 0);
    while (pos != std::string::npos) {
        text.replace(pos, pattern.size(), replacement);
        // Resume behind the inserted text so a replacement holding the pattern is not rescanned.
        pos = text.find(pattern, pos + replacement.size());
    }
}

void erase_sub_str(std::string& text, const std::string& part)
{
    if (part.empty())
        return;
    const std::string::size_type pos = text.find(part);
    if (pos != std::string::npos)
        text.erase(pos, part.size());
}

bool ends_with(const std::string& text, const std::string& suffix)
{
    if (text.size() < suffix.size())
        return false;
    return text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

std::string to_lower_case(std::string text)
{
    for (char& c : text)
        c = static_cast<char>(std::tolower(static_cast<int>(c)));
    return text;
}

std::string to_upper_case(std::string text)
{
    for (char& c : text)
        c = static_cast<char>(std::toupper(static_cast<int>(c)));
    return text;
}

std::string::size_type find_case_insensitive(std::string text, std::string pattern, unsigned int start)
{
    pattern = to_lower_case(std::move(pattern));
    text = to_lower_case(std::move(text));
    return text.find(pattern, start);
}

std::string trim(std::string text)
{
    static const char whitespace[] = " \t\n\v\f\r";
    text.erase(text.find_last_not_of(whitespace) + 1);
    text.erase(0, text.find_first_not_of(whitespace));
    return text;
}

std::vector<std::string> split_str_base(std::stringstream& source, char delimiter)
{
    std::vector<std::string> fields;
    std::string field;
    while (std::getline(source, field, delimiter))
        fields.push_back(field);
    return fields;
}

std::vector<std::string> split_str(const char* text, char delimiter)
{
    return split_str(make_string(text), delimiter);
}

std::vector<std::string> split_str(std::string text, char delimiter)
{
    std::stringstream source(text, std::ios::in | std::ios::out);
    return split_str_base(source, delimiter);
}
