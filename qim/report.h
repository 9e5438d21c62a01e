// The plain-text description of a package that the upgrade flow prints.
#pragma once

#include <cstdio>

#include "qim/package.h"

// Prints the report on standard output.
void qim_package_print(const qim_package* pkg);
// The same report on any stream (host tools, tests).
void qim_package_fprint(const qim_package* pkg, FILE* out);
