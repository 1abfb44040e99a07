#include "invoicing/money.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>

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
    if (text.empty())
        return std::nullopt;
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    if (*end != '\0')
        return std::nullopt;
    return from_number(value);
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
