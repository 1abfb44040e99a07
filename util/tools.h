#ifndef TARVO_UTIL_TOOLS_H
#define TARVO_UTIL_TOOLS_H

#include <sstream>
#include <string>
#include <vector>

// std::string from C text; a null pointer raises std::logic_error with the message the
// library has always reported for it, whatever the standard library's own wording.
std::string make_string(const char* text);

void replace_all(std::string& text, std::string pattern, std::string replacement);
void erase_sub_str(std::string& text, const std::string& part);
bool ends_with(const std::string& text, const std::string& suffix);
std::string to_lower_case(std::string text);
std::string to_upper_case(std::string text);
std::string::size_type find_case_insensitive(std::string text, std::string pattern, unsigned int start);
std::string trim(std::string text);
std::vector<std::string> split_str_base(std::stringstream& source, char delimiter);
std::vector<std::string> split_str(const char* text, char delimiter);
std::vector<std::string> split_str(std::string text, char delimiter);

#endif
