#include "ticket_registry.h"

#include <openssl/evp.h>
#include <openssl/rand.h>

#include <stdexcept>
#include <vector>

namespace {

// Sizes close to the real credentials: a token of about 500 characters, a sign of 172.
constexpr size_t token_bytes = 384;
constexpr size_t sign_bytes = 128;

std::vector<unsigned char> random_bytes(size_t count)
{
    std::vector<unsigned char> bytes(count);
    if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1)
        throw std::runtime_error("random generator failed");
    return bytes;
}

} // namespace

std::string random_base64(size_t byte_count)
{
    const std::vector<unsigned char> bytes = random_bytes(byte_count);
    std::string text(4 * ((byte_count + 2) / 3) + 1, '\0');
    const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), bytes.data(),
                                       static_cast<int>(bytes.size()));
    text.resize(static_cast<size_t>(length));
    return text;
}

std::string random_digits(size_t count)
{
    const std::vector<unsigned char> bytes = random_bytes(count);
    std::string digits;
    for (size_t i = 0; i < count; ++i)
        digits += static_cast<char>((i == 0 ? '1' + bytes[i] % 9 : '0' + bytes[i] % 10));
    return digits;
}

TicketRegistry::TicketRegistry(std::chrono::seconds lifetime) : m_lifetime(lifetime) {}

std::optional<Ticket> TicketRegistry::issue(const std::string& certificate_fingerprint, const std::string& service)
{
    const WallClock::time_point now = WallClock::now();
    std::lock_guard<std::mutex> lock(m_mutex);
    auto [entry, inserted] = m_expiry_by_certificate_and_service.try_emplace({certificate_fingerprint, service}, now);
    if (!inserted && entry->second > now)
        return std::nullopt;

    Ticket ticket{random_base64(token_bytes), random_base64(sign_bytes), service, now, now + m_lifetime};
    entry->second = ticket.expires;
    m_tickets_by_token[ticket.token] = ticket;
    return ticket;
}

TicketCheck TicketRegistry::check(const std::string& token, const std::string& sign) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_tickets_by_token.find(token);
    if (found == m_tickets_by_token.end() || found->second.sign != sign)
        return TicketCheck::unknown;
    return WallClock::now() < found->second.expires ? TicketCheck::valid : TicketCheck::expired;
}
