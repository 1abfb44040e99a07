#ifndef TARVO_UTIL_AFIP_ENVIRONMENTS_H
#define TARVO_UTIL_AFIP_ENVIRONMENTS_H

#include <cstring>

// AFIP's addresses in each environment.
struct AfipEnvironment {
    const char* name;
    const char* wsaa_url;
    const char* wsfev1_url;
    const char* constancia_url; // the registry's ws_sr_constancia_inscripcion
    const char* padron_a13_url; // the registry's ws_sr_padron_a13
};

inline constexpr AfipEnvironment afip_environments[] = {
    {"homologation", "https://wsaahomo.afip.gov.ar/ws/services/LoginCms",
     "https://wswhomo.afip.gov.ar/wsfev1/service.asmx",
     "https://awshomo.afip.gov.ar/sr-padron/webservices/personaServiceA5",
     "https://awshomo.afip.gov.ar/sr-padron/webservices/personaServiceA13"},
    {"production", "https://wsaa.afip.gov.ar/ws/services/LoginCms", "https://servicios1.afip.gov.ar/wsfev1/service.asmx",
     "https://aws.afip.gov.ar/sr-padron/webservices/personaServiceA5",
     "https://aws.afip.gov.ar/sr-padron/webservices/personaServiceA13"},
};

// The environment of that name; nullptr for none.
inline const AfipEnvironment* find_afip_environment(const char* name)
{
    for (const AfipEnvironment& environment : afip_environments)
        if (std::strcmp(environment.name, name) == 0)
            return &environment;
    return nullptr;
}

#endif
