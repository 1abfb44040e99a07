#ifndef TARVO_UTIL_B64_H
#define TARVO_UTIL_B64_H

#include <string>

std::string base64_encode(const std::string& bytes);
// Lenient: stops at the first byte outside the alphabet ('=' included) and never fails.
std::string base64_decode(const std::string& text);

#endif
