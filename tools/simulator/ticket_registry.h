#ifndef TARVO_SIMULATOR_TICKET_REGISTRY_H
#define TARVO_SIMULATOR_TICKET_REGISTRY_H

#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "util/argentina_time.h"

struct Ticket {
    std::string token;
    std::string sign;
    std::string service;
    WallClock::time_point generated;
    WallClock::time_point expires;
    std::vector<std::string> relations; // the CUITs the certificate may represent
};

// The access tickets this process issued, shared by the login and business endpoints.
class TicketRegistry {
public:
    TicketRegistry(std::chrono::seconds lifetime, std::chrono::seconds refusal_window);

    // The ticket `make` builds for (generation, expiry) times, or nullopt while one issued for the
    // same certificate and service is still valid and younger than the refusal window.
    std::optional<Ticket> issue(const std::string& certificate_fingerprint, const std::string& service,
                                const std::function<Ticket(WallClock::time_point, WallClock::time_point)>& make);

    // The ticket issued here with that token and sign, whatever its age.
    std::optional<Ticket> find(const std::string& token, const std::string& sign) const;

private:
    std::chrono::seconds m_lifetime;
    std::chrono::seconds m_refusal_window;
    mutable std::mutex m_mutex;
    std::map<std::pair<std::string, std::string>, Ticket> m_last_by_certificate_and_service;
    std::unordered_map<std::string, Ticket> m_tickets_by_token;
};

// Base64 of that many random bytes.
std::string random_base64(size_t byte_count);

// A random decimal number of that many digits, first digit not zero.
std::string random_digits(size_t count);

#endif
