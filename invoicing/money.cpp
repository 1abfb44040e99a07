#include "invoicing/money.h"

#include <cmath>
#include <cstdio>

namespace {

constexpr double largest_amount = 1e13;

} // namespace

std::optional<Money> Money::from_number(double value)
{
    if (!std::isfinite(value) || std::fabs(value) >= largest_amount)
        return std::nullopt;
    const double cents = value * 100.0;
    return Money(static_cast<std::int64_t>(std::llround(cents + std::copysign(1e-6, cents))));
}

std::optional<Money> Money::parse(const std::string& text)
{
    // Decimal digits read exactly: "-12.345" is -12.35, half away from zero as from_number.
    const bool negative = !text.empty() && text[0] == '-';
    const size_t digits_from = negative ? 1 : 0;
    const size_t point = text.find('.', digits_from);
    const std::string whole = text.substr(digits_from, point == std::string::npos ? std::string::npos : point - digits_from);
    const std::string fraction = point == std::string::npos ? "" : text.substr(point + 1);
    const auto all_digits = [](const std::string& part) { return part.find_first_not_of("0123456789") == std::string::npos; };
    if (whole.empty() || !all_digits(whole) || !all_digits(fraction) || (point != std::string::npos && fraction.empty()))
        return std::nullopt;
    const size_t significant = whole.find_first_not_of('0');
    if (significant != std::string::npos && whole.size() - significant > 13) // from_number's bound, 10^13
        return std::nullopt;
    std::int64_t cents = std::stoll(whole) * 100;
    const std::string kept = (fraction + "00").substr(0, 2);
    cents += std::stoll(kept);
    if (fraction.size() > 2 && fraction[2] >= '5')
        ++cents;
    return Money(negative ? -cents : cents);
}

std::string Money::text() const
{
    const unsigned long long magnitude =
        m_cents < 0 ? 0ULL - static_cast<unsigned long long>(m_cents) : static_cast<unsigned long long>(m_cents);
    char text[32];
    std::snprintf(text, sizeof text, "%s%llu.%02llu", m_cents < 0 ? "-" : "", magnitude / 100, magnitude % 100);
    return text;
}

std::string decimal_text(double value)
{
    char text[64];
    std::snprintf(text, sizeof text, "%.6f", value);
    std::string result = text;
    result.erase(result.find_last_not_of('0') + 1);
    if (result.back() == '.')
        result.pop_back();
    return result == "-0" ? "0" : result;
}
