#ifndef TARVO_SIMULATOR_TICKET_REGISTRY_H
#define TARVO_SIMULATOR_TICKET_REGISTRY_H

#include <chrono>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>

#include "argentina_time.h"

struct Ticket {
    std::string token;
    std::string sign;
    std::string service;
    WallClock::time_point generated;
    WallClock::time_point expires;
};

enum class TicketCheck { valid, unknown, expired };

// The access tickets this process issued, shared by the login and business endpoints.
class TicketRegistry {
public:
    explicit TicketRegistry(std::chrono::seconds lifetime);

    // A fresh ticket, or nullopt while one issued for that certificate and service is still valid.
    std::optional<Ticket> issue(const std::string& certificate_fingerprint, const std::string& service);

    // Whether the pair was issued together here and is still within its lifetime.
    TicketCheck check(const std::string& token, const std::string& sign) const;

private:
    std::chrono::seconds m_lifetime;
    mutable std::mutex m_mutex;
    std::map<std::pair<std::string, std::string>, WallClock::time_point> m_expiry_by_certificate_and_service;
    std::unordered_map<std::string, Ticket> m_tickets_by_token;
};

// Base64 of that many random bytes.
std::string random_base64(size_t byte_count);

// A random decimal number of that many digits, first digit not zero.
std::string random_digits(size_t count);

#endif
