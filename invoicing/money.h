#ifndef TARVO_INVOICING_MONEY_H
#define TARVO_INVOICING_MONEY_H

#include <cstdint>
#include <optional>
#include <string>

// An amount of money in cents. WSFEv1 takes at most two decimals, and the sums it checks must
// compare exactly, which binary fractions do not.
class Money {
public:
    constexpr Money() = default;
    static constexpr Money from_cents(std::int64_t cents) { return Money(cents); }

    // A JSON number as a host writes an amount: rounded half away from zero to the cent, with a
    // margin for binary fractions such as 1.005; nullopt when not finite or not below 10^13,
    // where a double no longer holds every cent.
    static std::optional<Money> from_number(double value);
    // A decimal text ("121", "121.5", "-0.50"), read exactly and rounded like from_number; nullopt
    // when it is no such text or not below 10^13.
    static std::optional<Money> parse(const std::string& text);

    constexpr std::int64_t cents() const { return m_cents; }
    // The wire form: "121.00", "-0.50".
    std::string text() const;

    constexpr Money operator+(Money other) const { return Money(m_cents + other.m_cents); }
    constexpr Money operator-(Money other) const { return Money(m_cents - other.m_cents); }
    Money& operator+=(Money other)
    {
        m_cents += other.m_cents;
        return *this;
    }
    constexpr bool operator==(Money other) const { return m_cents == other.m_cents; }
    constexpr bool operator!=(Money other) const { return m_cents != other.m_cents; }
    constexpr bool operator<(Money other) const { return m_cents < other.m_cents; }

private:
    constexpr explicit Money(std::int64_t cents) : m_cents(cents) {}
    std::int64_t m_cents = 0;
};

// A rate or quotation as WSFEv1 takes it (MonCotiz, Alic): at most six decimals, no trailing
// zeros, "0" for zero.
std::string decimal_text(double value);

#endif
