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

#include "state_file.h"
#include "util/argentina_time.h"

struct Ticket {
    std::string token;
    std::string sign;
    std::string service;
    WallClock::time_point generated;
    WallClock::time_point expires;
    std::vector<std::string> relations; // the CUITs the certificate may represent
};

// Why a business endpoint refuses the credentials of a request; each service words it its own way.
enum class TicketProblem { none, empty, unknown_token, wrong_sign, other_service, expired, unrelated_cuit };

struct TicketCheck {
    TicketProblem problem = TicketProblem::none;
    std::optional<Ticket> ticket; // the token's, when it is known
};

// The access tickets this simulator issued, shared by the login and business endpoints, and
// kept in the state file when there is one, so that a host's cached ticket outlives a restart.
class TicketRegistry {
public:
    TicketRegistry(std::chrono::seconds lifetime, std::chrono::seconds refusal_window, StateFile& state);

    // The ticket `make` builds for (generation, expiry) times, or nullopt while one issued for the
    // same certificate and service is still valid and younger than the refusal window.
    std::optional<Ticket> issue(const std::string& certificate_fingerprint, const std::string& service,
                                const std::function<Ticket(WallClock::time_point, WallClock::time_point)>& make);

    // Whether a request for `service` on behalf of `cuit` may go on with that token and sign,
    // checked in the order AFIP's services report the problems.
    TicketCheck check(const std::string& token, const std::string& sign, const std::string& service, const std::string& cuit) const;

private:
    nlohmann::json snapshot() const; // with m_mutex held

    std::chrono::seconds m_lifetime;
    std::chrono::seconds m_refusal_window;
    StateFile& m_state;
    mutable std::mutex m_mutex;
    std::map<std::pair<std::string, std::string>, std::string> m_last_by_certificate_and_service; // -> token
    std::unordered_map<std::string, Ticket> m_tickets_by_token;
};

// Base64 of that many random bytes.
std::string random_base64(size_t byte_count);

// A random decimal number of that many digits, first digit not zero.
std::string random_digits(size_t count);

#endif
