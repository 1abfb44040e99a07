// Text as Argentine vouchers print it, and the UTF-8 handling the layouts share.
#ifndef TARVO_INVOICING_RECEIPT_RECEIPT_TEXT_H
#define TARVO_INVOICING_RECEIPT_RECEIPT_TEXT_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "invoicing/money.h"

// "1.234,56", "-0,50": dots group thousands, a comma before the cents.
std::string amount_text(Money amount);
// "$ 1.234,56" with the currency's symbol.
std::string money_text(Money amount, const std::string& symbol);
// A quantity with at least two decimals and at most six: "2,00", "0,375", "1.500,00".
std::string quantity_text(double quantity);
// A percentage without trailing zeros: "21", "10,5", "2,5".
std::string percent_text(double percent);
// yyyymmdd as dd/mm/yyyy.
std::string date_text(const std::string& yyyymmdd);
// A real calendar date written yyyymmdd.
bool valid_date(const std::string& text);
// `value` in `digits` digits with leading zeros: 00001, 00000042.
std::string zero_padded(std::int64_t value, int digits);

bool valid_utf8(const std::string& text);
// Control characters (a printer command starts with one) turned into spaces.
std::string printable(const std::string& text);
// Characters (code points) in valid UTF-8.
size_t column_count(const std::string& text);
// The first `columns` characters of `text`.
std::string first_columns(const std::string& text, size_t columns);
// Words laid out in lines that `fits` accepts; a word too long for a line of its own is cut.
std::vector<std::string> wrap_text(const std::string& text, const std::function<bool(const std::string&)>& fits);

#endif
