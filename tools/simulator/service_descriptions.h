#ifndef TARVO_SIMULATOR_SERVICE_DESCRIPTIONS_H
#define TARVO_SIMULATOR_SERVICE_DESCRIPTIONS_H

// The WSDL of each endpoint, with "{address}" where the simulator's own address goes.
extern const char wsaa_description[];
extern const char wsfev1_description[];

#endif
