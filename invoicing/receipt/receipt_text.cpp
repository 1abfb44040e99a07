#include "invoicing/receipt/receipt_text.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace {

// Digits grouped by thousands with dots: "1234567" -> "1.234.567".
std::string grouped(const std::string& digits)
{
    std::string result;
    for (size_t i = 0; i < digits.size(); ++i) {
        if (i > 0 && (digits.size() - i) % 3 == 0)
            result += '.';
        result += digits[i];
    }
    return result;
}

// "%.6f" with trailing zeros cut down to `minimum_decimals`, Argentine style.
std::string decimal_text(double value, size_t minimum_decimals)
{
    char text[64];
    std::snprintf(text, sizeof text, "%.6f", std::fabs(value));
    const std::string digits = text;
    const size_t point = digits.find('.');
    size_t end = digits.size();
    while (end > point + 1 + minimum_decimals && digits[end - 1] == '0')
        --end;
    const std::string decimals = digits.substr(point + 1, end - point - 1);
    return (value < 0 ? "-" : "") + grouped(digits.substr(0, point)) + (decimals.empty() ? "" : "," + decimals);
}

// Bytes of the UTF-8 sequence a lead byte starts, or 0 when it starts none.
size_t sequence_length(unsigned char lead)
{
    if (lead < 0x80)
        return 1;
    if (lead >= 0xC2 && lead <= 0xDF)
        return 2;
    if (lead >= 0xE0 && lead <= 0xEF)
        return 3;
    if (lead >= 0xF0 && lead <= 0xF4)
        return 4;
    return 0;
}

bool continuation(unsigned char byte) { return (byte & 0xC0) == 0x80; }

// Bytes of the first `columns` characters.
size_t prefix_bytes(const std::string& text, size_t columns)
{
    size_t bytes = 0;
    for (size_t count = 0; bytes < text.size() && count < columns; ++count) {
        ++bytes;
        while (bytes < text.size() && continuation(static_cast<unsigned char>(text[bytes])))
            ++bytes;
    }
    return bytes;
}

} // namespace

std::string amount_text(Money amount)
{
    const std::int64_t cents = amount.cents();
    const std::uint64_t magnitude = cents < 0 ? 0 - static_cast<std::uint64_t>(cents) : static_cast<std::uint64_t>(cents);
    char decimals[4];
    std::snprintf(decimals, sizeof decimals, "%02u", static_cast<unsigned>(magnitude % 100));
    return (cents < 0 ? "-" : "") + grouped(std::to_string(magnitude / 100)) + "," + decimals;
}

std::string money_text(Money amount, const std::string& symbol) { return symbol + " " + amount_text(amount); }

std::string quantity_text(double quantity) { return decimal_text(quantity, 2); }

std::string percent_text(double percent) { return decimal_text(percent, 0); }

std::string date_text(const std::string& yyyymmdd)
{
    return yyyymmdd.size() == 8 ? yyyymmdd.substr(6, 2) + "/" + yyyymmdd.substr(4, 2) + "/" + yyyymmdd.substr(0, 4)
                                : yyyymmdd;
}

bool valid_date(const std::string& text)
{
    if (text.size() != 8 || text.find_first_not_of("0123456789") != std::string::npos)
        return false;
    const int year = std::atoi(text.substr(0, 4).c_str());
    const int month = std::atoi(text.substr(4, 2).c_str());
    const int day = std::atoi(text.substr(6, 2).c_str());
    static const int month_days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (year < 1900 || month < 1 || month > 12 || day < 1)
        return false;
    const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
    return day <= month_days[month - 1] + (month == 2 && leap ? 1 : 0);
}

std::string zero_padded(std::int64_t value, int digits)
{
    char text[32];
    std::snprintf(text, sizeof text, "%0*lld", digits, static_cast<long long>(value));
    return text;
}

bool valid_utf8(const std::string& text)
{
    for (size_t i = 0; i < text.size();) {
        const unsigned char lead = static_cast<unsigned char>(text[i]);
        const size_t length = sequence_length(lead);
        if (length == 0 || i + length > text.size())
            return false;
        for (size_t k = 1; k < length; ++k)
            if (!continuation(static_cast<unsigned char>(text[i + k])))
                return false;
        const unsigned char second = length > 1 ? static_cast<unsigned char>(text[i + 1]) : 0;
        // Overlong forms, UTF-16 surrogates and code points past U+10FFFF.
        if ((lead == 0xE0 && second < 0xA0) || (lead == 0xED && second > 0x9F) || (lead == 0xF0 && second < 0x90) ||
            (lead == 0xF4 && second > 0x8F))
            return false;
        i += length;
    }
    return true;
}

std::string printable(const std::string& text)
{
    std::string result = text;
    for (char& c : result)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F)
            c = ' ';
    return result;
}

size_t column_count(const std::string& text)
{
    size_t count = 0;
    for (const char c : text)
        count += continuation(static_cast<unsigned char>(c)) ? 0 : 1;
    return count;
}

std::string first_columns(const std::string& text, size_t columns) { return text.substr(0, prefix_bytes(text, columns)); }

std::vector<std::string> wrap_text(const std::string& text, const std::function<bool(const std::string&)>& fits)
{
    std::vector<std::string> lines;
    std::string line;
    size_t start = 0;
    while (start < text.size()) {
        const size_t end = std::min(text.find(' ', start), text.size());
        std::string word = text.substr(start, end - start);
        start = end + 1;
        if (word.empty())
            continue;
        if (!line.empty() && fits(line + " " + word)) {
            line += " " + word;
            continue;
        }
        if (!line.empty())
            lines.push_back(line);
        // A word wider than a line: as many characters as fit (one at least), then the rest.
        while (!fits(word)) {
            size_t columns = 1;
            while (columns < column_count(word) && fits(first_columns(word, columns + 1)))
                ++columns;
            if (columns == column_count(word))
                break;
            lines.push_back(first_columns(word, columns));
            word.erase(0, prefix_bytes(word, columns));
        }
        line = word;
    }
    if (!line.empty())
        lines.push_back(line);
    return lines;
}
