#include "driver/main.h"

const char library_version[6] = "1.0.0";
