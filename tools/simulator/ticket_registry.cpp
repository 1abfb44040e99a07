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

namespace {

long long milliseconds(WallClock::time_point when)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(when.time_since_epoch()).count();
}

WallClock::time_point from_milliseconds(long long count)
{
    return WallClock::time_point(std::chrono::duration_cast<WallClock::duration>(std::chrono::milliseconds(count)));
}

// Tickets that ended this long ago are no longer kept: a host has long dropped them.
constexpr std::chrono::hours kept_after_expiry{24};

} // namespace

TicketRegistry::TicketRegistry(std::chrono::seconds lifetime, std::chrono::seconds refusal_window, StateFile& state)
    : m_lifetime(lifetime), m_refusal_window(refusal_window), m_state(state)
{
    const nlohmann::json saved = state.section("tickets");
    if (saved.is_null())
        return;
    try {
        for (const nlohmann::json& entry : saved.at("tickets")) {
            Ticket ticket{entry.at("token"), entry.at("sign"), entry.at("service"), from_milliseconds(entry.at("generated")),
                          from_milliseconds(entry.at("expires")), entry.at("relations")};
            m_tickets_by_token[ticket.token] = ticket;
        }
        for (const nlohmann::json& entry : saved.at("last"))
            m_last_by_certificate_and_service[{entry.at("certificate"), entry.at("service")}] = entry.at("token");
    } catch (const nlohmann::json::exception& error) {
        throw std::runtime_error(std::string("the state's tickets cannot be read: ") + error.what());
    }
}

std::optional<Ticket> TicketRegistry::issue(const std::string& certificate_fingerprint, const std::string& service,
                                            const std::function<Ticket(WallClock::time_point, WallClock::time_point)>& make)
{
    const WallClock::time_point now = WallClock::now();
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto last = m_last_by_certificate_and_service.find({certificate_fingerprint, service});
    if (last != m_last_by_certificate_and_service.end()) {
        const auto previous = m_tickets_by_token.find(last->second);
        if (previous != m_tickets_by_token.end() &&
            now < std::min(previous->second.expires, previous->second.generated + m_refusal_window))
            return std::nullopt;
    }

    Ticket ticket = make(now, now + m_lifetime);
    for (auto old = m_tickets_by_token.begin(); old != m_tickets_by_token.end();)
        old = old->second.expires + kept_after_expiry < now ? m_tickets_by_token.erase(old) : std::next(old);
    m_last_by_certificate_and_service[{certificate_fingerprint, service}] = ticket.token;
    m_tickets_by_token[ticket.token] = ticket;
    if (m_state.persistent())
        m_state.save("tickets", snapshot());
    return ticket;
}

TicketCheck TicketRegistry::check(const std::string& token, const std::string& sign, const std::string& service,
                                  const std::string& cuit) const
{
    if (token.empty() || sign.empty())
        return {TicketProblem::empty, std::nullopt};
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_tickets_by_token.find(token);
    if (found == m_tickets_by_token.end())
        return {TicketProblem::unknown_token, std::nullopt};
    const Ticket& ticket = found->second;
    const WallClock::time_point now = WallClock::now();
    const TicketProblem problem =
        ticket.sign != sign                                                                ? TicketProblem::wrong_sign
        : ticket.service != service                                                        ? TicketProblem::other_service
        : now < ticket.generated || now >= ticket.expires                                  ? TicketProblem::expired
        : std::find(ticket.relations.begin(), ticket.relations.end(), cuit) == ticket.relations.end() ? TicketProblem::unrelated_cuit
                                                                                           : TicketProblem::none;
    return {problem, ticket};
}

nlohmann::json TicketRegistry::snapshot() const
{
    nlohmann::json tickets = nlohmann::json::array(), last = nlohmann::json::array();
    for (const auto& [token, ticket] : m_tickets_by_token)
        tickets.push_back({{"token", token}, {"sign", ticket.sign}, {"service", ticket.service},
                           {"generated", milliseconds(ticket.generated)}, {"expires", milliseconds(ticket.expires)},
                           {"relations", ticket.relations}});
    for (const auto& [key, token] : m_last_by_certificate_and_service)
        last.push_back({{"certificate", key.first}, {"service", key.second}, {"token", token}});
    return {{"tickets", tickets}, {"last", last}};
}
