#ifndef TARVO_INVOICING_LOOKUP_H
#define TARVO_INVOICING_LOOKUP_H

#include <cstdint>
#include <optional>
#include <string>

#include "invoicing/afip_channel.h"
#include "invoicing/ledger.h"
#include "invoicing/registry.h"

// What asking the registry about a CUIT gave: a person (status 0), or why not.
struct LookupOutcome {
    int status = 0; // 0, 26 unknown CUIT, 27 inactive key, 28 refused by the registry, 14 unreadable, 1-17
    std::string message;
    std::optional<RegistryPerson> person;
    bool from_cache = false; // from the ledger, asked less than a day ago
};

// Asks one of the registry's services through `channel` (logged in to that service), on behalf of
// the represented issuer; with a ledger, answers are kept there and reused for a day.
class RegistryLookup {
public:
    RegistryLookup(AfipChannel& channel, RegistryService service, std::int64_t represented_cuit, Ledger* cache);
    LookupOutcome look_up(std::int64_t cuit, bool reuse = true);

private:
    AfipChannel& m_channel;
    RegistryService m_service;
    std::int64_t m_represented;
    Ledger* m_cache;
};

// The person as JSON: cuit, name, person_type, key_state, address, taxes, monotributo_category,
// CondicionIVAReceptorId and its description, errors; and back.
std::string person_json(const RegistryPerson& person, RegistryService service, bool from_cache);
RegistryPerson person_from_json(const std::string& text);

#endif
