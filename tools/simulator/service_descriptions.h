#ifndef TARVO_SIMULATOR_SERVICE_DESCRIPTIONS_H
#define TARVO_SIMULATOR_SERVICE_DESCRIPTIONS_H

// The WSDL of each endpoint, with "{address}" where the simulator's own address goes.
extern const char wsaa_description[];
extern const char wsfev1_description[];
// AFIP's published WSDLs of the registry's two services, their address replaced.
extern const char registry_a5_description[];
extern const char registry_a13_description[];

#endif
