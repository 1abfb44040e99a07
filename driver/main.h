#ifndef TARVO_DRIVER_MAIN_H
#define TARVO_DRIVER_MAIN_H

// The version reported to hosts, NUL included: 6 bytes.
extern const char library_version[6];

#endif
