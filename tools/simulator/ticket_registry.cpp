#include "ticket_registry.h"

#include <openssl/rand.h>

#include <algorithm>
#include <stdexcept>

#include "util/b64.h"

namespace {

std::string random_bytes(size_t count)
{
    std::string bytes(count, '\0');
    if (RAND_bytes(reinterpret_cast<unsigned char*>(bytes.data()), static_cast<int>(count)) != 1)
        throw std::runtime_error("random generator failed");
    return bytes;
}

} // namespace

std::string random_base64(size_t byte_count)
{
    return base64_encode(random_bytes(byte_count));
}

std::string random_digits(size_t count)
{
    const std::string bytes = random_bytes(count);
    std::string digits;
    for (size_t i = 0; i < count; ++i)
        digits += static_cast<char>(i == 0 ? '1' + static_cast<unsigned char>(bytes[i]) % 9
                                           : '0' + static_cast<unsigned char>(bytes[i]) % 10);
    return digits;
}

TicketRegistry::TicketRegistry(std::chrono::seconds lifetime, std::chrono::seconds refusal_window)
    : m_lifetime(lifetime), m_refusal_window(refusal_window)
{
}

std::optional<Ticket> TicketRegistry::issue(const std::string& certificate_fingerprint, const std::string& service,
                                            const std::function<Ticket(WallClock::time_point, WallClock::time_point)>& make)
{
    const WallClock::time_point now = WallClock::now();
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto last = m_last_by_certificate_and_service.find({certificate_fingerprint, service});
    if (last != m_last_by_certificate_and_service.end() &&
        now < std::min(last->second.expires, last->second.generated + m_refusal_window))
        return std::nullopt;

    Ticket ticket = make(now, now + m_lifetime);
    m_last_by_certificate_and_service[{certificate_fingerprint, service}] = ticket;
    m_tickets_by_token[ticket.token] = ticket;
    return ticket;
}

std::optional<Ticket> TicketRegistry::find(const std::string& token, const std::string& sign) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_tickets_by_token.find(token);
    if (found == m_tickets_by_token.end() || found->second.sign != sign)
        return std::nullopt;
    return found->second;
}
